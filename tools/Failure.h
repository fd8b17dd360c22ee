// How a run of lxrepo ends when it does not succeed: one sentence and the exit status.
#pragma once

#include <stdexcept>
#include <string>

namespace lxrepo {

enum ExitStatus {
    kSucceeded = 0,
    kRefused = 1,     // the service answered a step with a refusal
    kBadInput = 2,    // usage error, unreadable or malformed file
    kUnreachable = 3, // the proxy or service cannot be reached, or authentication failed
};

class Failure : public std::runtime_error {
public:
    Failure(ExitStatus status, const std::string& sentence)
        : std::runtime_error(sentence), status_(status) {}
    ExitStatus Status() const { return status_; }

private:
    ExitStatus status_;
};

} // namespace lxrepo
