#include "TableRepositoryImport.h"

#include "auth/ProxyCall.h"

// Neither call looks at the proxy's answer: a proxy that refuses is found out by the connection
// test, which asks it again.

void CTableRepositoryImport::RegisterWithAuthenticationProxy(
    CAuthenticationProxyConfiguration configuration) {
    proxyConfiguration = configuration;
    SendProxyCall(proxyConfiguration.proxyBaseUri, proxyConfiguration.registrationPath,
                  {{U("lxclient"), proxyConfiguration.clientName},
                   {U("lxserver"), proxyConfiguration.serverName}});
}

CAuthenticationProxyResult CTableRepositoryImport::UnregisterFromAuthenticationProxy(
    CAuthenticationProxyConfiguration configuration) {
    CAuthenticationProxyResult result;
    SendProxyCall(configuration.proxyBaseUri, configuration.unregistrationPath,
                  {{U("lxclient"), configuration.clientName}});
    return result;
}
