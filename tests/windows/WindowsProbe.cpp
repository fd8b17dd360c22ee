// What the Windows build's tests under Wine (WineTest.cpp) reach below the public header: the
// NTLM handshake through SSPI, the browser launchers and the login's BCrypt primitives.
//   ntlm URL [USER DOMAIN PASSWORD]  a handshake for GET /Import/Connect, as the current user or
//                                    the account given; prints the final status or the failure
//   browser URL [replaced]           opens the login page; prints what the launcher returned
//   pkce                             the S256 challenge of RFC 7636's example verifier, and the
//                                    length of a random text of 32 bytes
#include "IdentityLoginSettings.h"
#include "auth/LoginSettings.h"
#include "auth/NtlmHandshake.h"
#include "auth/Pkce.h"
#include "auth/SecurityContext.h"
#include "host/Framework.h"

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace {

std::wstring Widened(const std::string& ascii) { return {ascii.begin(), ascii.end()}; }

std::string Handshake(const std::vector<std::string>& args) {
    web::http::client::http_client client(Widened(args[1]));
    web::http::http_request request(web::http::methods::GET);
    request.set_request_uri(U("/Import/Connect"));
    try {
        auto context = args.size() == 5 ? std::make_unique<NtlmSecurityContext>(
                                              Widened(args[2]), Widened(args[3]), Widened(args[4]))
                                        : std::make_unique<NtlmSecurityContext>("service");
        return std::to_string(RunNtlmHandshake(client, request, *context).get().status_code());
    } catch (CException* e) {
        e->Delete();
        return "CResourceException";
    } catch (const std::exception& e) {
        return e.what();
    }
}

int ReplacedLauncher(const wchar_t* url, void*) {
    std::printf("replaced launcher: %ls\n", url);
    return 1;
}

} // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    if ((args.size() == 2 || args.size() == 5) && args[0] == "ntlm") {
        std::printf("%s\n", Handshake(args).c_str());
    } else if ((args.size() == 2 || args.size() == 3) && args[0] == "browser") {
        if (args.size() == 3) {
            TableRepositorySetBrowserLauncher(&ReplacedLauncher, nullptr);
        }
        std::printf("opened: %d\n", OpenLoginPage(Widened(args[1])) ? 1 : 0);
    } else if (args.size() == 1 && args[0] == "pkce") {
        std::printf("%s %zu\n",
                    CodeChallengeS256("dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk").c_str(),
                    RandomUrlSafeText(32).size());
    } else {
        std::fprintf(stderr, "usage: windows_probe ntlm|browser|pkce ...\n");
        return 2;
    }
    return 0;
}
