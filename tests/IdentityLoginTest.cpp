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
#include <optional>

namespace {

using testsupport::QueryFields;
using tcp = boost::asio::ip::tcp;

std::string Filled(std::string text, const std::string& key, const std::string& value) {
    const std::size_t at = text.find(key);
    return at == std::string::npos ? text : text.replace(at, key.size(), value);
}

// The user's browser at the login page url. First, when set, it calls the login's listener at
// that target ("{state}" is the login's state, "{code}" a code the provider gave for it, found by
// following the provider's pages up to the listener); then, for "allow" or "deny", it logs in at
// the provider and allows or refuses the login. Returns the pages the listener answered.
std::vector<testsupport::BrowserPage> Play(const std::string& url, const std::string& first,
                                           const std::string& decision) {
    testsupport::TestBrowser browser(decision == "deny" ? "deny" : "allow");
    const auto query = QueryFields(url);
    const std::string redirect = query.at("redirect_uri");
    std::vector<testsupport::BrowserPage> pages;
    if (!first.empty()) {
        std::string target = Filled(first, "{state}", query.at("state"));
        if (target.find("{code}") != std::string::npos) {
            auto page = browser.Get(url);
            while (page.location.rfind(redirect, 0) != 0) {
                page = browser.Get(page.location);
            }
            target = Filled(target, "{code}", QueryFields(page.location).at("code"));
        }
        pages.push_back(browser.Get(redirect.substr(0, redirect.rfind('/')) + target));
    }
    if (decision == "allow" || decision == "deny") {
        pages.push_back(browser.Visit(url));
    }
    return pages;
}

TEST(IdentityLogin, EndsAsTheBrowserDecides) {
    struct Case {
        const char* name;
        std::string first; // what the browser calls the listener with first, "" for nothing
        // "allow", "deny", "" (the user looks elsewhere), "cannot start", "none" (never opened)
        std::string decision;
        int resultType;
        std::string error;          // "{identity}" stands for the identity address
        std::string pages;          // status and sentence of each page the listener answered
        std::string variation = ""; // of the provider (provider.mjs)
        std::string identity = "{provider}/identity"; // "{provider}" is its address
        testsupport::Thrown thrown = testsupport::kNothing;
        bool providerStops = false; // before the browser calls the listener
    };
    const std::string done = "200 The login is done: you can close this window.";
    const std::string failed = "200 The login failed: you can close this window.";
    const auto refused = testsupport::Expected<web::http::http_exception>(
        "Failed to connect to any resolved endpoint");
    const std::string callback = "/callback?state={state}&";
    const Case cases[] = {
        {"user logs in", "", "allow", 0, "", done},
        {"user refuses", "", "deny", 1, testsupport::kOidcDeniedText, failed},
        {"browser shows nothing", "", "", 2, "", ""},
        {"forged state before the real answer", "/callback?code=forged&state=x{state}", "allow", 0,
         "", "400 This page belongs to no login in progress. " + done},
        {"favicon before the answer", "/favicon.ico", "allow", 0, "",
         "404 There is nothing here. " + done},
        {"error without description", callback + "error=temporarily_unavailable", "", 1,
         "The identity server refused the login: temporarily_unavailable.", failed},
        {"the identity server refuses the code", callback + "code=forged", "", 1,
         "grant request is invalid", failed},
        // RFC 9207: "iss" is checked when it is there; an identity server may leave it out.
        {"answer without the issuer", callback + "code={code}", "", 0, "", done},
        {"answer from another issuer",
         callback + "code={code}&iss=http%3A%2F%2F127.0.0.1%3A1%2Fidentity", "", 1,
         "The answer to the login came from another identity server.", failed},
        {"browser cannot start", "", "cannot start", 1,
         "The web browser could not be started for the login.", ""},
        {"no identity server at the address", "", "none", 1,
         "The identity server at {identity} has no OpenID configuration (HTTP 404).", "", "",
         "{provider}/elsewhere"},
        // Failures to reach the identity server pass to the caller, once the browser has been told.
        {"nobody listens at the address", "", "none", 0, "", "", "",
         "http://127.0.0.1:" + std::to_string(testsupport::FreePort()), refused},
        // Every token request below and above also shows the provider its exact Content-Type.
        {"client_secret_post alone offered", "", "allow", 0, "", done,
         R"({"auth":"client_secret_post"})"},
        {"no client authentication listed means client_secret_basic", "", "allow", 0, "", done,
         R"({"discovery":{"token_endpoint_auth_methods_supported":null}})"},
        {"no client authentication the login has", "", "none", 1,
         "The identity server accepts neither client_secret_basic nor client_secret_post for this "
         "application; it offers private_key_jwt, none.",
         "",
         R"({"discovery":{"token_endpoint_auth_methods_supported":["private_key_jwt","none"]}})"},
        {"PKCE without S256", "", "none", 1,
         "The identity server does not take the S256 code challenge (PKCE) that this login sends; "
         "it offers plain.",
         "", R"({"discovery":{"code_challenge_methods_supported":["plain"]}})"},
        {"the identity server refuses the code with a bare error code", callback + "code=forged",
         "", 1, "The identity server refused the login: invalid_grant.", failed,
         R"({"token":{"error_description":null}})"},
        {"token answer without an ID token", "", "allow", 0, "", done,
         R"({"token":{"id_token":null}})"},
        // Three '?' and three '~' put '_' and '-' into the base64url of the claims, wherever
        // they stand.
        {"ID token for the login and another audience", "", "allow", 0, "", done,
         R"({"idToken":{"aud":["???~~~","lxdesktop"]}})"},
        {"ID token for another audience", "", "allow", 1,
         "The identity server's ID token was issued for another application (aud mismatch).",
         failed, R"({"idToken":{"aud":"lxrepo-service"}})"},
        {"ID token for other audiences", "", "allow", 1,
         "The identity server's ID token was issued for another application (aud mismatch).",
         failed, R"({"idToken":{"aud":["lxrepo-service","lxdesktop2"]}})"},
        {"ID token from another issuer", "", "allow", 1,
         "The identity server's ID token was issued by another identity server (iss mismatch).",
         failed, R"({"idToken":{"iss":"http://127.0.0.1:1/identity"}})"},
        {"ID token expired a minute ago, within the clock skew", "", "allow", 0, "", done,
         R"({"idToken":{"exp":-60}})"},
        {"ID token expired ten minutes ago", "", "allow", 1,
         "The identity server's ID token has expired (exp); check the computer's clock.", failed,
         R"({"idToken":{"exp":-600}})"},
        {"ID token of another login", "", "allow", 1,
         "The identity server's ID token was issued for another login (nonce mismatch).", failed,
         R"({"idToken":{"nonce":"x"}})"},
        {"ID token without a nonce", "", "allow", 1,
         "The identity server's ID token was issued for another login (nonce mismatch).", failed,
         R"({"idToken":{"nonce":null}})"},
        // Last: it stops the provider.
        {"identity server gone before the code is redeemed", callback + "code=any", "", 0, "",
         failed, "", "{provider}/identity", refused, true},
    };
    std::optional<testsupport::OidcProvider> provider;
    std::string variation;
    std::map<std::string, std::string> previous;
    for (const Case& c : cases) {
        if (!provider || c.variation != variation) {
            provider.emplace(variation = c.variation);
        }
        const std::string identity = Filled(c.identity, "{provider}", provider->BaseUrl());
        std::string pages;
        testsupport::LaunchedBrowser browser(
            [&](const std::string& url) {
                if (c.providerStops) {
                    provider->Stop();
                }
                for (const auto& page : Play(url, c.first, c.decision)) {
                    const std::size_t p = page.body.find("<p>") + 3;
                    pages += (pages.empty() ? "" : " ") + std::to_string(page.status) + " " +
                             page.body.substr(p, page.body.find("</p>") - p);
                }
            },
            c.decision != "cannot start");
        const int limitMs = c.resultType == 2 ? 100 : 20000;
        TableRepositorySetBrowserLauncher(&testsupport::LaunchedBrowser::Launch, &browser);
        TableRepositorySetLoginTimeout(limitMs);
        IdentityLoginResult result{L"", L"", 0};
        const auto started = std::chrono::steady_clock::now();
        EXPECT_EQ(testsupport::ThrownBy([&] {
                      result = LoginAtIdentityServer(FromUtf8(identity),
                                                     FromUtf8(testsupport::kOidcClientSecret));
                  }),
                  c.thrown)
            << "case: " << c.name;
        const auto took = std::chrono::steady_clock::now() - started;
        EXPECT_EQ(browser.Finish(), "") << "case: " << c.name;
        TableRepositorySetBrowserLauncher(nullptr, nullptr);
        TableRepositorySetLoginTimeout(0);

        EXPECT_EQ(result.resultType, c.resultType) << "case: " << c.name;
        EXPECT_EQ(ToUtf8(result.error), Filled(c.error, "{identity}", identity))
            << "case: " << c.name;
        EXPECT_EQ(result.accessToken.empty() ? 0
                                             : provider->ConnectStatus(ToUtf8(result.accessToken)),
                  c.resultType == 0 && c.thrown == testsupport::kNothing ? 200 : 0)
            << "case: " << c.name;
        EXPECT_TRUE(c.resultType != 2 || took >= std::chrono::milliseconds(limitMs))
            << "case: " << c.name;
        EXPECT_EQ(pages, c.pages) << "case: " << c.name;
        EXPECT_EQ(browser.url.empty(), c.decision == "none") << "case: " << c.name;
        if (browser.url.empty()) {
            continue;
        }
        // The provider holds the authorization request to its rules (client, redirect address,
        // S256 challenge of the verifier); a state, nonce and challenge of its own every time
        // remain. The listener's port is one the system picks (a fixed privileged one would work
        // for root alone), and it can be bound again once the login has ended, though the browser's
        // connections to it wait out TIME_WAIT there.
        auto query = QueryFields(browser.url);
        for (const char* field : {"state", "nonce", "code_challenge"}) {
            EXPECT_GE(query[field].size(), 22u) << "case: " << c.name << ": " << field;
            EXPECT_NE(query[field], previous[field]) << "case: " << c.name << ": " << field;
        }
        boost::asio::io_context io;
        tcp::acceptor rebind(io, tcp::v4());
        rebind.set_option(tcp::acceptor::reuse_address(true));
        boost::system::error_code error;
        const auto port = std::stoi(query.at("redirect_uri").substr(17));
        EXPECT_GE(port, 1024) << "case: " << c.name;
        rebind.bind({boost::asio::ip::address_v4::loopback(), static_cast<unsigned short>(port)},
                    error);
        EXPECT_FALSE(error) << "case: " << c.name << ": " << error.message();
        previous = query;
    }
}

TEST(Pkce, Base64UrlWithoutPaddingAndTheS256ChallengeOfTheRfcExample) {
    const std::pair<std::vector<unsigned char>, std::string> cases[] = {
        {{'f'}, "Zg"},
        {{'f', 'o'}, "Zm8"},
        {{0xfb, 0xff, 0xbf}, "-_-_"},
    };
    for (const auto& [bytes, text] : cases) {
        EXPECT_EQ(Base64UrlWithoutPadding(bytes.data(), bytes.size()), text) << "case: " << text;
    }
    // RFC 7636 appendix B.
    EXPECT_EQ(CodeChallengeS256("dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk"),
              "E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM");
}

} // namespace
