// The identity-server login against a real OpenID provider (tests/oidc/provider.mjs), with a
// scripted browser standing in for the user's.
// gtest before cpprestsdk, whose U() macro clashes with gtest's template parameters.
#include <gtest/gtest.h>

#include "IdentityLoginSettings.h"
#include "auth/IdentityLogin.h"
#include "auth/Pkce.h"
#include "support/OidcProvider.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <cpprest/http_client.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;
using testsupport::BrowserPage;
using testsupport::OidcProvider;
using testsupport::QueryFields;
using testsupport::TestBrowser;

// One provider for the whole run: node takes a second to start.
OidcProvider& SharedProvider() {
    static OidcProvider provider;
    return provider;
}

std::string Narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }
std::wstring Widen(const std::string& text) { return std::wstring(text.begin(), text.end()); }

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
    ProviderGone,            // the identity server stops before the code is redeemed
};

// The launcher the tests install: plays the browser on its own thread, as a real browser is a
// process of its own, and records what the login's listener answered it.
class ScriptedBrowser {
public:
    ScriptedBrowser(Visit visit, OidcProvider* provider) : visit_(visit), provider_(provider) {}
    ~ScriptedBrowser() { Finish(); }

    static int Launch(const wchar_t* url, void* context) {
        return static_cast<ScriptedBrowser*>(context)->Open(Narrow(url));
    }

    void Finish() {
        if (worker_.joinable()) worker_.join();
    }

    std::string authorizationUrl;
    std::vector<BrowserPage> listenerPages;
    std::string failure;

private:
    int Open(const std::string& url) {
        authorizationUrl = url;
        if (visit_ == Visit::CannotStart) return 0;
        worker_ = std::thread([this] {
            try {
                Play();
            } catch (const std::exception& e) {
                failure = e.what();
            }
        });
        return 1;
    }

    void Play() {
        TestBrowser browser(visit_ == Visit::Refuse ? "deny" : "allow");
        const auto query = QueryFields(authorizationUrl);
        const std::string redirect = query.at("redirect_uri");
        const std::string state = query.at("state");
        switch (visit_) {
        case Visit::ForgedState:
        case Visit::ForgedStateThenLogIn:
            listenerPages.push_back(browser.Get(redirect + "?code=forged&state=x" + state));
            break;
        case Visit::FaviconThenLogIn:
            listenerPages.push_back(
                browser.Get(redirect.substr(0, redirect.rfind('/')) + "/favicon.ico"));
            break;
        case Visit::ErrorWithoutDescription:
            listenerPages.push_back(
                browser.Get(redirect + "?error=temporarily_unavailable&state=" + state));
            return;
        case Visit::ProviderGone:
            provider_->Stop();
            listenerPages.push_back(browser.Get(redirect + "?code=any&state=" + state));
            return;
        default:
            break;
        }
        if (visit_ != Visit::Nothing && visit_ != Visit::ForgedState) {
            listenerPages.push_back(browser.Visit(authorizationUrl));
        }
    }

    Visit visit_;
    OidcProvider* provider_;
    std::thread worker_;
};

unsigned short RedirectPort(const std::string& authorizationUrl) {
    const std::string redirect = QueryFields(authorizationUrl).at("redirect_uri");
    const std::string prefix = "http://127.0.0.1:";
    EXPECT_EQ(redirect.compare(0, prefix.size(), prefix), 0) << redirect;
    return static_cast<unsigned short>(std::stoi(redirect.substr(prefix.size())));
}

// Nothing answers on the port any more, and it can be bound again.
void ExpectPortFree(unsigned short port) {
    asio::io_context io;
    const tcp::endpoint endpoint(asio::ip::address_v4::loopback(), port);
    boost::system::error_code error;
    tcp::socket probe(io);
    probe.connect(endpoint, error);
    EXPECT_EQ(error, asio::error::connection_refused) << "port " << port;
    tcp::acceptor rebind(io);
    rebind.open(tcp::v4());
    rebind.set_option(tcp::acceptor::reuse_address(true));
    rebind.bind(endpoint, error);
    EXPECT_FALSE(error) << "port " << port << ": " << error.message();
}

// Installs the scripted browser and a time limit for one test; restores the defaults after.
class LoginSettingsScope {
public:
    LoginSettingsScope(ScriptedBrowser& browser, int limitMs) {
        TableRepositorySetBrowserLauncher(&ScriptedBrowser::Launch, &browser);
        TableRepositorySetLoginTimeout(limitMs);
    }
    ~LoginSettingsScope() {
        TableRepositorySetBrowserLauncher(nullptr, nullptr);
        TableRepositorySetLoginTimeout(0);
    }
};

