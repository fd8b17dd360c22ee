// The identity-server login against a real OpenID provider (tests/oidc/provider.mjs), with the
// test browser standing in for the user's.
// gtest before cpprestsdk, whose U() macro clashes with gtest's template parameters.
#include <gtest/gtest.h>

#include "IdentityLoginSettings.h"
#include "auth/IdentityLogin.h"
#include "auth/Pkce.h"
#include "client/TextConversion.h"
#include "support/OidcProvider.h"
#include "support/Thrown.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <cpprest/http_client.h>

#include <chrono>

namespace {

using testsupport::BrowserPage;
using testsupport::QueryFields;
using testsupport::TestBrowser;
using tcp = boost::asio::ip::tcp;

// What the user's browser does with the login page it was asked to open.
enum class Visit {
    LogIn,                   // logs in as alice at the provider
    Refuse,                  // refuses the login at the provider
    Nothing,                 // shows nothing: the user closed it or looks elsewhere
    CannotStart,             // the launcher reports that no browser could be started
    ForgedState,             // something else on the machine calls the redirect with a wrong state
    ForgedStateThenLogIn,    // that, and then the user logs in
    FaviconThenLogIn,        // the browser asks the listener for an icon first
    ErrorWithoutDescription, // the provider redirects with a bare error code
    ForgedCode,              // the redirect carries a code the provider never issued
    WithoutIssuer,           // the provider's answer reaches the listener without "iss"
    OtherIssuer,             // ... naming another identity server
    ProviderGone,            // the identity server stops before the code is redeemed
};

// Plays visit at the authorization page url; returns the pages the login's listener answered.
std::vector<BrowserPage> Play(Visit visit, const std::string& url,
                              testsupport::OidcProvider& provider) {
    TestBrowser browser(visit == Visit::Refuse ? "deny" : "allow");
    const auto query = QueryFields(url);
    const std::string redirect = query.at("redirect_uri");
    const std::string state = "&state=" + query.at("state");
    std::vector<BrowserPage> pages;
    switch (visit) {
    case Visit::Nothing:
    case Visit::CannotStart:
        return pages;
    case Visit::ForgedState:
        return {browser.Get(redirect + "?code=forged&state=x" + query.at("state"))};
    case Visit::ForgedStateThenLogIn:
        pages.push_back(browser.Get(redirect + "?code=forged&state=x" + query.at("state")));
        break;
    case Visit::FaviconThenLogIn:
        pages.push_back(browser.Get(redirect.substr(0, redirect.rfind('/')) + "/favicon.ico"));
        break;
    case Visit::ErrorWithoutDescription:
        return {browser.Get(redirect + "?error=temporarily_unavailable" + state)};
    case Visit::ForgedCode:
        return {browser.Get(redirect + "?code=forged" + state)};
    case Visit::ProviderGone:
        provider.Stop();
        return {browser.Get(redirect + "?code=any" + state)};
    case Visit::WithoutIssuer:
    case Visit::OtherIssuer: {
        // The provider's own answer, stopped on its way back to the listener.
        BrowserPage page = browser.Get(url);
        for (int hop = 0; hop < 20 && page.location.rfind(redirect, 0) != 0; ++hop) {
            page = browser.Get(page.location);
        }
        const auto answer = QueryFields(page.location);
        return {browser.Get(
            redirect + "?code=" + answer.at("code") + "&state=" + answer.at("state") +
            (visit == Visit::OtherIssuer ? "&iss=http%3A%2F%2F127.0.0.1%3A1%2Fidentity" : ""))};
    }
    default:
        break;
    }
    pages.push_back(browser.Visit(url));
    return pages;
}

// Nothing answers on the port any more, and it can be bound again.
void ExpectPortFree(unsigned short port) {
    boost::asio::io_context io;
    const tcp::endpoint endpoint(boost::asio::ip::address_v4::loopback(), port);
    boost::system::error_code error;
    tcp::socket(io).connect(endpoint, error);
    EXPECT_EQ(error, boost::asio::error::connection_refused) << "port " << port;
    tcp::acceptor rebind(io);
    rebind.open(tcp::v4());
    rebind.set_option(tcp::acceptor::reuse_address(true));
    rebind.bind(endpoint, error);
    EXPECT_FALSE(error) << "port " << port << ": " << error.message();
}

TEST(IdentityLogin, EndsAsTheBrowserDecides) {
    struct Case {
        const char* name;
        Visit visit;
        int resultType;
        std::wstring error;        // "{identity}" stands for the identity address
        std::string pages;         // statuses of the listener's pages, then what the last one says
        std::string identity = ""; // "" for the provider's
        std::string secret = "";   // "" for the client's own
        testsupport::Thrown thrown = testsupport::kNothing;
    };
    const std::string done = " The login is done: you can close this window.";
    const std::string failed = " The login failed: you can close this window.";
    const auto refused = testsupport::Expected<web::http::http_exception>(
        "Failed to connect to any resolved endpoint");
    const Case cases[] = {
        {"user logs in", Visit::LogIn, 0, L"", "200" + done},
        {"user refuses", Visit::Refuse, 1, FromUtf8(testsupport::kOidcDeniedText), "200" + failed},
        {"browser shows nothing", Visit::Nothing, 2, L"", ""},
        {"forged state is not the answer", Visit::ForgedState, 2, L"",
         "400 This page belongs to no login in progress."},
        {"forged state before the real answer", Visit::ForgedStateThenLogIn, 0, L"",
         "400 This page belongs to no login in progress. 200" + done},
        {"favicon before the answer", Visit::FaviconThenLogIn, 0, L"", "404 200" + done},
        {"wrong client secret", Visit::LogIn, 1, L"client authentication failed", "200" + failed,
         "", "0123456789abcdef0123456789abcdef"},
        {"error without description", Visit::ErrorWithoutDescription, 1, L"temporarily_unavailable",
         "200" + failed},
        {"the identity server refuses the code", Visit::ForgedCode, 1, L"grant request is invalid",
         "200" + failed},
        // RFC 9207: "iss" is checked when it is there; an identity server may leave it out.
        {"answer without the issuer", Visit::WithoutIssuer, 0, L"", "200" + done},
        {"answer from another issuer", Visit::OtherIssuer, 1,
         L"The answer to the login came from another identity server.", "200" + failed},
        {"browser cannot start", Visit::CannotStart, 1,
         L"The web browser could not be started for the login.", ""},
        {"no identity server at the address", Visit::LogIn, 1,
         L"The identity server at {identity} has no OpenID configuration (HTTP 404).", "",
         "{provider}/elsewhere"},
        // Failures to reach the identity server pass to the caller, once the browser has been told.
        {"nobody listens at the address", Visit::LogIn, 0, L"", "",
         "http://127.0.0.1:" + std::to_string(testsupport::FreePort()), "", refused},
        // Last: it stops the provider.
        {"identity server gone before the code is redeemed", Visit::ProviderGone, 0, L"",
         "200" + failed, "", "", refused},
    };
    testsupport::OidcProvider provider;
    std::map<std::string, std::string> previous;
    for (const Case& c : cases) {
        std::string identity = c.identity.empty() ? provider.IdentityUrl() : c.identity;
        if (identity.rfind("{provider}", 0) == 0) {
            identity.replace(0, 10, provider.BaseUrl());
        }
        std::string pages;
        testsupport::LaunchedBrowser browser(
            [&](const std::string& url) {
                for (const BrowserPage& page : Play(c.visit, url, provider)) {
                    pages += (pages.empty() ? "" : " ") + std::to_string(page.status);
                    std::size_t text = page.body.find("The login");
                    text = text == std::string::npos ? page.body.find("This page") : text;
                    pages += text == std::string::npos
                                 ? ""
                                 : " " + page.body.substr(text, page.body.find('<', text) - text);
                }
            },
            c.visit != Visit::CannotStart);
        const int limitMs = c.resultType == 2 ? 300 : 20000;
        TableRepositorySetBrowserLauncher(&testsupport::LaunchedBrowser::Launch, &browser);
        TableRepositorySetLoginTimeout(limitMs);
        IdentityLoginResult result{L"", L"", 0};
        const auto started = std::chrono::steady_clock::now();
        EXPECT_EQ(testsupport::ThrownBy([&] {
                      result = LoginAtIdentityServer(
                          FromUtf8(identity),
                          FromUtf8(c.secret.empty() ? testsupport::kOidcClientSecret : c.secret));
                  }),
                  c.thrown)
            << "case: " << c.name;
        const auto took = std::chrono::steady_clock::now() - started;
        EXPECT_EQ(browser.Finish(), "") << "case: " << c.name;
        TableRepositorySetBrowserLauncher(nullptr, nullptr);
        TableRepositorySetLoginTimeout(0);

        std::wstring error = c.error;
        if (error.find(L"{identity}") != std::wstring::npos) {
            error.replace(error.find(L"{identity}"), 10, FromUtf8(identity));
        }
        EXPECT_EQ(result.resultType, c.resultType) << "case: " << c.name;
        EXPECT_EQ(result.error, error) << "case: " << c.name;
        EXPECT_EQ(result.accessToken.empty() ? 0
                                             : provider.ConnectStatus(ToUtf8(result.accessToken)),
                  c.resultType == 0 && c.thrown == testsupport::kNothing ? 200 : 0)
            << "case: " << c.name;
        EXPECT_TRUE(c.resultType != 2 || took >= std::chrono::milliseconds(limitMs))
            << "case: " << c.name;
        EXPECT_EQ(pages, c.pages) << "case: " << c.name;
        // Without an identity server's document no browser opens.
        EXPECT_EQ(browser.url.empty(), !c.identity.empty()) << "case: " << c.name;
        if (browser.url.empty()) {
            continue;
        }
        // The provider holds the authorization request to its rules (client, redirect address,
        // S256 challenge of the verifier); a state and challenge of its own every time remain.
        const auto query = QueryFields(browser.url);
        const std::string challenge = query.at("code_challenge");
        EXPECT_GE(query.at("state").size(), 22u) << "case: " << c.name;
        EXPECT_NE(query.at("state"), previous["state"]) << "case: " << c.name;
        EXPECT_NE(challenge, previous["code_challenge"]) << "case: " << c.name;
        previous = query;
        ExpectPortFree(static_cast<unsigned short>(std::stoi(query.at("redirect_uri").substr(17))));
    }
}

TEST(Pkce, Base64UrlWithoutPaddingAndTheS256ChallengeOfTheRfcExample) {
    struct Case {
        std::vector<unsigned char> bytes;
        std::string text;
    };
    const Case cases[] = {
        {{}, ""},
        {{'f'}, "Zg"},
        {{'f', 'o'}, "Zm8"},
        {{'f', 'o', 'o'}, "Zm9v"},
        {{0xfb, 0xff, 0xbf}, "-_-_"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Base64UrlWithoutPadding(c.bytes.data(), c.bytes.size()), c.text)
            << "case: " << c.text;
    }
    // RFC 7636 appendix B.
    EXPECT_EQ(CodeChallengeS256("dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk"),
              "E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM");
}

} // namespace
