#include "auth/ProxyCall.h"

#include "client/TextConversion.h"

web::http::http_response SendProxyCall(const CString& proxyBaseUri, const CString& path,
                                       std::initializer_list<ProxyQueryParameter> query) {
    web::http::client::http_client client{web::uri(ToStringT(proxyBaseUri))};
    web::uri_builder relative{web::uri(ToStringT(path))};
    for (const ProxyQueryParameter& parameter : query) {
        relative.append_query(parameter.first, ToStringT(parameter.second));
    }
    web::http::http_request request(web::http::methods::GET);
    request.set_request_uri(relative.to_uri());
    return client.request(request).get();
}
