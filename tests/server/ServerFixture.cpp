#include <gtest/gtest.h>

#include "ServerFixture.h"

#include "HttpClient.h"

#include <nlohmann/json.hpp>
#include <sqlite3.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <unistd.h>

namespace servertest {

namespace fs = std::filesystem;

TempDirectory::TempDirectory() {
    static std::atomic<int> counter{0};
    // The service syncs every SQLite commit to disk, some 30 ms each on a test machine; in memory
    // it costs nothing, and what the tests kill is a process, never the machine.
    path = (fs::is_directory("/dev/shm") ? std::string("/dev/shm/") : ::testing::TempDir()) +
           "lxrepo-" + std::to_string(getpid()) + "-" + std::to_string(counter++);
    fs::remove_all(path);
    fs::create_directories(path);
}

TempDirectory::~TempDirectory() {
    std::error_code ignored;
    fs::remove_all(path, ignored);
}

lxrepo::ServerOptions DefaultOptions(const std::string& database, lxrepo::Role role) {
    lxrepo::ServerOptions options; // on 127.0.0.1, port 0
    options.database = database;
    options.role = role;
    return options;
}

void WriteNtlmUsers(const std::string& path) {
    std::ofstream(path) << "TESTDOM:alice:" << kAlice.password
                        << "\nTESTDOM:proxy:" << kProxyAccount.password << "\n";
}

std::string Answer::Error() const {
    const auto json = nlohmann::json::parse(body, nullptr, false);
    return json.is_object() ? json.value("error", "") : "";
}

std::string WithQuery(const std::string& path, const Fields& query) {
    std::string target = path;
    for (const auto& [name, value] : query) {
        target += (target == path ? "?" : "&") + lxrepo::PercentEncode(name) + "=" +
                  lxrepo::PercentEncode(value);
    }
    return target;
}

Answer Send(const std::string& url, const std::string& target,
            const std::optional<std::string>& body, const Fields& headers) {
    namespace http = lxrepo::http;
    lxrepo::Request request(body ? http::verb::post : http::verb::get, target, 11);
    if (body) {
        request.set(http::field::content_type, "application/json");
        request.body() = *body;
    }
    for (const auto& [name, value] : headers) {
        if (!value.empty()) {
            request.set(name, value);
        }
    }
    const lxrepo::Response answer = lxrepo::SendOnce(*lxrepo::ParseBaseUrl(url), request);
    return {static_cast<int>(answer.result_int()), answer.body(),
            std::string(answer[http::field::content_type]),
            std::string(answer[http::field::www_authenticate])};
}

std::vector<Row> QueryRows(const std::string& database, const std::string& sql) {
    sqlite3* db = nullptr;
    sqlite3_open_v2(database.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
    std::vector<Row> rows;
    const auto collect = [](void* out, int count, char** values, char**) {
        Row& row = static_cast<std::vector<Row>*>(out)->emplace_back();
        for (int c = 0; c < count; ++c) {
            row.push_back(values[c] == nullptr ? std::nullopt
                                               : std::optional<std::string>(values[c]));
        }
        return 0;
    };
    const bool done = sqlite3_exec(db, sql.c_str(), collect, &rows, nullptr) == SQLITE_OK;
    const std::string message = sqlite3_errmsg(db);
    sqlite3_close(db);
    if (!done) {
        throw std::runtime_error(database + ": " + message);
    }
    return rows;
}

std::vector<Row> TableRows(const std::string& database, const std::string& table) {
    return QueryRows(database, "select * from \"" + table + "\" order by rowid");
}

} // namespace servertest
