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

// Runs argv (argv[0] is looked up on PATH when it has no '/') to its end.
Finished RunToEnd(const std::vector<std::string>& argv);

// A program that keeps running. Servers print their port on their first line (lxrepo-server the
// number, the provider "listening <port>"); the rest of the output is read and dropped so that
// the program never blocks on a full pipe.
class ChildProcess {
public:
    // Throws std::runtime_error when the program prints no port.
    explicit ChildProcess(const std::vector<std::string>& argv);
    ~ChildProcess() { Stop(9); }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    unsigned short Port() const { return port_; }
    // Sends the signal, waits, and returns the wait status.
    int Stop(int signal);

private:
    int pid_ = -1;
    unsigned short port_ = 0;
    std::thread drain_;
};

// A port that was free a moment ago (bound and released): nothing listens there.
unsigned short FreePort(const std::string& address = "127.0.0.1");

} // namespace testsupport
