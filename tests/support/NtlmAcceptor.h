// The server side of NTLM over HTTP for wire-level tests: a GSSAPI (NTLMSSP) acceptor that plugs
// into RecordingServer as its handler and binds each handshake to its TCP connection, as real
// servers do.
//
//   no Authorization            -> 401, WWW-Authenticate: NTLM
//   "NTLM " + NEGOTIATE         -> 401, WWW-Authenticate: NTLM <challenge>  (context kept on the
//                                  connection, replacing any earlier one)
//   "NTLM " + AUTHENTICATE      -> 200 if it completes the context kept on THIS connection,
//                                  otherwise 401; the context is dropped either way
//   anything else               -> 401, WWW-Authenticate: NTLM
//
// Credentials come from a user file of DOMAIN:USER:PASSWORD lines (gss-ntlmssp's key file), so
// the acceptor does not depend on the NTLM_USER_FILE the client side reads.
// Keep the acceptor alive longer than the server whose connections carry its contexts.
#pragma once

#include "support/RecordingServer.h"

#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace testsupport {

// Strict standard base64 (RFC 4648 alphabet, '=' padding required); nullopt for anything else.
std::optional<std::vector<unsigned char>> DecodeBase64(std::string_view text);
std::string EncodeBase64(const std::vector<unsigned char>& bytes);

// NTLMSSP message type (1, 2, 3) of a raw token, or 0 if it lacks the "NTLMSSP\0" signature.
int NtlmMessageType(const std::vector<unsigned char>& token);

class NtlmAcceptor {
public:
    enum class LegKind { NoAuthorization, Negotiate, Authenticate, Other };

    struct Leg {
        std::size_t connectionId = 0;
        LegKind kind = LegKind::Other;
        int status = 0; // what the acceptor answered
    };

    // userFile: DOMAIN:USER:PASSWORD lines the acceptor verifies NTLMv2 responses against.
    // serviceHost: the acceptor is the service "HTTP@serviceHost"; gss-ntlmssp announces that
    // name in its challenge and the client refuses a name other than the one it targeted.
    // Throws std::runtime_error if GSSAPI cannot acquire acceptor credentials.
    NtlmAcceptor(const std::string& userFile, const std::string& serviceHost);
    ~NtlmAcceptor();
    NtlmAcceptor(const NtlmAcceptor&) = delete;
    NtlmAcceptor& operator=(const NtlmAcceptor&) = delete;

    // A handler for RecordingServer::SetHandler that forwards to Answer.
    RecordingServer::Handler Handler();
    ScriptedResponse Answer(const RecordedRequest& request, ConnectionContext& connection);

    std::vector<Leg> Legs() const;
    // "DOMAIN\user" for every handshake that completed, in order.
    std::vector<std::string> AuthenticatedUsers() const;

private:
    struct Credentials;
    std::unique_ptr<Credentials> credentials_;
    mutable std::mutex mutex_;
    std::vector<Leg> legs_;
    std::vector<std::string> users_;
};

} // namespace testsupport
