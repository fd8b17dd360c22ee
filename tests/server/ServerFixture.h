// What the lxrepo-server tests, the end-to-end imports and the lxrepo tests share: servers
// started in-process on free loopback ports with fresh SQLite files, requests in the client
// library's wire form for what only a test sends, and the SQL file read back.
#pragma once

#include "LxrepoServer.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace servertest {

// A directory of its own under the test temp dir, removed at the end.
class TempDirectory {
public:
    TempDirectory();
    ~TempDirectory();
    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;
    std::string File(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// Options for a server on 127.0.0.1, port 0, with the given database and role.
lxrepo::ServerOptions DefaultOptions(const std::string& database,
                                     lxrepo::Role role = lxrepo::Role::Both);

class RunningServer {
public:
    explicit RunningServer(const lxrepo::ServerOptions& options);
    ~RunningServer() { server_->Stop(); }
    std::string Url() const; // "http://<address>:<port>"
    unsigned short Port() const { return server_->Port(); }
    lxrepo::LxrepoServer& Server() { return *server_; }

private:
    std::string address_;
    std::unique_ptr<lxrepo::LxrepoServer> server_;
};

struct Answer {
    int status = 0;
    std::string contentType;
    std::string body;
    std::string wwwAuthenticate;
    std::string Error() const; // the "error" member of a JSON body, "" without one
};

using Query = std::vector<std::pair<std::string, std::string>>;

// One request as the client library sends it: a fresh cpprestsdk client, the path as given
// (encoded already), the query values encoded, a body as application/json (then by POST).
Answer Send(const std::string& baseUrl, const std::string& path,
            const std::optional<std::string>& body = std::nullopt, const Query& query = {},
            const std::string& authorization = "");

// POST /Import/Tables/<id, encoded><rest>
Answer PostImport(const std::string& baseUrl, const std::string& id, const std::string& rest,
                  const std::string& body);

// POST /Import/Tables; for 201 *id gets the table id.
Answer CreateTable(const std::string& baseUrl, const std::string& name, int recordCount,
                   std::string* id = nullptr);

// The attribute document for these names, as far as the service reads it.
std::string AttributeDocument(const std::vector<std::string>& names);

// Every row of a query; NULL as nullopt. Opens the file read-only.
using Row = std::vector<std::optional<std::string>>;
std::vector<Row> QueryRows(const std::string& database, const std::string& sql);
// "select * from <table> order by rowid", the name quoted.
std::vector<Row> TableRows(const std::string& database, const std::string& table);

} // namespace servertest
