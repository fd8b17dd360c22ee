// The OpenID provider of tests/oidc/provider.mjs, run with node on a free loopback port, and a
// browser that plays the user at it. The provider needs `npm ci --prefix tests/oidc` first.
#pragma once

#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace testsupport {

// What provider.mjs knows: the login client and the text of a refused login.
inline constexpr char kOidcClientId[] = "lxdesktop";
inline constexpr char kOidcClientSecret[] = "5d0c1e7a9b3f4a6c8e2d7f1b0a9c4e36";
inline constexpr char kOidcDeniedText[] = "alice declined to let the desktop import tables";

class OidcProvider {
public:
    // Starts `node tests/oidc/provider.mjs` and returns once it answers discovery. Throws
    // std::runtime_error, saying what to do, when node or the npm packages are missing.
    OidcProvider();
    // Stop() unless already stopped.
    ~OidcProvider();
    OidcProvider(const OidcProvider&) = delete;
    OidcProvider& operator=(const OidcProvider&) = delete;

    // Ends the node process and waits for it; the port no longer answers afterwards.
    void Stop();

    unsigned short Port() const { return port_; }
    std::string BaseUrl() const;     // "http://127.0.0.1:<port>"
    std::string IdentityUrl() const; // BaseUrl() + "/identity", the issuer

    // Status of GET /Import/Connect with "Authorization: Bearer <accessToken>": 200 when the
    // provider issued that token for the import service, 401 otherwise.
    int ConnectStatus(const std::string& accessToken) const;

private:
    int pid_ = -1;
    int output_ = -1;
    unsigned short port_ = 0;
    std::thread drain_;
};

struct BrowserPage {
    int status = 0;
    std::string url;      // where the page came from
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

} // namespace testsupport
