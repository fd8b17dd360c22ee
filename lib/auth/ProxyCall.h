#pragma once

#include "host/AuthenticationProxyConfiguration.h"

#include <cpprest/http_client.h>

#include <initializer_list>
#include <utility>

// One query parameter of a proxy call; the value is percent-encoded as UTF-8 when it is added.
using ProxyQueryParameter = std::pair<const utility::char_t*, CString>;

// The value of "lxauth": how the proxy is to authenticate towards the service.
inline const utility::char_t* ProxyAuthenticationKind(int authenticationType) {
    return authenticationType == 1 ? U("oauth") : U("windows");
}

// A GET to the proxy at path (which may carry a query of its own) with the parameters behind it,
// sent through a plain client: the proxy calls never authenticate. Waits for the answer.
web::http::http_response SendProxyCall(const CString& proxyBaseUri, const CString& path,
                                       std::initializer_list<ProxyQueryParameter> query);
