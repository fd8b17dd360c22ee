#include "TableRepositoryImport.h"

#include "auth/ProxyCall.h"
#include "auth/SkywardAuthentication.h"
#include "client/AuthenticationSettings.h"
#include "client/RequestPipeline.h"
#include "client/TextConversion.h"
#include "connection/VersionJudgement.h"

using web::http::status_codes;

namespace {

// Both proxy calls of the connection test carry the same three parameters.
web::http::http_response AskProxy(const CAuthenticationProxyConfiguration& proxy,
                                  const CString& path) {
    return SendProxyCall(
        proxy.proxyBaseUri, path,
        {{U("lxclient"), proxy.clientName},
         {U("lxserver"), proxy.serverName},
         {U("lxauth"), CString(ProxyAuthenticationKind(proxy.authenticationType))}});
}

int ConnectStatus(web::http::status_code status) {
    if (status == status_codes::OK) {
        return Connected;
    }
    return status == status_codes::Unauthorized ? NotAuthorized : ConnectionFailed;
}

// The identity server sits beside the service: same scheme, user information, host and port.
CString IdentityServerAddress(const web::http::client::http_client& client) {
    web::uri_builder identity(client.base_uri().authority());
    identity.append_path(U("identity"));
    return ToCString(identity.to_string());
}

// The direct way in: a token from the identity server, kept for every later request, then the
// service's connect call with it.
TestConnectionResult ConnectDirectly(AuthenticationSettings& settings,
                                     const std::wstring& serverBaseUri,
                                     TestConnectionResult result) {
    web::http::client::http_client client{web::uri(ToStringT(serverBaseUri))};
    web::http::http_request request(web::http::methods::GET);
    request.set_request_uri(U("/Import/Connect"));

    CSkywardAuthentication identityServer;
    const CAuthenticationResult login = identityServer.Authenticate(IdentityServerAddress(client));
    if (login.ResultType == 2) {
        result.errorText = "Authentication timeout";
        return result;
    }
    if (login.ResultType == 1) {
        result.errorText = login.Error;
        return result;
    }
    if (login.ResultType != 0) {
        return result;
    }
    std::wstring token(login.AccessToken.GetString(),
                       static_cast<std::size_t>(login.AccessToken.GetLength()));
    ReplaceSecret(settings.accessToken, token);
    WipeSecret(token);
    const web::http::http_response response =
        ExecuteRequest(settings, client, request, web::json::value::number(0)).get();
    result.status = ConnectStatus(response.status_code());
    return result;
}

} // namespace

TestConnectionResult CTableRepositoryImport::TestConnection(CString serverUrl) {
    TestConnectionResult result;
    serverBaseUri.assign(serverUrl.GetString(), static_cast<std::size_t>(serverUrl.GetLength()));
    proxyConfiguration.serverName = serverUrl;

    web::http::http_response versionAnswer =
        AskProxy(proxyConfiguration, proxyConfiguration.registrationPath);
    if (versionAnswer.status_code() != status_codes::OK) {
        result.status = ConnectionFailed;
        return result;
    }
    // A missing or non-string "version" fails the JSON type check, which reaches the host.
    web::json::value answer = versionAnswer.extract_json().get();
    result.status = AuthenticationFailed;
    result.version = ToCString(answer[U("version")].as_string());

    if (IsServedThroughProxy(result.version)) {
        const web::http::status_code status =
            AskProxy(proxyConfiguration, proxyConfiguration.connectPath).status_code();
        result.status = ConnectStatus(status);
        if (status == status_codes::OK) {
            authenticationSettings->proxyConfiguration = proxyConfiguration;
        }
        return result;
    }
    if (result.version.Mid(0, 1) != L"2") {
        result.status = VersionNotSupported;
        return result;
    }
    serverBaseUri.assign(serverUrl.GetString(), static_cast<std::size_t>(serverUrl.GetLength()));
    return ConnectDirectly(*authenticationSettings, serverBaseUri, result);
}
