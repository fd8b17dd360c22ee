#include <gtest/gtest.h>

#include "LxrepoRun.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <fstream>
#include <sstream>

extern char** environ;

namespace lxrepotest {

namespace {

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

} // namespace

Deployment::Deployment() {
    auto service = servertest::DefaultOptions(Database());
    service.role = lxrepo::Role::Service;
    service.allowedClasses = {"default", "sales"};
    service_ = std::make_unique<servertest::RunningServer>(service);
    auto proxy = servertest::DefaultOptions(File("proxy.sqlite"));
    proxy.role = lxrepo::Role::Proxy;
    proxy.proxy.allowedServers = {service_->Url()};
    proxy_ = std::make_unique<servertest::RunningServer>(proxy);
}

std::string Deployment::Write(const std::string& name, const std::string& content) const {
    const std::string path = File(name);
    std::ofstream(path, std::ios::binary) << content;
    return path;
}

Outcome Deployment::Lxrepo(std::vector<std::string> args, bool connect) const {
    args.insert(args.begin(), LXREPO_BINARY);
    if (connect) {
        args.insert(args.end(), {"--server", ServiceUrl(), "--proxy", ProxyUrl()});
    }
    std::vector<char*> argv;
    for (auto& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    const std::string out = File("lxrepo.out");
    const std::string err = File("lxrepo.err");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    pid_t pid = -1;
    const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    Outcome outcome;
    int status = 0;
    if (spawned != 0 || waitpid(pid, &status, 0) != pid) {
        return outcome;
    }
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    outcome.out = ReadFile(out);
    outcome.err = ReadFile(err);
    return outcome;
}

} // namespace lxrepotest
