// What the lxrepo-server tests share: a server started in-process on a free loopback port with a
// fresh SQLite file, requests in the client library's wire form, and the SQL file read back.
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

// Options for an in-process server on 127.0.0.1, port 0, with the given database.
lxrepo::ServerOptions DefaultOptions(const std::string& database);

class RunningServer {
public:
    explicit RunningServer(lxrepo::ServerOptions options);
    ~RunningServer();
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
};

struct Segment {
    std::string text;
    bool encode = false;
};
inline Segment Word(const std::string& text) { return {text, false}; }
inline Segment Name(const std::string& text) { return {text, true}; }

using Query = std::vector<std::pair<std::string, std::string>>;

// Where import calls go: straight to the service, or through the proxy's forwarding prefix
// with the proxy's three query parameters, as the client library sends them.
struct Via {
    Via(std::string base) : baseUrl(std::move(base)) {} // NOLINT: a URL is a direct route
    Via(std::string proxyUrl, std::string prefix, Query parameters)
        : baseUrl(std::move(proxyUrl)), forwardPrefix(std::move(prefix)),
          query(std::move(parameters)) {}
    std::string baseUrl;
    std::string forwardPrefix;
    Query query;
};

// A request the way the client library sends one: a fresh cpprestsdk client per call, the
// path built with uri_builder (fixed words as they are, names percent-encoded as segments), the
// query values encoded, the body as application/json.
Answer Send(const std::string& baseUrl, const std::string& method, const std::vector<Segment>& path,
            const std::optional<std::string>& body, const Query& query = {});
Answer Send(const Via& via, const std::string& method, std::vector<Segment> path,
            const std::optional<std::string>& body);

// POST "/Import/Tables" / id / rest..., id and names encoded.
Answer PostImport(const Via& via, const std::string& id, const std::vector<Segment>& rest,
                  const std::string& body);

// POST /Import/Tables; returns the answer and, for 201, the id.
Answer CreateTable(const Via& via, const std::string& name, int recordCount, bool overwrite,
                   std::string* id = nullptr);

// A whole import in the library's order; the distinct values and the ids each go in two
// chunks. distinctValues[c] are attribute c's distinct values, valueIds[c] its ids row by row.
// Returns the status of the first call not answered as expected, or 200 for a completed End.
struct TableData {
    std::string name;
    std::vector<std::string> attributes;
    std::vector<std::vector<std::string>> distinctValues;
    std::vector<std::vector<int>> valueIds;
};
int ImportWholeTable(const Via& via, const TableData& table, bool overwrite = false);

// A program run as a child process whose first line of output is its port (lxrepo-server
// prints the number, the test OpenID provider "listening <port>").
class ChildProcess {
public:
    // Throws std::runtime_error when the program ends without printing a line.
    explicit ChildProcess(const std::vector<std::string>& argv);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    unsigned short Port() const { return port_; }
    // Sends the signal, waits, and returns the wait status.
    int Stop(int signal);

private:
    int pid_ = -1;
    unsigned short port_ = 0;
};

// A port that was free a moment ago (bound and released), for a server whose address must be
// known before it starts.
unsigned short FreePort(const std::string& address = "127.0.0.1");

// Every row of a query; NULL as nullopt. Opens the file read-only.
using Row = std::vector<std::optional<std::string>>;
std::vector<Row> QueryRows(const std::string& database, const std::string& sql);

// The attribute document in the library's form for these names (35 members each).
std::string AttributeDocument(const std::vector<std::string>& names);

} // namespace servertest
