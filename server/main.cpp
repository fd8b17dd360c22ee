// lxrepo-server: see README.md and --help.
#include "CommandLine.h"
#include "LxrepoServer.h"

#include <csignal>
#include <exception>
#include <iostream>

#include <pthread.h>

int main(int argc, char** argv) {
    lxrepo::ServerOptions options;
    if (const auto exitCode = lxrepo::ParseCommandLine(argc, argv, options)) {
        return *exitCode;
    }
    // Blocked before any thread starts, so every thread inherits the mask and only sigwait
    // below sees the signals.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    // A client that hangs up mid-answer must not end the process.
    std::signal(SIGPIPE, SIG_IGN);

    try {
        lxrepo::LxrepoServer server(options);
        server.Start();
        // Scripts read the port from the first line.
        std::cout << server.Port() << std::endl;
        std::cerr << "lxrepo-server listening on " << options.http.address << ":" << server.Port()
                  << std::endl;
        int signal = 0;
        sigwait(&stopSignals, &signal);
        std::cerr << "lxrepo-server stopping (signal " << signal << ")" << std::endl;
        server.Stop();
    } catch (const std::exception& error) {
        std::cerr << "lxrepo-server: " << error.what() << std::endl;
        return 1;
    }
    return 0;
}
