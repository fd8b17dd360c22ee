#include "NtlmInitiator.h"

#include "Base64.h"
#include "Gssapi.h"

#include <gssapi/gssapi_ext.h>

#include <memory>

namespace lxrepo {

namespace {

[[noreturn]] void Fail(const std::string& what, OM_uint32 major, OM_uint32 minor) {
    throw HttpError(http::status::bad_gateway,
                    "NTLM towards the service failed: " + what + ": " + StatusText(major, minor));
}

} // namespace

NtlmInitiator::NtlmInitiator(const std::string& targetHost,
                             const std::optional<NtlmCredentials>& credentials) {
    gss_OID_set_desc mechanisms = {1, NtlmMechanism()};
    OM_uint32 minor = 0;
    OM_uint32 major = 0;
    if (credentials) {
        gss_buffer_desc userText = {credentials->user.size(),
                                    const_cast<char*>(credentials->user.data())};
        gss_name_t user = GSS_C_NO_NAME;
        major = gss_import_name(&minor, &userText, GSS_C_NT_USER_NAME, &user);
        if (GSS_ERROR(major)) {
            Fail("user name " + credentials->user, major, minor);
        }
        gss_key_value_element_desc password = {"ntlmssp_password", credentials->password.c_str()};
        gss_key_value_set_desc store = {1, &password};
        major = gss_acquire_cred_from(&minor, user, GSS_C_INDEFINITE, &mechanisms, GSS_C_INITIATE,
                                      &store, &credentials_, nullptr, nullptr);
        gss_release_name(&minor, &user);
    } else {
        major = gss_acquire_cred(&minor, GSS_C_NO_NAME, GSS_C_INDEFINITE, &mechanisms,
                                 GSS_C_INITIATE, &credentials_, nullptr, nullptr);
    }
    if (GSS_ERROR(major)) {
        Fail("no credentials (is NTLM_USER_FILE set?)", major, minor);
    }
    try {
        target_ = ImportServiceName(targetHost);
    } catch (const std::exception& error) {
        gss_release_cred(&minor, &credentials_);
        throw HttpError(http::status::bad_gateway, error.what());
    }
}

NtlmInitiator::~NtlmInitiator() {
    OM_uint32 minor = 0;
    if (context_ != GSS_C_NO_CONTEXT) {
        gss_delete_sec_context(&minor, &context_, GSS_C_NO_BUFFER);
    }
    gss_release_name(&minor, &target_);
    gss_release_cred(&minor, &credentials_);
}

std::string NtlmInitiator::Step(gss_buffer_t input, bool expectMore) {
    OM_uint32 minor = 0;
    gss_buffer_desc output = GSS_C_EMPTY_BUFFER;
    const OM_uint32 major = gss_init_sec_context(
        &minor, credentials_, &context_, target_, NtlmMechanism(),
        GSS_C_CONF_FLAG | GSS_C_SEQUENCE_FLAG | GSS_C_REPLAY_FLAG, GSS_C_INDEFINITE,
        GSS_C_NO_CHANNEL_BINDINGS, input, nullptr, &output, nullptr, nullptr);
    std::string token(static_cast<const char*>(output.value), output.length);
    gss_release_buffer(&minor, &output);
    const bool more = (major & GSS_S_CONTINUE_NEEDED) != 0;
    if (GSS_ERROR(major) || more != expectMore) {
        Fail(expectMore ? "negotiate step" : "authenticate step", major, minor);
    }
    return token;
}

std::string NtlmInitiator::Negotiate() { return Step(GSS_C_NO_BUFFER, true); }

std::string NtlmInitiator::Authenticate(const std::string& challenge) {
    gss_buffer_desc input = {challenge.size(), const_cast<char*>(challenge.data())};
    return Step(&input, false);
}

Response SendWithNtlm(HttpConnection& connection, Request request, const std::string& targetHost,
                      const std::optional<NtlmCredentials>& credentials) {
    std::unique_ptr<NtlmInitiator> initiator;
    std::string missingCredentials;
    try {
        initiator = std::make_unique<NtlmInitiator>(targetHost, credentials);
    } catch (const HttpError& error) {
        // A service without authentication needs none; one that wants NTLM says so below.
        missingCredentials = error.what();
    }
    request.keep_alive(true);
    if (initiator) {
        request.set(http::field::authorization, "NTLM " + EncodeBase64(initiator->Negotiate()));
    }
    Request first = request;
    Response answer = connection.Send(first);
    const auto header = answer.find(http::field::www_authenticate);
    if (answer.result() != http::status::unauthorized || header == answer.end() ||
        header->value().substr(0, 4) != "NTLM") {
        return answer;
    }
    if (!initiator) {
        throw HttpError(http::status::bad_gateway,
                        "the service wants NTLM, but the proxy has no credentials: " +
                            missingCredentials);
    }
    if (header->value().size() <= 5) {
        return answer; // the negotiate message itself was refused
    }
    const auto challenge = DecodeBase64(std::string(header->value().substr(5)));
    if (!challenge) {
        throw HttpError(http::status::bad_gateway, "the service sent a malformed NTLM challenge");
    }
    request.set(http::field::authorization,
                "NTLM " + EncodeBase64(initiator->Authenticate(*challenge)));
    return connection.Send(request);
}

} // namespace lxrepo
