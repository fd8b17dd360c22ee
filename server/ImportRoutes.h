// The repository service's endpoints under /Import: request bodies checked and turned into
// ImportStore calls, answers in the form the client library accepts.
#pragma once

#include "Http.h"
#include "ImportStore.h"

#include <string>
#include <vector>

namespace lxrepo {

class ImportRoutes {
public:
    // allowedClasses: table classes the service accepts; empty accepts every class.
    ImportRoutes(ImportStore& store, std::vector<std::string> allowedClasses);

    // segments: the decoded path after "/Import". The caller is already authenticated.
    Response Handle(const Request& request, const std::vector<std::string>& segments,
                    const Caller& caller);

private:
    Response Connect(const Request& request, const Caller& caller);
    Response Authorization(const Request& request);
    Response CreateTable(const Request& request, const Caller& caller);
    Response Attributes(const Request& request, const std::string& id);
    Response TableCommand(const Request& request, const std::vector<std::string>& segments);
    Response Phase(const Request& request, const std::string& id, const std::string& kind,
                   std::vector<std::string> rest);
    void CheckClassAllowed(const std::string& tableClass) const;

    ImportStore& store_;
    std::vector<std::string> allowedClasses_;
};

} // namespace lxrepo
