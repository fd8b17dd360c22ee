// GoogleTest comes first: cpprestsdk's function-like macro U() breaks its templates.
#include <gtest/gtest.h>

#include "ServerFixture.h"

#include <cpprest/http_client.h>
#include <nlohmann/json.hpp>
#include <sqlite3.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <stdexcept>

#include <sys/wait.h>
#include <unistd.h>

namespace servertest {

namespace fs = std::filesystem;
using web::http::client::http_client;

TempDirectory::TempDirectory() {
    static std::atomic<int> counter{0};
    path_ = ::testing::TempDir() + "lxrepo-" + std::to_string(getpid()) + "-" +
            std::to_string(counter++);
    fs::remove_all(path_);
    fs::create_directories(path_);
}

TempDirectory::~TempDirectory() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

lxrepo::ServerOptions DefaultOptions(const std::string& database) {
    lxrepo::ServerOptions options;
    options.http.address = "127.0.0.1";
    options.http.port = 0;
    options.database = database;
    return options;
}

RunningServer::RunningServer(lxrepo::ServerOptions options)
    : address_(options.http.address),
      server_(std::make_unique<lxrepo::LxrepoServer>(std::move(options))) {
    server_->Start();
}

RunningServer::~RunningServer() { server_->Stop(); }

std::string RunningServer::Url() const {
    return "http://" + address_ + ":" + std::to_string(server_->Port());
}

Answer Send(const std::string& baseUrl, const std::string& method, const std::vector<Segment>& path,
            const std::optional<std::string>& body, const Query& query) {
    web::uri_builder builder{web::uri(baseUrl)};
    for (const auto& segment : path) {
        builder.append_path(segment.text, segment.encode);
    }
    for (const auto& [name, value] : query) {
        builder.append_query(name, value, true);
    }
    http_client client(builder.to_uri());
    web::http::http_request request(method);
    if (body) {
        request.headers().set_content_type("application/json");
        request.set_body(*body, "application/json");
    }
    const auto response = client.request(request).get();
    Answer answer;
    answer.status = response.status_code();
    answer.contentType = response.headers().content_type();
    answer.body = response.extract_utf8string(true).get();
    response.headers().match("WWW-Authenticate", answer.wwwAuthenticate);
    return answer;
}

Answer Send(const Via& via, const std::string& method, std::vector<Segment> path,
            const std::optional<std::string>& body) {
    if (!via.forwardPrefix.empty()) {
        path.insert(path.begin(), Word(via.forwardPrefix));
    }
    return Send(via.baseUrl, method, path, body, via.query);
}

Answer PostImport(const Via& via, const std::string& id, const std::vector<Segment>& rest,
                  const std::string& body) {
    std::vector<Segment> path = {Word("/Import/Tables"), Name(id)};
    path.insert(path.end(), rest.begin(), rest.end());
    return Send(via, "POST", path, body);
}

Answer CreateTable(const Via& via, const std::string& name, int recordCount, bool overwrite,
                   std::string* id) {
    const nlohmann::json body = {{"recordCount", recordCount},
                                 {"tableClass", "Sales"},
                                 {"tableDescription", "created by a test"},
                                 {"tableName", name},
                                 {"tableOverwrite", overwrite}};
    Answer answer = Send(via, "POST", {Word("/Import/Tables")}, body.dump());
    if (answer.status == 201 && id != nullptr) {
        *id = nlohmann::json::parse(answer.body).at("tableID").get<std::string>();
    }
    return answer;
}

std::string AttributeDocument(const std::vector<std::string>& names) {
    nlohmann::json document = nlohmann::json::array();
    for (const auto& name : names) {
        nlohmann::json attribute = {{"AttributeName", name},
                                    {"Type", 3},
                                    {"Format", "#,##0"},
                                    {"LCID", 1033},
                                    {"Level", 0},
                                    {"Id", "id-" + name},
                                    {"EvalMode", 0},
                                    {"SummaryType", 0},
                                    {"ValueRanges", nlohmann::json::array()},
                                    {"Cases", nlohmann::json::array()}};
        for (const char* flag :
             {"IsGroup", "IsSummary", "IsFormula", "IsClassification", "IsCaseDiscrimination",
              "IsLink", "IsPermanentlyHidden", "UserDefinedOrder", "MissingValuesAsZero", "Reverse",
              "IsExpanded", "IsCoupled", "IsFirstCoupledAttribute", "IsLastCoupledAttributeLeads",
              "IsCoupledAttributeSortedReverse", "IsDrillDownGroup"}) {
            attribute[flag] = false;
        }
        for (const char* text : {"Source", "SummaryPerAttribute", "ClassifiedAttribute", "Formula",
                                 "ReferencedAttributes", "MarginalValue", "CoupledAttributes",
                                 "Parent", "ReferencedDrillDownGroup"}) {
            attribute[text] = "";
        }
        document.push_back(attribute);
    }
    return document.dump();
}

namespace {

std::string Chunk(const std::vector<std::string>& values, std::size_t from, std::size_t to) {
    return nlohmann::json(std::vector<std::string>(values.begin() + from, values.begin() + to))
        .dump();
}

std::string Chunk(const std::vector<int>& ids, std::size_t from, std::size_t to) {
    return nlohmann::json(std::vector<int>(ids.begin() + from, ids.begin() + to)).dump();
}

} // namespace

int ImportWholeTable(const Via& via, const TableData& table, bool overwrite) {
    const int rows = table.valueIds.empty() ? 0 : static_cast<int>(table.valueIds[0].size());
    std::string id;
    const Answer created = CreateTable(via, table.name, rows, overwrite, &id);
    if (created.status != 201) {
        return created.status;
    }
    const auto expectOk = [](const Answer& answer) { return answer.status == 200; };
    Answer answer = PostImport(via, id, {Word("Attributes")}, AttributeDocument(table.attributes));
    if (!expectOk(answer)) {
        return answer.status;
    }
    for (std::size_t a = 0; a < table.attributes.size(); ++a) {
        const auto& values = table.distinctValues[a];
        const std::size_t half = values.size() / 2;
        for (const auto& [rest, body] : std::vector<std::pair<std::vector<Segment>, std::string>>{
                 {{Word("DistinctValues"), Name(table.attributes[a]), Word("Begin")}, "null"},
                 {{Word("DistinctValues"), Name(table.attributes[a])}, Chunk(values, 0, half)},
                 {{Word("DistinctValues"), Name(table.attributes[a])},
                  Chunk(values, half, values.size())},
                 {{Word("DistinctValues"), Name(table.attributes[a]), Word("End")}, "null"}}) {
            answer = PostImport(via, id, rest, body);
            if (!expectOk(answer)) {
                return answer.status;
            }
        }
    }
    for (const auto& attribute : table.attributes) {
        answer = PostImport(via, id, {Word("ValueIds"), Name(attribute), Word("Begin")}, "null");
        if (!expectOk(answer)) {
            return answer.status;
        }
    }
    const auto total = static_cast<std::size_t>(rows);
    for (const auto& [from, to] : {std::pair<std::size_t, std::size_t>{0, total / 2},
                                   std::pair<std::size_t, std::size_t>{total / 2, total}}) {
        for (std::size_t a = 0; a < table.attributes.size(); ++a) {
            answer = PostImport(via, id, {Word("ValueIds"), Name(table.attributes[a])},
                                Chunk(table.valueIds[a], from, to));
            if (!expectOk(answer)) {
                return answer.status;
            }
        }
    }
    for (const auto& attribute : table.attributes) {
        answer = PostImport(via, id, {Word("ValueIds"), Name(attribute), Word("End")}, "null");
        if (!expectOk(answer)) {
            return answer.status;
        }
    }
    return PostImport(via, id, {Word("End")}, "null").status;
}

ChildProcess::ChildProcess(const std::vector<std::string>& argv) {
    int output[2];
    if (pipe(output) != 0) {
        throw std::runtime_error("pipe failed");
    }
    std::vector<char*> arguments;
    for (const auto& argument : argv) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        dup2(output[1], STDOUT_FILENO);
        close(output[0]);
        close(output[1]);
        execv(arguments[0], arguments.data());
        _exit(127);
    }
    close(output[1]);
    FILE* stream = fdopen(output[0], "r");
    char line[128] = {};
    const bool read = std::fgets(line, sizeof line, stream) != nullptr;
    std::fclose(stream);
    const std::string text = line;
    const auto digits = text.find_first_of("0123456789");
    if (!read || digits == std::string::npos) {
        Stop(SIGKILL);
        throw std::runtime_error(argv[0] + " printed no port");
    }
    port_ = static_cast<unsigned short>(std::stoi(text.substr(digits)));
}

