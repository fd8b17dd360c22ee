// What the lxrepo-server tests, the end-to-end imports and the lxrepo tests share: servers
// started in-process on free loopback ports with fresh SQLite files, the NTLM accounts, one way
// to send a request the library never sends, and the SQL file read back.
#pragma once

#include "LxrepoServer.h"
#include "NtlmInitiator.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace servertest {

// A directory of its own under the test temp dir, removed at the end.
struct TempDirectory {
    TempDirectory();
    ~TempDirectory();
    std::string File(const std::string& name) const { return path + "/" + name; }
    std::string path;
};

// Options for a server on 127.0.0.1, any free port, with the given database and role.
lxrepo::ServerOptions DefaultOptions(const std::string& database,
                                     lxrepo::Role role = lxrepo::Role::Both);

// Serving from construction on.
struct RunningServer : lxrepo::LxrepoServer {
    explicit RunningServer(const lxrepo::ServerOptions& options)
        : LxrepoServer(options), address(options.http.address) {
        Start();
    }
    std::string Url() const {
        return (Secure() ? "https://" : "http://") + address + ":" + std::to_string(Port());
    }
    std::string address;
};

// The library skips the NTLM handshake for 127.0.0.1 and localhost, so a service that wants NTLM
// stands on another loopback address, as a service on another machine would.
inline constexpr char kNtlmServiceHost[] = "127.0.0.2";
// The accounts of the users file that WriteNtlmUsers writes to path.
inline const lxrepo::NtlmCredentials kAlice{"TESTDOM\\alice", "Alice-Password-1"};
inline const lxrepo::NtlmCredentials kProxyAccount{"TESTDOM\\proxy", "Proxy-Password-2"};
void WriteNtlmUsers(const std::string& path);

struct Answer {
    int status = 0;
    std::string body;
    std::string contentType;
    std::string wwwAuthenticate;
    std::string Error() const; // the "error" member of a JSON body, "" without one
};

using Fields = std::vector<std::pair<std::string, std::string>>;

// path?name=value&..., names and values percent-encoded.
std::string WithQuery(const std::string& path, const Fields& query);

// One request on a connection of its own: a POST of the body (as JSON unless the headers name
// another type) or, without one, a GET. Headers without a value are left out.
Answer Send(const std::string& url, const std::string& target,
            const std::optional<std::string>& body = std::nullopt, const Fields& headers = {});

// Every row of a query; NULL as nullopt. Opens the file read-only.
using Row = std::vector<std::optional<std::string>>;
std::vector<Row> QueryRows(const std::string& database, const std::string& sql);
// "select * from <table> order by rowid"
std::vector<Row> TableRows(const std::string& database, const std::string& table);

} // namespace servertest
