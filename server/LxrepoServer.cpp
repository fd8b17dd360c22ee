#include "LxrepoServer.h"

#include "Catalogue.h"
#include "IdentityPassthrough.h"
#include "ImportRoutes.h"
#include "ImportStore.h"
#include "NtlmAcceptor.h"
#include "Tls.h"
#include "Url.h"

#include <boost/beast/core/string.hpp>

#include <algorithm>

namespace lxrepo {

struct LxrepoServer::Parts {
    std::unique_ptr<Catalogue> catalogue;
    std::unique_ptr<ImportStore> store;
    std::unique_ptr<ImportRoutes> importRoutes;
    std::unique_ptr<Authenticator> authenticator;
    std::unique_ptr<IdentityPassthrough> identity;
    std::unique_ptr<ProxyRoutes> proxy;
};

namespace {

std::unique_ptr<Authenticator> MakeAuthenticator(const ServerOptions& options) {
    switch (options.auth) {
    case AuthKind::Ntlm:
        return std::make_unique<NtlmAcceptor>(options.ntlmUsersFile, options.ntlmServiceHost.empty()
                                                                         ? options.http.address
                                                                         : options.ntlmServiceHost);
    case AuthKind::Bearer:
        return std::make_unique<Introspection>(options.introspection);
    case AuthKind::None:
        break;
    }
    return std::make_unique<NoAuthentication>();
}

bool Trusted(const std::vector<std::string>& trusted, const std::string& user) {
    return !user.empty() && std::any_of(trusted.begin(), trusted.end(), [&](const auto& name) {
        return boost::beast::iequals(name, user);
    });
}

} // namespace

LxrepoServer::LxrepoServer(ServerOptions options)
    : options_(std::move(options)), parts_(std::make_unique<Parts>()) {
    if (!options_.tlsCertificate.empty()) {
        options_.http.tls = ServerTlsContext(options_.tlsCertificate, options_.tlsKey);
    }
    if (!options_.tlsCa.empty()) {
        TrustForOutgoing(options_.tlsCa);
    }
    if (options_.role != Role::Proxy) {
        parts_->catalogue = std::make_unique<Catalogue>(options_.database);
        parts_->store = std::make_unique<ImportStore>(*parts_->catalogue, options_.abandonAfter);
        parts_->importRoutes =
            std::make_unique<ImportRoutes>(*parts_->store, options_.allowedClasses);
        parts_->authenticator = MakeAuthenticator(options_);
        if (options_.auth == AuthKind::Bearer && !options_.identityUpstream.empty()) {
            parts_->identity = std::make_unique<IdentityPassthrough>(options_.identityUpstream);
        }
    }
    if (options_.role != Role::Service) {
        std::shared_ptr<ClientCredentials> tokens;
        if (!options_.proxyOAuth.tokenUrl.empty()) {
            tokens = std::make_shared<ClientCredentials>(options_.proxyOAuth);
        }
        parts_->proxy = std::make_unique<ProxyRoutes>(options_.proxy, tokens);
    }
    http_ = std::make_unique<HttpServer>(options_.http,
                                         [this](Request& request, ConnectionState& connection) {
                                             return Handle(request, connection);
                                         });
}

LxrepoServer::~LxrepoServer() { Stop(); }

unsigned short LxrepoServer::Port() const { return http_->Port(); }

bool LxrepoServer::Secure() const { return http_->Secure(); }

void LxrepoServer::Start() { http_->Start(); }

void LxrepoServer::Stop() { http_->Stop(); }

Response LxrepoServer::Handle(Request& request, ConnectionState& connection) {
    const Target target = SplitTarget(std::string(request.target()));
    if (parts_->proxy && parts_->proxy->Owns(target.path)) {
        return parts_->proxy->Handle(request, target);
    }
    if (parts_->importRoutes &&
        (target.path == "/Import" || target.path.rfind("/Import/", 0) == 0)) {
        return HandleImport(request, connection, target.path);
    }
    if (parts_->identity && IdentityPassthrough::Owns(target.path)) {
        return parts_->identity->Handle(request, target, connection.secure);
    }
    throw HttpError(http::status::not_found, "nothing is served at " + target.path);
}

Response LxrepoServer::HandleImport(Request& request, ConnectionState& connection,
                                    const std::string& path) {
    Authentication authentication = parts_->authenticator->Authenticate(request, connection);
    if (!authentication.user) {
        return std::move(*authentication.challenge);
    }
    Caller caller{*authentication.user, *authentication.user};
    // Only the proxy's own account may say on whose behalf it calls; without authentication
    // every caller is as trusted as any other.
    const std::string client = HeaderValue(request, "X-Lxrepo-Client");
    if (!client.empty() &&
        (options_.auth == AuthKind::None || Trusted(options_.trustedProxies, caller.user))) {
        caller.client = PercentDecode(client).value_or(client);
    }
    auto segments = DecodePathSegments(path);
    if (!segments) {
        throw HttpError(http::status::bad_request, "malformed percent-encoding in the path");
    }
    segments->erase(segments->begin()); // "Import"
    return parts_->importRoutes->Handle(request, *segments, caller);
}

} // namespace lxrepo
