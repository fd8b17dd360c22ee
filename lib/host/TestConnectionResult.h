#pragma once

#include "host/Framework.h"

// Outcome codes of TestConnection; hosts rely on the numbers.
enum TestConnectionStatus {
    Connected = 0,
    ConnectionFailed = 1,
    NotAuthorized = 2,
    VersionNotSupported = 3,
    AuthenticationFailed = 4,
};

struct TestConnectionResult {
    int status = Connected;
    CString details;
    // The proxy's "version" text, once its answer was read.
    CString version;
    // Why the identity-server login failed.
    CString errorText;
};
