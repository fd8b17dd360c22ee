// The client's answer to the server's NTLM challenge, for any WWW-Authenticate value, from a
// security context (gss-ntlmssp with a user file) past its NEGOTIATE message. The documented
// outcomes are a token, std::out_of_range for a value shorter than "NTLM ", cpprestsdk's
// std::runtime_error for text that is not base64, and CResourceException* for a challenge the
// context rejects; anything else escapes and is reported.
#include "auth/NtlmHandshake.h"
#include "auth/SecurityContext.h"
#include "host/Framework.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <unistd.h>

namespace {
std::string userFile;
void RemoveUserFile() { std::remove(userFile.c_str()); }
} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // gss-ntlmssp reads the default credentials from this file whenever it acquires them.
    userFile = "/tmp/ntlm-fuzz-" + std::to_string(getpid()) + ".users";
    std::ofstream(userFile) << "TESTDOM:alice:Correct-Horse-1\n";
    setenv("NTLM_USER_FILE", userFile.c_str(), 1);
    std::atexit(RemoveUserFile);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    // First byte odd: the rest is a CHALLENGE message, sent as "NTLM <base64>" so that the
    // bytes reach the mechanism; even: the rest is the header value as it arrived.
    const std::vector<unsigned char> rest(data + 1, data + size);
    const utility::string_t value =
        data[0] % 2 != 0 ? U("NTLM ") + utility::conversions::to_base64(rest)
                         : utility::string_t(rest.begin(), rest.end());

    // A context is made afresh only once the previous one has seen a challenge: values refused
    // before they reach it leave it as it was, and gss-ntlmssp leaks a little on every context.
    static std::unique_ptr<NtlmSecurityContext> context;
    if (!context) {
        context = std::make_unique<NtlmSecurityContext>("127.0.0.2");
        std::vector<unsigned char> negotiate;
        if (context->Negotiate(negotiate) != SecurityStatus::ContinueNeeded) {
            std::abort(); // no credentials: the run would test nothing
        }
    }
    try {
        AnswerNtlmChallenge(*context, value);
    } catch (const std::out_of_range&) {
        return 0;
    } catch (const std::runtime_error& e) {
        if (typeid(e) != typeid(std::runtime_error)) {
            throw;
        }
        return 0;
    } catch (CResourceException* e) {
        e->Delete();
    }
    context.reset();
    return 0;
}
