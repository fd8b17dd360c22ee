#include "support/OidcProvider.h"

#include "HttpClient.h"
#include "Url.h"

#include <cwchar>
#include <filesystem>
#include <stdexcept>
#include <vector>

namespace testsupport {

namespace {

std::vector<std::string> NodeCommand(const std::string& variation) {
    const std::filesystem::path dir = TRI_OIDC_DIR;
    if (!std::filesystem::exists(dir / "node_modules" / "oidc-provider" / "package.json")) {
        throw std::runtime_error("the OpenID provider's npm packages are missing from " +
                                 (dir / "node_modules").string() +
                                 ": run `npm ci --prefix tests/oidc` in the source tree");
    }
    return {"node", (dir / "provider.mjs").string(), "0", "", variation};
}

// Where the path of an http or https URL starts.
std::size_t PathStart(const std::string& url) { return url.find('/', url.find("://") + 3); }

// A GET of an http or https URL with a path, carrying one header.
lxrepo::Response HttpGet(const std::string& url, const std::string& header,
                         const std::string& value) {
    lxrepo::Request request(lxrepo::http::verb::get, url.substr(PathStart(url)), 11);
    request.set(header, value);
    return lxrepo::SendOnce(lxrepo::ParseBaseUrl(url).value(), request);
}

} // namespace

OidcProvider::OidcProvider(const std::string& variation)
    : node_(std::make_unique<ChildProcess>(NodeCommand(variation))) {}

int OidcProvider::ConnectStatus(const std::string& accessToken) const {
    return static_cast<int>(
        HttpGet(BaseUrl() + "/Import/Connect", "Authorization", "Bearer " + accessToken)
            .result_int());
}

TestBrowser::TestBrowser(std::string decision) { cookies_["test_decision"] = std::move(decision); }

BrowserPage TestBrowser::Get(const std::string& url) {
    std::string cookieHeader;
    for (const auto& [name, value] : cookies_) {
        cookieHeader += (cookieHeader.empty() ? "" : "; ") + name + "=" + value;
    }
    const auto response = HttpGet(url, "Cookie", cookieHeader);
    for (const auto& field : response.base()) {
        if (field.name() == lxrepo::http::field::set_cookie) {
            const std::string cookie(field.value().substr(0, field.value().find(';')));
            const std::size_t equals = cookie.find('=');
            cookies_[cookie.substr(0, equals)] = cookie.substr(equals + 1);
        }
    }
    // The provider's redirects name an absolute address or an absolute path.
    std::string location(response[lxrepo::http::field::location]);
    if (location.rfind('/', 0) == 0) {
        location = url.substr(0, PathStart(url)) + location;
    }
    const int status = static_cast<int>(response.result_int());
    return {status, status / 100 == 3 ? location : "", response.body()};
}

BrowserPage TestBrowser::Visit(const std::string& url) {
    BrowserPage page = Get(url);
    for (int hop = 0; hop < 20 && !page.location.empty(); ++hop) {
        page = Get(page.location);
    }
    return page;
}

std::map<std::string, std::string> QueryFields(const std::string& url) {
    const auto query = lxrepo::ParseQuery(lxrepo::SplitTarget(url).query);
    return query ? std::map<std::string, std::string>(query->begin(), query->end())
                 : std::map<std::string, std::string>{};
}

int LaunchedBrowser::Launch(const wchar_t* url, void* self) {
    auto* browser = static_cast<LaunchedBrowser*>(self);
    browser->Finish();
    browser->url.assign(url, url + std::wcslen(url)); // an authorization URL is ASCII
    if (!browser->starts_) {
        return 0;
    }
    browser->visit_ = std::thread([browser, page = browser->url] {
        try {
            browser->play_(page);
        } catch (const std::exception& e) {
            browser->failure_ = e.what();
        }
    });
    return 1;
}

std::string LaunchedBrowser::Finish() {
    if (visit_.joinable()) {
        visit_.join();
    }
    return failure_;
}

} // namespace testsupport
