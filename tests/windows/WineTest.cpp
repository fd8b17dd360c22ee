// The Windows build under Wine, served from Linux on loopback: a whole import by a Windows host
// program, the failures it catches, and what no host reaches (NTLM through SSPI, the browser
// launchers, BCrypt). scripts/windows-test.sh builds the programs and runs this with TRI_WINE
// (the wine64 loader) and TRI_WINDOWS_BIN (the programs' folder) set.
#include <gtest/gtest.h>

#include "e2e/Deployment.h"
#include "support/Process.h"
#include "support/RecordingServer.h"

#include <cpprest/asyncrt_utils.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sys/stat.h>
#include <thread>

namespace {

using namespace e2e;
using namespace servertest;
using testsupport::RecordingServer;

// scripts/windows-test.sh sets them; without them no program runs and every case fails.
std::string Env(const char* name) { return std::getenv(name) ? std::getenv(name) : ""; }

// What the program printed, its console's CRs dropped.
std::string UnderWine(const std::string& program, std::vector<std::string> args) {
    args.insert(args.begin(), {Env("TRI_WINE"), Env("TRI_WINDOWS_BIN") + "/" + program + ".exe"});
    std::string out = testsupport::RunToEnd(args).out;
    out.erase(std::remove(out.begin(), out.end(), '\r'), out.end());
    return out;
}

TEST(Wine, AWindowsHostImportsEveryCell) {
    for (const auto& [name, way] : {std::pair{"through the authentication proxy", Way::Proxy},
                                    std::pair{"plain, to 127.0.0.1", Way::Plain}}) {
        const Table table = GenerateTable(std::string("Wine ") + name);
        TempDirectory files;
        Deployment deployment(way, files.File("repo.sqlite"), {table.tableClass});
        EXPECT_EQ(UnderWine("windows_host",
                            {"import", deployment.proxyServer->Url(), deployment.host.serviceUrl,
                             table.name, std::to_string(deployment.host.connectionStatus)}),
                  "failure: \n")
            << "case: " << name;
        EXPECT_EQ(TableRows(files.File("repo.sqlite"), table.name), ExpectedRows(table))
            << "case: " << name;
        EXPECT_EQ(deployment.ProxyConnectStatus(), 401) << "case: " << name << ": still registered";
    }
}

TEST(Wine, FailuresReachTheHostAsAPlainExceptionWithTheirMessage) {
    RecordingServer proxy;
    RecordingServer service;
    proxy.SetDefault(
        {200, {{"Content-Type", "application/json"}}, R"({"version":"1.0.0"})", false, {}});
    service.SetDefault({201, {{"Content-Type", "application/json"}}, R"({"a": nope})", false, {}});
    EXPECT_EQ(UnderWine("windows_host", {"flatten", proxy.BaseUrl(), service.BaseUrl()}),
              "CreateTable: plain * Line 1, Column 8 Syntax error: Malformed literal\n"
              "CreateAttributeDefinitions: plain UTF-16 string is missing low surrogate\n"
              "ImportValueIdsChunk: plain boom\n");
}

// The library's handshake through SSPI, to lxrepo-server's GSSAPI acceptor, which binds it to the
// connection: with an explicit account, since Wine cannot answer as the current user.
TEST(Wine, AnNtlmHandshakeWithAnExplicitAccountReachesTheGssapiAcceptor) {
    TempDirectory files;
    const Deployment service(Way::Ntlm, files.File("repo.sqlite"), {}); // at kNtlmServiceHost
    for (const auto& [name, password, status] :
         {std::tuple{"right password", kAlice.password, "200\n"},
          std::tuple{"wrong password", std::string("Wrong-Password"), "401\n"}}) {
        EXPECT_EQ(UnderWine("windows_probe",
                            {"ntlm", service.host.serviceUrl, "alice", "TESTDOM", password}),
                  status)
            << "case: " << name;
    }
}

// The negotiate leg carries SSPI's NEGOTIATE message. As the current user Wine then refuses the
// challenge as a bad token. Its package fails otherwise (SEC_E_BUFFER_TOO_SMALL) when the
// AUTHENTICATE message outgrows its helper's line, as a 600-character user name makes it, and
// leaves the buffer's full 8192 bytes reported: the final leg goes out with no token.
TEST(Wine, TheNegotiateLegCarriesSspisMessageAndAFailedStepNoToken) {
    // A CHALLENGE granting signing and sealing, with NTLMv2's target information (empty).
    const std::string challenge =
        "NTLM TlRMTVNTUAACAAAAAAAAADgAAAA1gojgASNFZ4mrze8AAAAAAAAAAAQABAA4AAAABgGxHQAAAA8AAAAA";
    for (const auto& [name, account, out, final] :
         {std::tuple{"current user", std::vector<std::string>{}, "CResourceException\n", ""},
          std::tuple{"a failed step", std::vector<std::string>{std::string(600, 'u'), "D", "p"},
                     "200\n", "NTLM"}}) { // the header's trailing blank is not part of its value
        RecordingServer service(kNtlmServiceHost);
        service.Enqueue({401, {{"WWW-Authenticate", challenge}}, "", false, {}});
        std::vector<std::string> args{"ntlm", service.BaseUrl()};
        args.insert(args.end(), account.begin(), account.end());
        EXPECT_EQ(UnderWine("windows_probe", args), out) << "case: " << name;
        const auto requests = service.Requests();
        ASSERT_EQ(requests.size(), *final ? 2u : 1u) << "case: " << name;
        const auto negotiate = utility::conversions::from_base64(
            requests[0].HeaderValue("Authorization").value_or("NTLM ").substr(5));
        EXPECT_EQ(std::string(negotiate.begin(),
                              negotiate.begin() + std::min<std::size_t>(12, negotiate.size())),
                  std::string("NTLMSSP\0\1\0\0\0", 12))
            << "case: " << name;
        if (*final) {
            EXPECT_EQ(requests[1].HeaderValue("Authorization"), final) << "case: " << name;
        }
    }
}

// What no host reaches: the default launcher is the system's browser (ShellExecuteW; Wine hands
// it to the Linux desktop's xdg-open, here a stand-in that notes the address), a replaced one is
// used instead; PKCE's S256 and random texts come from BCrypt.
TEST(Wine, TheLoginsPlatformPartsWork) {
    TempDirectory files;
    const std::string noted = files.File("opened");
    std::ofstream(files.File("xdg-open")) << "#!/bin/sh\necho \"$1\" >" << noted << "\n";
    chmod(files.File("xdg-open").c_str(), 0755);
    setenv("PATH", (files.path + ":" + Env("PATH")).c_str(), 1);
    const std::string url = "http://127.0.0.1:9/authorize?state=x";
    EXPECT_EQ(UnderWine("windows_probe", {"browser", url, "replaced"}),
              "replaced launcher: " + url + "\nopened: 1\n");
    EXPECT_EQ(UnderWine("windows_probe", {"browser", url}), "opened: 1\n");
    std::string opened;
    for (int i = 0; i < 100 && opened.empty(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        std::getline(std::ifstream(noted) >> std::ws, opened);
    }
    EXPECT_EQ(opened, url) << "the system's browser was not asked, or asked twice";
    EXPECT_EQ(UnderWine("windows_probe", {"pkce"}),
              "E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM 43\n");
}

} // namespace