constexpr int kPatient = 20000;

struct LoginCase {
    const char* name;
    Visit visit;
    int limitMs;
    std::string secret;
    std::string identityPath; // below the provider's base address
    int resultType;
    std::wstring error; // "{identity}" stands for the identity address
    std::vector<int> listenerStatuses;
    std::string lastPageSays;
};

void PrintTo(const LoginCase& c, std::ostream* os) { *os << c.name; }

std::wstring Expand(std::wstring text, const std::string& identityUrl) {
    const std::wstring marker = L"{identity}";
    const auto at = text.find(marker);
    if (at != std::wstring::npos) text.replace(at, marker.size(), Widen(identityUrl));
    return text;
}

class IdentityLoginCase : public testing::TestWithParam<LoginCase> {};

TEST_P(IdentityLoginCase, EndsAsTheBrowserDecides) {
    const LoginCase& c = GetParam();
    SCOPED_TRACE(std::string("case: ") + c.name);
    OidcProvider& provider = SharedProvider();
    const std::string identityUrl = provider.BaseUrl() + c.identityPath;
    ScriptedBrowser browser(c.visit, &provider);
    IdentityLoginResult result{};
    const auto started = std::chrono::steady_clock::now();
    {
        const LoginSettingsScope settings(browser, c.limitMs);
        result = LoginAtIdentityServer(Widen(identityUrl), Widen(c.secret));
    }
    const auto took = std::chrono::steady_clock::now() - started;
    browser.Finish();

    EXPECT_EQ(browser.failure, "");
    EXPECT_EQ(result.resultType, c.resultType);
    EXPECT_EQ(result.error, Expand(c.error, identityUrl));
    if (c.resultType == 0) {
        ASSERT_FALSE(result.accessToken.empty());
        EXPECT_EQ(provider.ConnectStatus(Narrow(result.accessToken)), 200);
    } else {
        EXPECT_EQ(result.accessToken, L"");
    }
    if (c.resultType == 2) {
        EXPECT_GE(took, std::chrono::milliseconds(c.limitMs));
    }
    std::vector<int> statuses;
    for (const auto& page : browser.listenerPages) statuses.push_back(page.status);
    EXPECT_EQ(statuses, c.listenerStatuses);
    if (!c.lastPageSays.empty() && !browser.listenerPages.empty()) {
        EXPECT_NE(browser.listenerPages.back().body.find(c.lastPageSays), std::string::npos)
            << browser.listenerPages.back().body;
    }
    if (!browser.authorizationUrl.empty()) {
        ExpectPortFree(RedirectPort(browser.authorizationUrl));
    }
}

const std::string kSecret = testsupport::kOidcClientSecret;
const char kDone[] = "The login is done: you can close this window.";
const char kFailed[] = "The login failed: you can close this window.";

INSTANTIATE_TEST_SUITE_P(
    Logins, IdentityLoginCase,
    testing::Values(
        LoginCase{"user_logs_in", Visit::LogIn, kPatient, kSecret, "/identity", 0, L"", {200}, kDone},
        LoginCase{"user_refuses", Visit::Refuse, kPatient, kSecret, "/identity", 1,
                  Widen(testsupport::kOidcDeniedText), {200}, kFailed},
        LoginCase{"browser_shows_nothing", Visit::Nothing, 500, kSecret, "/identity", 2, L"", {}, ""},
        LoginCase{"forged_state_is_not_the_answer", Visit::ForgedState, 500, kSecret, "/identity",
                  2, L"", {400}, "This page belongs to no login in progress."},
        LoginCase{"forged_state_before_the_real_answer", Visit::ForgedStateThenLogIn, kPatient,
                  kSecret, "/identity", 0, L"", {400, 200}, kDone},
        LoginCase{"favicon_before_the_answer", Visit::FaviconThenLogIn, kPatient, kSecret,
                  "/identity", 0, L"", {404, 200}, kDone},
        LoginCase{"wrong_client_secret", Visit::LogIn, kPatient, "0123456789abcdef0123456789abcdef",
                  "/identity", 1, L"client authentication failed", {200}, kFailed},
        LoginCase{"error_without_description", Visit::ErrorWithoutDescription, kPatient, kSecret,
                  "/identity", 1, L"temporarily_unavailable", {200}, kFailed},
        LoginCase{"browser_cannot_start", Visit::CannotStart, kPatient, kSecret, "/identity", 1,
                  L"The web browser could not be started for the login.", {}, ""},
        LoginCase{"no_identity_server_at_the_address", Visit::LogIn, kPatient, kSecret,
                  "/elsewhere", 1,
                  L"The identity server at {identity} has no OpenID configuration (HTTP 404).", {},
                  ""}),
    [](const testing::TestParamInfo<LoginCase>& info) { return std::string(info.param.name); });

