#pragma once

#include "host/Framework.h"

// How the host reaches its authentication proxy. Copied and assigned member by member.
struct CAuthenticationProxyConfiguration {
    CString proxyBaseUri;
    CString registrationPath;
    CString unregistrationPath;
    CString proxyPath;
    CString connectPath;
    CString clientName;
    CString serverName;
    // 1 asks the proxy for token authentication ("oauth"); any other value for Windows ("windows").
    int authenticationType = 0;
};

// What unregistering from the proxy returns; the library leaves its text empty.
struct CAuthenticationProxyResult {
    CString message;
};
