#pragma once

// The client side of an NTLM security context, the one platform seam of the handshake: Secur32
// (SSPI) on Windows, GSSAPI with the NTLMSSP mechanism elsewhere. Exactly one back end is built.

#include <memory>
#include <string>
#include <vector>

/// Outcome of one step of the security context, in the terms the handshake judges it by.
enum class SecurityStatus {
    ContinueNeeded, // SEC_I_CONTINUE_NEEDED / GSS_S_CONTINUE_NEEDED
    Complete,       // SEC_E_OK / GSS_S_COMPLETE
    InvalidToken,   // SEC_E_INVALID_TOKEN / GSS_S_DEFECTIVE_TOKEN
    OtherFailure,   // any other failure
};

/// One NTLM handshake as the current user, with the platform's default outbound credentials for
/// the "NTLM" package. Owns its credentials and context handles and releases them.
class NtlmSecurityContext {
public:
    /// Acquires the credentials; a failure there shows up as a failing first step.
    /// targetHost names the service host where the platform insists on a target (GSSAPI).
    explicit NtlmSecurityContext(const std::string& targetHost);
#if defined(_WIN32)
    /// An explicit account instead of the logged-on user, for the Windows build's tests only:
    /// Wine cannot complete a current-user handshake, and gss-ntlmssp takes its test accounts
    /// from a file instead. Hosts cannot reach this: it is neither exported nor in their header.
    NtlmSecurityContext(const std::wstring& user, const std::wstring& domain,
                        const std::wstring& password);
#endif
    ~NtlmSecurityContext();
    NtlmSecurityContext(const NtlmSecurityContext&) = delete;
    NtlmSecurityContext& operator=(const NtlmSecurityContext&) = delete;

    /// First step: produces the NEGOTIATE message in token.
    SecurityStatus Negotiate(std::vector<unsigned char>& token);
    /// Second step: answers the server's CHALLENGE; token gets the output the platform produced,
    /// which after a failed SSPI step is nothing: SSPI does not promise an output size then.
    SecurityStatus Authenticate(const std::vector<unsigned char>& challenge,
                                std::vector<unsigned char>& token);

private:
    struct Handles;
    std::unique_ptr<Handles> handles_;
};
