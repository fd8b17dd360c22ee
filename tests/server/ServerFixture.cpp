// GoogleTest comes first: cpprestsdk's function-like macro U() breaks its templates.
#include <gtest/gtest.h>

#include "ServerFixture.h"

#include "Url.h"

#include <cpprest/http_client.h>
#include <nlohmann/json.hpp>
#include <sqlite3.h>

#include <atomic>
#include <filesystem>
#include <stdexcept>

#include <unistd.h>

namespace servertest {

namespace fs = std::filesystem;

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

lxrepo::ServerOptions DefaultOptions(const std::string& database, lxrepo::Role role) {
    lxrepo::ServerOptions options;
    options.http.address = "127.0.0.1";
    options.http.port = 0;
    options.database = database;
    options.role = role;
    return options;
}

RunningServer::RunningServer(const lxrepo::ServerOptions& options)
    : address_(options.http.address), server_(std::make_unique<lxrepo::LxrepoServer>(options)) {
    server_->Start();
}

std::string RunningServer::Url() const {
    return "http://" + address_ + ":" + std::to_string(server_->Port());
}

std::string Answer::Error() const {
    const auto json = nlohmann::json::parse(body, nullptr, false);
    return json.is_object() && json.contains("error") && json["error"].is_string()
               ? json["error"].get<std::string>()
               : "";
}

Answer Send(const std::string& baseUrl, const std::string& path,
            const std::optional<std::string>& body, const Query& query,
            const std::string& authorization) {
    web::uri_builder builder{web::uri(baseUrl)};
    builder.append_path(path);
    for (const auto& [name, value] : query) {
        builder.append_query(name, value, true);
    }
    web::http::client::http_client client(builder.to_uri());
    web::http::http_request request(body ? web::http::methods::POST : web::http::methods::GET);
    if (body) {
        request.set_body(*body, "application/json");
    }
    if (!authorization.empty()) {
        request.headers().add("Authorization", authorization);
    }
    const auto response = client.request(request).get();
    Answer answer{response.status_code(), response.headers().content_type(),
                  response.extract_utf8string(true).get(), ""};
    response.headers().match("WWW-Authenticate", answer.wwwAuthenticate);
    return answer;
}

Answer PostImport(const std::string& baseUrl, const std::string& id, const std::string& rest,
                  const std::string& body) {
    return Send(baseUrl, "/Import/Tables/" + lxrepo::PercentEncode(id) + rest, body);
}

Answer CreateTable(const std::string& baseUrl, const std::string& name, int recordCount,
                   std::string* id) {
    const nlohmann::json body = {{"recordCount", recordCount},
                                 {"tableClass", "Sales"},
                                 {"tableDescription", ""},
                                 {"tableName", name},
                                 {"tableOverwrite", false}};
    Answer answer = Send(baseUrl, "/Import/Tables", body.dump());
    if (answer.status == 201 && id != nullptr) {
        *id = nlohmann::json::parse(answer.body).at("tableID").get<std::string>();
    }
    return answer;
}

std::string AttributeDocument(const std::vector<std::string>& names) {
    nlohmann::json document = nlohmann::json::array();
    for (const auto& name : names) {
        document.push_back({{"AttributeName", name}, {"Type", 3}});
    }
    return document.dump();
}

std::vector<Row> QueryRows(const std::string& database, const std::string& sql) {
    sqlite3* db = nullptr;
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_open_v2(database.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK ||
        sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
        const std::string message = sqlite3_errmsg(db);
        sqlite3_close(db);
        throw std::runtime_error(database + ": " + message);
    }
    std::vector<Row> rows;
    while (sqlite3_step(statement) == SQLITE_ROW) {
        Row row;
        for (int c = 0; c < sqlite3_column_count(statement); ++c) {
            const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, c));
            row.push_back(text == nullptr ? std::nullopt : std::optional<std::string>(text));
        }
        rows.push_back(std::move(row));
    }
    sqlite3_finalize(statement);
    sqlite3_close(db);
    return rows;
}

std::vector<Row> TableRows(const std::string& database, const std::string& table) {
    std::string quoted;
    for (const char c : table) {
        quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    }
    return QueryRows(database, "select * from \"" + quoted + "\" order by rowid");
}

} // namespace servertest
