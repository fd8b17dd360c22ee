// The OpenID provider of tests/oidc/provider.mjs, run with node on a free loopback port, and a
// browser that plays the user at it. The provider needs `npm ci --prefix tests/oidc` first.
#pragma once

#include "support/Process.h"

#include <csignal>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>

namespace testsupport {

// What provider.mjs knows: the login client's secret and the text of a refused login.
inline constexpr char kOidcClientSecret[] = "5d0c1e7a9b3f4a6c8e2d7f1b0a9c4e36";
inline constexpr char kOidcDeniedText[] = "alice declined to let the desktop import tables";

class OidcProvider {
public:
    // Starts `node tests/oidc/provider.mjs`, as the variation (JSON, see there) makes it. Throws
    // std::runtime_error, saying what to do, when node or the npm packages are missing.
    explicit OidcProvider(const std::string& variation = "");
    // Ends the node process; the port no longer answers afterwards.
    void Stop() { node_->Stop(SIGTERM); }

    std::string BaseUrl() const { return "http://127.0.0.1:" + std::to_string(node_->Port()); }
    std::string IdentityUrl() const { return BaseUrl() + "/identity"; } // the issuer

    // Status of GET /Import/Connect with "Authorization: Bearer <accessToken>": 200 when the
    // provider issued that token for the import service, 401 otherwise.
    int ConnectStatus(const std::string& accessToken) const;

private:
    std::unique_ptr<ChildProcess> node_;
};

struct BrowserPage {
    int status = 0;
    std::string location; // where a redirect points, resolved; empty for other pages
    std::string body;
};

// A browser for the provider's login: it keeps a cookie jar (names only, as every test cookie
// lives on 127.0.0.1) and follows redirects itself, relative ones included. The decision
// cookie tells provider.mjs to log alice in ("allow") or to refuse the login ("deny").
class TestBrowser {
public:
    explicit TestBrowser(std::string decision);

    BrowserPage Get(const std::string& url);   // one request
    BrowserPage Visit(const std::string& url); // follows up to 20 redirects

private:
    std::map<std::string, std::string> cookies_;
};

// Pieces of an http URL's query, decoded ('+' is a space); empty for a URL without one.
std::map<std::string, std::string> QueryFields(const std::string& url);

// The user's browser as the library's launcher sees it (install Launch with `this` as its
// context): each page it is asked to open is played on a thread of its own, as a real browser
// is a process of its own. A browser that cannot start makes Launch report failure.
class LaunchedBrowser {
public:
    explicit LaunchedBrowser(std::function<void(const std::string& url)> play, bool starts = true)
        : play_(std::move(play)), starts_(starts) {}
    ~LaunchedBrowser() { Finish(); }

    static int Launch(const wchar_t* url, void* self);
    // Waits for the visit to end; what it threw, "" if nothing.
    std::string Finish();

    std::string url; // the last page it was asked to open

private:
    std::function<void(const std::string&)> play_;
    bool starts_;
    std::thread visit_;
    std::string failure_;
};

} // namespace testsupport
