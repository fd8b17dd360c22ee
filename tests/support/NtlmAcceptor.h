// lxrepo-server's NTLM acceptor as a RecordingServer handler, with a record of every leg: the
// handshake is bound to the TCP connection as the service binds it.
// Keep the acceptor alive longer than the server whose connections carry its contexts.
#pragma once

#include "support/RecordingServer.h"

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace lxrepo {
class NtlmAcceptor;
}

namespace testsupport {

class NtlmAcceptor {
public:
    struct Leg {
        std::size_t connectionId = 0;
        int message = 0; // NTLMSSP message type of the Authorization token; 0 for none or another
        int status = 0;  // what the acceptor answered: 401, or 200 "authenticated"
    };

    // userFile: DOMAIN:USER:PASSWORD lines; serviceHost: the name clients target ("HTTP@host").
    NtlmAcceptor(const std::string& userFile, const std::string& serviceHost);
    ~NtlmAcceptor();

    RecordingServer::Handler Handler();
    std::vector<Leg> Legs() const;
    std::vector<std::string> AuthenticatedUsers() const; // "DOMAIN\user", in order

private:
    std::unique_ptr<lxrepo::NtlmAcceptor> acceptor_;
    mutable std::mutex mutex_;
    std::vector<Leg> legs_;
    std::vector<std::string> users_;
};

} // namespace testsupport
