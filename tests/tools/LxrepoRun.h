// lxrepo run as a child process against an lxrepo-server service and proxy in this process.
#pragma once

#include "ServerFixture.h"

#include <memory>
#include <string>
#include <vector>

namespace lxrepotest {

struct Outcome {
    int status = -1; // exit status, or -1 when the program did not exit normally
    std::string out;
    std::string err;
};

// A service (accepting the classes "default" and "sales") and a proxy that forwards to it,
// each on a free loopback port, with the service's SQLite file in a directory of its own.
class Deployment {
public:
    Deployment();
    std::string Database() const { return files_.File("repo.sqlite"); }
    std::string File(const std::string& name) const { return files_.File(name); }
    // Writes content to a file of the directory and returns its path.
    std::string Write(const std::string& name, const std::string& content) const;
    // lxrepo with args, then the connection options for this deployment unless told not to.
    Outcome Lxrepo(std::vector<std::string> args, bool connect = true) const;
    std::string ServiceUrl() const { return service_->Url(); }
    std::string ProxyUrl() const { return proxy_->Url(); }

private:
    servertest::TempDirectory files_;
    std::unique_ptr<servertest::RunningServer> service_;
    std::unique_ptr<servertest::RunningServer> proxy_;
};

} // namespace lxrepotest