ChildProcess::~ChildProcess() {
    if (pid_ > 0) {
        Stop(SIGKILL);
    }
}

int ChildProcess::Stop(int signal) {
    kill(pid_, signal);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return status;
}

unsigned short FreePort(const std::string& address) {
    boost::asio::io_context context;
    boost::asio::ip::tcp::acceptor acceptor(context, {boost::asio::ip::make_address(address), 0});
    return acceptor.local_endpoint().port();
}

std::vector<Row> QueryRows(const std::string& database, const std::string& sql) {
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(database.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        sqlite3_close(db);
        throw std::runtime_error("cannot open " + database);
    }
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
        const std::string message = sqlite3_errmsg(db);
        sqlite3_close(db);
        throw std::runtime_error(message);
    }
    std::vector<Row> rows;
    while (sqlite3_step(statement) == SQLITE_ROW) {
        Row row;
        for (int c = 0; c < sqlite3_column_count(statement); ++c) {
            const auto* text = sqlite3_column_text(statement, c);
            row.push_back(text == nullptr
                              ? std::nullopt
                              : std::optional<std::string>(reinterpret_cast<const char*>(text)));
        }
        rows.push_back(std::move(row));
    }
    sqlite3_finalize(statement);
    sqlite3_close(db);
    return rows;
}

} // namespace servertest
