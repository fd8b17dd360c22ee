#include "auth/SecurityContext.h"
#include "client/SecretWipe.h"

#ifndef SECURITY_WIN32
#define SECURITY_WIN32
#endif
// windows.h must come first: security.h relies on its types.
#include <windows.h>

#include <security.h>

#include <utility>

namespace {

// ISC_REQ_CONNECTION | ISC_REQ_CONFIDENTIALITY | ISC_REQ_SEQUENCE_DETECT | ISC_REQ_REPLAY_DETECT
constexpr unsigned long contextRequirements = 0x81C;
constexpr unsigned long tokenBufferSize = 8192;

SecurityStatus ToSecurityStatus(SECURITY_STATUS status) {
    switch (status) {
    case SEC_I_CONTINUE_NEEDED:
        return SecurityStatus::ContinueNeeded;
    case SEC_E_OK:
        return SecurityStatus::Complete;
    case SEC_E_INVALID_TOKEN:
        return SecurityStatus::InvalidToken;
    default:
        return SecurityStatus::OtherFailure;
    }
}

} // namespace

struct NtlmSecurityContext::Handles {
    CredHandle credentials = {};
    CtxtHandle context = {};
    bool haveCredentials = false;
    bool haveContext = false;

    // input null: the first step, which creates the context.
    SecurityStatus Step(SecBufferDesc* input, std::vector<unsigned char>& token) {
        std::vector<unsigned char> output(tokenBufferSize);
        SecBuffer outputBuffer = {tokenBufferSize, SECBUFFER_TOKEN, output.data()};
        SecBufferDesc outputDescriptor = {SECBUFFER_VERSION, 1, &outputBuffer};
        unsigned long attributes = 0;
        const SECURITY_STATUS status = InitializeSecurityContextW(
            &credentials, haveContext ? &context : nullptr, nullptr, contextRequirements, 0,
            SECURITY_NATIVE_DREP, input, 0, &context, &outputDescriptor, &attributes, nullptr);
        if (!haveContext && status >= 0) {
            haveContext = true;
        }
        // After a failure the buffer's size is whatever the package left there (Wine leaves it
        // at the full 8192 bytes), not a token.
        const bool produced = status == SEC_E_OK || status == SEC_I_CONTINUE_NEEDED;
        output.resize(!produced                                 ? 0
                      : outputBuffer.cbBuffer < tokenBufferSize ? outputBuffer.cbBuffer
                                                                : tokenBufferSize);
        token = std::move(output);
        return ToSecurityStatus(status);
    }
};

NtlmSecurityContext::NtlmSecurityContext(const std::string& /*targetHost: SSPI needs none*/)
    : handles_(std::make_unique<Handles>()) {
    // The logged-on user's credentials. The result is not checked: without credentials the first
    // step fails, and the handshake reports that.
    wchar_t package[] = L"NTLM";
    const SECURITY_STATUS status =
        AcquireCredentialsHandleW(nullptr, package, SECPKG_CRED_OUTBOUND, nullptr, nullptr, nullptr,
                                  nullptr, &handles_->credentials, nullptr);
    handles_->haveCredentials = status == SEC_E_OK;
}

NtlmSecurityContext::NtlmSecurityContext(const std::wstring& user, const std::wstring& domain,
                                         const std::wstring& password)
    : handles_(std::make_unique<Handles>()) {
    // SSPI takes non-const buffers; it copies them, so the copies die here (the password wiped).
    std::wstring userCopy(user), domainCopy(domain), passwordCopy(password);
    SEC_WINNT_AUTH_IDENTITY_W identity = {};
    identity.User = reinterpret_cast<unsigned short*>(userCopy.data());
    identity.UserLength = static_cast<unsigned long>(userCopy.size());
    identity.Domain = reinterpret_cast<unsigned short*>(domainCopy.data());
    identity.DomainLength = static_cast<unsigned long>(domainCopy.size());
    identity.Password = reinterpret_cast<unsigned short*>(passwordCopy.data());
    identity.PasswordLength = static_cast<unsigned long>(passwordCopy.size());
    identity.Flags = SEC_WINNT_AUTH_IDENTITY_UNICODE;
    wchar_t package[] = L"NTLM";
    const SECURITY_STATUS status =
        AcquireCredentialsHandleW(nullptr, package, SECPKG_CRED_OUTBOUND, nullptr, &identity,
                                  nullptr, nullptr, &handles_->credentials, nullptr);
    handles_->haveCredentials = status == SEC_E_OK;
    WipeSecret(passwordCopy);
}

NtlmSecurityContext::~NtlmSecurityContext() {
    if (handles_->haveContext) {
        DeleteSecurityContext(&handles_->context);
    }
    if (handles_->haveCredentials) {
        FreeCredentialsHandle(&handles_->credentials);
    }
}

SecurityStatus NtlmSecurityContext::Negotiate(std::vector<unsigned char>& token) {
    return handles_->Step(nullptr, token);
}

SecurityStatus NtlmSecurityContext::Authenticate(const std::vector<unsigned char>& challenge,
                                                 std::vector<unsigned char>& token) {
    std::vector<unsigned char> challengeCopy(challenge); // SSPI takes a non-const buffer
    SecBuffer inputBuffer = {static_cast<unsigned long>(challengeCopy.size()), SECBUFFER_TOKEN,
                             challengeCopy.data()};
    SecBufferDesc inputDescriptor = {SECBUFFER_VERSION, 1, &inputBuffer};
    return handles_->Step(&inputDescriptor, token);
}