TEST(IdentityLogin, AuthorizationRequestCarriesPkceAndAFreshState) {
    OidcProvider& provider = SharedProvider();
    std::vector<std::map<std::string, std::string>> requests;
    for (int attempt = 0; attempt < 2; ++attempt) {
        ScriptedBrowser browser(Visit::Nothing, &provider);
        const LoginSettingsScope settings(browser, 100);
        EXPECT_EQ(LoginAtIdentityServer(Widen(provider.IdentityUrl()), Widen(kSecret)).resultType, 2);
        const std::string prefix = provider.IdentityUrl() + "/auth?";
        EXPECT_EQ(browser.authorizationUrl.compare(0, prefix.size(), prefix), 0)
            << browser.authorizationUrl;
        requests.push_back(QueryFields(browser.authorizationUrl));
    }
    for (const auto& query : requests) {
        EXPECT_EQ(query.at("response_type"), "code");
        EXPECT_EQ(query.at("client_id"), testsupport::kOidcClientId);
        EXPECT_EQ(query.at("scope"), "openid");
        EXPECT_EQ(query.at("code_challenge_method"), "S256");
        EXPECT_EQ(query.at("code_challenge").size(), 43u);
        EXPECT_EQ(query.at("code_challenge").find_first_not_of(
                      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_"),
                  std::string::npos);
        EXPECT_GE(query.at("state").size(), 22u);
        const std::string redirect = query.at("redirect_uri");
        EXPECT_EQ(redirect.compare(0, 17, "http://127.0.0.1:"), 0) << redirect;
        EXPECT_EQ(redirect.substr(redirect.rfind('/')), "/callback") << redirect;
    }
    EXPECT_NE(requests[0].at("state"), requests[1].at("state"));
    EXPECT_NE(requests[0].at("code_challenge"), requests[1].at("code_challenge"));
}

TEST(IdentityLogin, UnreachableIdentityServerThrowsBeforeAnyBrowserOpens) {
    unsigned short port;
    {
        asio::io_context io;
        tcp::acceptor closed(io, tcp::endpoint(asio::ip::address_v4::loopback(), 0));
        port = closed.local_endpoint().port();
    }
    ScriptedBrowser browser(Visit::LogIn, nullptr);
    const LoginSettingsScope settings(browser, kPatient);
    const std::wstring url = L"http://127.0.0.1:" + std::to_wstring(port) + L"/identity";
    EXPECT_THROW(LoginAtIdentityServer(url, Widen(kSecret)), web::http::http_exception);
    EXPECT_EQ(browser.authorizationUrl, "");
}

// Exceptions pass to the caller once the browser has been told, and the port is closed anyway.
TEST(IdentityLogin, IdentityServerGoneBeforeRedemptionThrowsAndFreesThePort) {
    OidcProvider provider; // its own: this test stops it
    ScriptedBrowser browser(Visit::ProviderGone, &provider);
    {
        const LoginSettingsScope settings(browser, kPatient);
        EXPECT_THROW(LoginAtIdentityServer(Widen(provider.IdentityUrl()), Widen(kSecret)),
                     web::http::http_exception);
    }
    browser.Finish();
    EXPECT_EQ(browser.failure, "");
    ASSERT_EQ(browser.listenerPages.size(), 1u);
    EXPECT_NE(browser.listenerPages[0].body.find(kFailed), std::string::npos);
    ExpectPortFree(RedirectPort(browser.authorizationUrl));
}

TEST(Pkce, Base64UrlHasNoPaddingAndTheUrlAlphabet) {
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
        {{0xff, 0xff}, "__8"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Base64UrlWithoutPadding(c.bytes.data(), c.bytes.size()), c.text)
            << "case: " << c.text;
    }
}

TEST(Pkce, S256ChallengeMatchesTheRfcExample) {
    EXPECT_EQ(CodeChallengeS256("dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk"),
              "E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM");
}

} // namespace
