#include "auth/SecurityContext.h"

#include <gssapi/gssapi.h>

#include <algorithm>
#include <cstdint>

namespace {

// 1.3.6.1.4.1.311.2.2.10, the raw NTLMSSP mechanism: its tokens are plain NTLMSSP messages, as
// SSPI's "NTLM" package gives them (no SPNEGO wrapping).
gss_OID_desc ntlmMechanism = {10, const_cast<char*>("\x2b\x06\x01\x04\x01\x82\x37\x02\x02\x0a")};

// ISC_REQ_CONFIDENTIALITY | ISC_REQ_SEQUENCE_DETECT | ISC_REQ_REPLAY_DETECT; ISC_REQ_CONNECTION has
// no GSSAPI counterpart (every GSSAPI context is connection-oriented).
constexpr OM_uint32 requestedFlags = GSS_C_CONF_FLAG | GSS_C_SEQUENCE_FLAG | GSS_C_REPLAY_FLAG;

SecurityStatus ToSecurityStatus(OM_uint32 major) {
    if (GSS_ERROR(major)) {
        return GSS_ROUTINE_ERROR(major) == GSS_S_DEFECTIVE_TOKEN ? SecurityStatus::InvalidToken
                                                                 : SecurityStatus::OtherFailure;
    }
    return (major & GSS_S_CONTINUE_NEEDED) != 0 ? SecurityStatus::ContinueNeeded
                                                : SecurityStatus::Complete;
}

// gss-ntlmssp 1.2 dereferences a null pointer when a Unicode CHALLENGE names a target type
// (domain or server) but carries an empty TargetName: a server could crash the host with it.
// Such a message is refused here as the defective token it is, before the mechanism sees it.
bool CrashesMechanism(const std::vector<unsigned char>& challenge) {
    static const unsigned char signature[] = {'N', 'T', 'L', 'M', 'S', 'S', 'P', 0};
    if (challenge.size() < 24 || !std::equal(signature, signature + 8, challenge.begin())) {
        return false;
    }
    const auto at = [&](std::size_t i) { return static_cast<std::uint32_t>(challenge[i]); };
    const std::uint32_t type = at(8) | at(9) << 8 | at(10) << 16 | at(11) << 24;
    const std::uint32_t targetNameLength = at(12) | at(13) << 8;
    const std::uint32_t flags = at(20) | at(21) << 8 | at(22) << 16 | at(23) << 24;
    constexpr std::uint32_t unicode = 0x00000001;
    constexpr std::uint32_t targetTypes = 0x00010000 | 0x00020000; // domain, server
    return type == 2 && (flags & unicode) != 0 && (flags & targetTypes) != 0 &&
           targetNameLength == 0;
}

} // namespace

struct NtlmSecurityContext::Handles {
    gss_cred_id_t credentials = GSS_C_NO_CREDENTIAL;
    gss_name_t target = GSS_C_NO_NAME;
    gss_ctx_id_t context = GSS_C_NO_CONTEXT;

    SecurityStatus Step(gss_buffer_t input, std::vector<unsigned char>& token) {
        OM_uint32 minor = 0;
        gss_buffer_desc output = GSS_C_EMPTY_BUFFER;
        const OM_uint32 major = gss_init_sec_context(
            &minor, credentials, &context, target, &ntlmMechanism, requestedFlags, GSS_C_INDEFINITE,
            GSS_C_NO_CHANNEL_BINDINGS, input, nullptr, &output, nullptr, nullptr);
        const auto* bytes = static_cast<const unsigned char*>(output.value);
        token.assign(bytes, bytes + output.length);
        gss_release_buffer(&minor, &output);
        return ToSecurityStatus(major);
    }
};

NtlmSecurityContext::NtlmSecurityContext(const std::string& targetHost)
    : handles_(std::make_unique<Handles>()) {
    OM_uint32 minor = 0;
    gss_OID_set_desc mechanisms = {1, &ntlmMechanism};
    // No name: the user's default NTLM credentials. Like the SSPI call, the result is not
    // checked; without credentials the first step fails and the handshake reports that.
    gss_acquire_cred(&minor, GSS_C_NO_NAME, GSS_C_INDEFINITE, &mechanisms, GSS_C_INITIATE,
                     &handles_->credentials, nullptr, nullptr);

    // MIT's mechanism glue refuses to initiate without a target name; NTLM itself ignores it.
    std::string service = "HTTP@" + targetHost;
    gss_buffer_desc serviceName = {service.size(), service.data()};
    gss_import_name(&minor, &serviceName, GSS_C_NT_HOSTBASED_SERVICE, &handles_->target);
}

NtlmSecurityContext::~NtlmSecurityContext() {
    OM_uint32 minor = 0;
    if (handles_->context != GSS_C_NO_CONTEXT) {
        gss_delete_sec_context(&minor, &handles_->context, GSS_C_NO_BUFFER);
    }
    if (handles_->target != GSS_C_NO_NAME) {
        gss_release_name(&minor, &handles_->target);
    }
    if (handles_->credentials != GSS_C_NO_CREDENTIAL) {
        gss_release_cred(&minor, &handles_->credentials);
    }
}

SecurityStatus NtlmSecurityContext::Negotiate(std::vector<unsigned char>& token) {
    return handles_->Step(GSS_C_NO_BUFFER, token);
}

SecurityStatus NtlmSecurityContext::Authenticate(const std::vector<unsigned char>& challenge,
                                                 std::vector<unsigned char>& token) {
    if (CrashesMechanism(challenge)) {
        token.clear();
        return SecurityStatus::InvalidToken;
    }
    gss_buffer_desc input = {challenge.size(), const_cast<unsigned char*>(challenge.data())};
    return handles_->Step(&input, token);
}
