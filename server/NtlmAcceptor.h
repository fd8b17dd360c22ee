// --auth ntlm: the service's side of the NTLM handshake, with gss-ntlmssp as the acceptor.
//
//   no "Authorization: NTLM ..."   -> 401, WWW-Authenticate: NTLM
//   NTLM NEGOTIATE message         -> 401, WWW-Authenticate: NTLM <challenge>; the context is
//                                     kept on this TCP connection (the request is not run)
//   NTLM AUTHENTICATE message      -> the request runs as DOMAIN\user if it completes the
//                                     context kept on THIS connection; otherwise 401
//
// Each authenticated request needs its own handshake: nothing stays authenticated on the
// connection afterwards.
#pragma once

#include "Authenticator.h"

#include <gssapi/gssapi.h>

#include <string>

namespace lxrepo {

class NtlmAcceptor : public Authenticator {
public:
    // usersFile: DOMAIN:USER:PASSWORD lines, the accounts whose NTLMv2 answers are accepted.
    // serviceHost: the host name clients target ("HTTP@host"); gss-ntlmssp names it in its
    // challenge. Throws std::runtime_error if GSSAPI gives no acceptor credentials.
    NtlmAcceptor(const std::string& usersFile, const std::string& serviceHost);
    ~NtlmAcceptor() override;
    NtlmAcceptor(const NtlmAcceptor&) = delete;
    NtlmAcceptor& operator=(const NtlmAcceptor&) = delete;

    Authentication Authenticate(const Request& request, ConnectionState& connection) override;

private:
    gss_cred_id_t credentials_ = GSS_C_NO_CREDENTIAL;
};

} // namespace lxrepo
