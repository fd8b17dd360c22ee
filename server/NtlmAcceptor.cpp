#include "NtlmAcceptor.h"

#include "Base64.h"
#include "Gssapi.h"

#include <gssapi/gssapi_ext.h>

#include <memory>
#include <stdexcept>

namespace lxrepo {

namespace {

// The acceptor context of the handshake in progress on one connection.
struct PendingHandshake {
    gss_ctx_id_t context = GSS_C_NO_CONTEXT;
    PendingHandshake() = default;
    PendingHandshake(const PendingHandshake&) = delete;
    PendingHandshake& operator=(const PendingHandshake&) = delete;
    ~PendingHandshake() {
        if (context != GSS_C_NO_CONTEXT) {
            OM_uint32 minor = 0;
            gss_delete_sec_context(&minor, &context, GSS_C_NO_BUFFER);
        }
    }
};

// NTLMSSP message type (1 negotiate, 3 authenticate) of a raw token; 0 for anything else.
int MessageType(const std::string& token) {
    if (token.size() < 12 || token.compare(0, 8, std::string("NTLMSSP\0", 8)) != 0) {
        return 0;
    }
    return static_cast<unsigned char>(token[8]);
}

Authentication Refuse(const Request& request, const std::string& wwwAuthenticate,
                      const std::string& message) {
    return {std::nullopt, Unauthorized(request, wwwAuthenticate, message)};
}

} // namespace

NtlmAcceptor::NtlmAcceptor(const std::string& usersFile, const std::string& serviceHost) {
    gss_name_t name = ImportServiceName(serviceHost);
    // gss-ntlmssp honours a key file only for a named server credential; with it the acceptor
    // does not depend on NTLM_USER_FILE, which the proxy's initiator reads.
    gss_key_value_element_desc keyFile = {"ntlmssp_keyfile", usersFile.c_str()};
    gss_key_value_set_desc store = {1, &keyFile};
    gss_OID_set_desc mechanisms = {1, NtlmMechanism()};
    OM_uint32 minor = 0;
    const OM_uint32 major =
        gss_acquire_cred_from(&minor, name, GSS_C_INDEFINITE, &mechanisms, GSS_C_ACCEPT, &store,
                              &credentials_, nullptr, nullptr);
    gss_release_name(&minor, &name);
    if (GSS_ERROR(major)) {
        throw std::runtime_error("cannot acquire NTLM acceptor credentials: " +
                                 StatusText(major, minor));
    }
}

NtlmAcceptor::~NtlmAcceptor() {
    OM_uint32 minor = 0;
    gss_release_cred(&minor, &credentials_);
}

Authentication NtlmAcceptor::Authenticate(const Request& request, ConnectionState& connection) {
    const std::string header = HeaderValue(request, "Authorization");
    if (header.rfind("NTLM ", 0) != 0) {
        return Refuse(request, "NTLM", "NTLM authentication is required");
    }
    auto token = DecodeBase64(std::string_view(header).substr(5));
    const int type = token ? MessageType(*token) : 0;
    // Whatever comes now, an earlier unfinished handshake on this connection is over.
    auto* slot = std::any_cast<std::shared_ptr<PendingHandshake>>(&connection.authentication);
    std::shared_ptr<PendingHandshake> pending = slot != nullptr ? *slot : nullptr;
    connection.authentication.reset();

    if (type == 1) {
        pending = std::make_shared<PendingHandshake>();
        OM_uint32 minor = 0;
        gss_buffer_desc input = {token->size(), token->data()};
        gss_buffer_desc output = GSS_C_EMPTY_BUFFER;
        const OM_uint32 major = gss_accept_sec_context(&minor, &pending->context, credentials_,
                                                       &input, GSS_C_NO_CHANNEL_BINDINGS, nullptr,
                                                       nullptr, &output, nullptr, nullptr, nullptr);
        const std::string challenge(static_cast<const char*>(output.value), output.length);
        gss_release_buffer(&minor, &output);
        if (major != GSS_S_CONTINUE_NEEDED) {
            return Refuse(request, "NTLM",
                          "NTLM negotiate message refused: " + StatusText(major, minor));
        }
        connection.authentication = pending;
        return Refuse(request, "NTLM " + EncodeBase64(challenge), "NTLM challenge");
    }
    if (type != 3) {
        return Refuse(request, "NTLM", "not an NTLM negotiate or authenticate message");
    }
    if (!pending) {
        return Refuse(request, "NTLM",
                      "NTLM authenticate message without a negotiate on this connection");
    }
    OM_uint32 minor = 0;
    gss_buffer_desc input = {token->size(), token->data()};
    gss_buffer_desc output = GSS_C_EMPTY_BUFFER;
    gss_name_t source = GSS_C_NO_NAME;
    const OM_uint32 major = gss_accept_sec_context(&minor, &pending->context, credentials_, &input,
                                                   GSS_C_NO_CHANNEL_BINDINGS, &source, nullptr,
                                                   &output, nullptr, nullptr, nullptr);
    gss_release_buffer(&minor, &output);
    std::string user;
    if (source != GSS_C_NO_NAME) {
        user = DisplayName(source);
        gss_release_name(&minor, &source);
    }
    if (major != GSS_S_COMPLETE) {
        return Refuse(request, "NTLM", "NTLM authentication failed: " + StatusText(major, minor));
    }
    return {user, std::nullopt};
}

} // namespace lxrepo
