#include "ConnectionCheck.h"

#include "CsvHostRecords.h"
#include "Failure.h"

namespace lxrepo {

CheckFindings CheckConnection(const ConnectionOptions& options, const std::string& tableClass) {
    RepositorySession session(options);
    const TestConnectionResult result = session.TestConnection();
    CheckFindings findings;
    findings.status = result.status;
    findings.version = ToUtf8(result.version);
    if (result.status != Connected) {
        return findings;
    }
    try {
        findings.authorized = session.Client().IsAuthorized(ToCString(tableClass)) == 1;
    } catch (const std::exception& e) {
        throw Failure(kUnreachable, "authorization",
                      "Lost the service during the authorization check (" + std::string(e.what()) +
                          ").");
    }
    return findings;
}

} // namespace lxrepo
