#pragma once

#include "host/Framework.h"

// What a login at the identity server gave.
struct CAuthenticationResult {
    CAuthenticationResult() = default;
    CAuthenticationResult(const CAuthenticationResult&) = default;
    CAuthenticationResult& operator=(const CAuthenticationResult&) = default;
    ~CAuthenticationResult();

    CString AccessToken;
    CString Error;
    // 0 success, 1 failure with Error, 2 timed out.
    int ResultType = 0;
};

// Logs the user in at the identity server beside the repository service.
class CSkywardAuthentication {
public:
    CAuthenticationResult Authenticate(CString identityServerUrl);
};
