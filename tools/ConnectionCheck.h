// What `lxrepo check` finds out: the connection test and the authorization check, no import.
#pragma once

#include "RepositorySession.h"

#include <string>

namespace lxrepo {

struct CheckFindings {
    int status = ConnectionFailed; // TestConnectionResult::status
    std::string version;           // the proxy's version text
    bool authorized = false;       // asked only when connected
};

// Throws Failure(kUnreachable) when the proxy or the service cannot be reached at all.
CheckFindings CheckConnection(const ConnectionOptions& options, const std::string& tableClass);

} // namespace lxrepo
