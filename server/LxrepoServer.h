// lxrepo-server as one object: the repository service under /Import (and /identity in bearer
// mode), the authentication proxy at its paths, or both, on one listening socket.
#pragma once

#include "ServerOptions.h"

#include <memory>

namespace lxrepo {

class LxrepoServer {
public:
    // Opens the database, acquires credentials and binds; serving starts with Start().
    // Throws std::exception subclasses with a message fit for the console.
    explicit LxrepoServer(ServerOptions options);
    ~LxrepoServer();
    LxrepoServer(const LxrepoServer&) = delete;
    LxrepoServer& operator=(const LxrepoServer&) = delete;

    unsigned short Port() const;
    bool Secure() const; // serving TLS
    void Start();
    // Finishes the requests in hand and closes everything; committed tables are in the file.
    void Stop();

private:
    struct Parts;
    Response Handle(Request& request, ConnectionState& connection);
    Response HandleImport(Request& request, ConnectionState& connection, const std::string& path);

    ServerOptions options_;
    std::unique_ptr<Parts> parts_;
    std::unique_ptr<HttpServer> http_;
};

} // namespace lxrepo
