#include "support/Process.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace testsupport {

namespace {

// Starts argv with standard output on out (a descriptor) and, when errFile is given, standard
// error in that file.
pid_t Spawn(const std::vector<std::string>& argv, int out, const std::string& errFile = "") {
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    if (!errFile.empty()) {
        posix_spawn_file_actions_addopen(&actions, 2, errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    }
    pid_t pid = -1;
    const int failed = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (failed != 0) throw std::runtime_error("cannot start " + argv[0]);
    return pid;
}

std::string Slurp(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    std::remove(path.c_str());
    return text.str();
}

} // namespace

Finished RunToEnd(const std::vector<std::string>& argv) {
    char out[] = "/tmp/tri-run-XXXXXX";
    const int fd = mkstemp(out);
    const std::string err = std::string(out) + ".err";
    const pid_t pid = Spawn(argv, fd, err);
    close(fd);
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
    FILE* stream = fdopen(pipeFds[0], "r");
    try {
        pid_ = Spawn(argv, pipeFds[1]);
    } catch (...) {
        std::fclose(stream);
        close(pipeFds[1]);
        throw;
    }
    close(pipeFds[1]);
    char line[256] = {};
    std::fgets(line, sizeof line, stream);
    const std::string first = line;
    drain_ = std::thread([stream] {
        for (char scratch[4096]; std::fread(scratch, 1, sizeof scratch, stream) > 0;) {
        }
        std::fclose(stream);
    });
    const auto digits = first.find_first_of("0123456789");
    if (digits == std::string::npos) {
        Stop(SIGKILL);
        throw std::runtime_error(argv[0] + " printed no port: " + first);
    }
    port_ = static_cast<unsigned short>(std::stoi(first.substr(digits)));
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
