// Programs the tests run beside themselves (lxrepo-server, the OpenID provider under node,
// lxrepo): one way to start them, read what they print, and end them.
#pragma once

#include <string>
#include <thread>
#include <vector>

namespace testsupport {

struct Finished {
    int status = -1; // exit status; -1 when the program did not exit normally
    std::string out;
    std::string err;
};

// Runs argv (argv[0] is looked up on PATH when it has no '/') to its end, with extra
// "NAME=value" entries added to this process's environment.
Finished RunToEnd(const std::vector<std::string>& argv, const std::vector<std::string>& env = {});

// A program that keeps running. Its first line of standard output is read at start: servers
// print their port there (lxrepo-server the number, the provider "listening <port>"); the rest
// of the output is read and dropped so that the program never blocks on a full pipe.
class ChildProcess {
public:
    // Throws std::runtime_error when the program ends without printing a line.
    explicit ChildProcess(const std::vector<std::string>& argv);
    ~ChildProcess(); // SIGKILL unless stopped
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    unsigned short Port() const; // the first number on the first line
    // Sends the signal, waits, and returns the wait status.
    int Stop(int signal);

private:
    int pid_ = -1;
    std::string firstLine_;
    std::thread drain_;
};

// A port that was free a moment ago (bound and released): nothing listens there.
unsigned short FreePort(const std::string& address = "127.0.0.1");

} // namespace testsupport
