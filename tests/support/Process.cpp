#include "support/Process.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace testsupport {

namespace {

// Starts argv with standard output (and error, when errFile is given) redirected.
pid_t Spawn(const std::vector<std::string>& argv, const std::vector<std::string>& env, int outFd,
            const std::string& outFile, const std::string& errFile) {
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    std::vector<char*> environment;
    for (char** e = environ; *e != nullptr; ++e) environment.push_back(*e);
    for (const auto& e : env) environment.push_back(const_cast<char*>(e.c_str()));
    environment.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (outFd >= 0) {
        posix_spawn_file_actions_adddup2(&actions, outFd, STDOUT_FILENO);
    } else {
        posix_spawn_file_actions_addopen(&actions, 1, outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    }
    if (!errFile.empty()) {
        posix_spawn_file_actions_addopen(&actions, 2, errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    }
    pid_t pid = -1;
    const int failed = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environment.data());
    posix_spawn_file_actions_destroy(&actions);
    if (failed != 0) throw std::runtime_error("cannot start " + argv[0]);
    return pid;
}

std::string Slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    std::remove(path.c_str());
    return text.str();
}

} // namespace

Finished RunToEnd(const std::vector<std::string>& argv, const std::vector<std::string>& env) {
    char pattern[] = "/tmp/tri-run-XXXXXX";
    const int fd = mkstemp(pattern);
    close(fd);
    const std::string out = std::string(pattern) + ".out", err = std::string(pattern) + ".err";
    std::remove(pattern);
    const pid_t pid = Spawn(argv, env, -1, out, err);
    int status = 0;
    Finished finished;
    if (waitpid(pid, &status, 0) == pid && WIFEXITED(status)) finished.status = WEXITSTATUS(status);
    finished.out = Slurp(out);
    finished.err = Slurp(err);
    return finished;
}

ChildProcess::ChildProcess(const std::vector<std::string>& argv) {
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    try {
        pid_ = Spawn(argv, {}, pipeFds[1], "", "");
    } catch (...) {
        close(pipeFds[0]);
        close(pipeFds[1]);
        throw;
    }
    close(pipeFds[1]);
    FILE* stream = fdopen(pipeFds[0], "r");
    char line[256] = {};
    const bool read = std::fgets(line, sizeof line, stream) != nullptr;
    firstLine_ = line;
    drain_ = std::thread([stream] {
        char scratch[4096];
        while (std::fread(scratch, 1, sizeof scratch, stream) > 0) {
        }
        std::fclose(stream);
    });
    if (!read) {
        Stop(SIGKILL);
        throw std::runtime_error(argv[0] + " ended without printing a line");
    }
}

ChildProcess::~ChildProcess() {
    if (pid_ > 0) Stop(SIGKILL);
}

unsigned short ChildProcess::Port() const {
    const auto digits = firstLine_.find_first_of("0123456789");
    if (digits == std::string::npos) throw std::runtime_error("no port in: " + firstLine_);
    return static_cast<unsigned short>(std::stoi(firstLine_.substr(digits)));
}

int ChildProcess::Stop(int signal) {
    int status = 0;
    if (pid_ > 0) {
        kill(pid_, signal);
        waitpid(pid_, &status, 0);
        pid_ = -1;
    }
    if (drain_.joinable()) drain_.join();
    return status;
}

unsigned short FreePort(const std::string& address) {
    boost::asio::io_context context;
    boost::asio::ip::tcp::acceptor acceptor(context, {boost::asio::ip::make_address(address), 0});
    return acceptor.local_endpoint().port();
}

} // namespace testsupport
