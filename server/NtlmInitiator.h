// The client's side of one NTLM handshake (GSSAPI initiator, gss-ntlmssp): the proxy uses it to
// authenticate towards the service as its own account.
#pragma once

#include "HttpClient.h"

#include <gssapi/gssapi.h>

#include <optional>
#include <string>

namespace lxrepo {

struct NtlmCredentials {
    std::string user; // "DOMAIN\user"
    std::string password;
};

class NtlmInitiator {
public:
    // targetHost: the service's host, as in its URL. Without explicit credentials gss-ntlmssp
    // takes the first account of the file that NTLM_USER_FILE names.
    // Throws HttpError 502 when no credentials can be had.
    explicit NtlmInitiator(const std::string& targetHost,
                           const std::optional<NtlmCredentials>& credentials = std::nullopt);
    ~NtlmInitiator();
    NtlmInitiator(const NtlmInitiator&) = delete;
    NtlmInitiator& operator=(const NtlmInitiator&) = delete;

    // The raw NEGOTIATE, then the AUTHENTICATE message for the server's challenge.
    std::string Negotiate();
    std::string Authenticate(const std::string& challenge);

private:
    std::string Step(gss_buffer_t input, bool expectMore);

    gss_cred_id_t credentials_ = GSS_C_NO_CREDENTIAL;
    gss_name_t target_ = GSS_C_NO_NAME;
    gss_ctx_id_t context_ = GSS_C_NO_CONTEXT;
};

// Sends the request twice on one connection: with the NEGOTIATE message, then with the
// AUTHENTICATE message for the challenge of the 401. An answer to the first leg that is not a
// 401 with an NTLM challenge (a service without authentication, say) is the final answer.
Response SendWithNtlm(HttpConnection& connection, Request request, const std::string& targetHost,
                      const std::optional<NtlmCredentials>& credentials = std::nullopt);

} // namespace lxrepo
