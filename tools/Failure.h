// How a run of lxrepo ends when it does not succeed: one sentence, the exit status, and the step
// it stopped at (a fixed name scripts can match: "file", "registration", "table creation" ...).
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
    Failure(ExitStatus status, const std::string& step, const std::string& sentence)
        : std::runtime_error(sentence), status_(status), step_(step) {}
    ExitStatus Status() const { return status_; }
    const std::string& Step() const { return step_; }

private:
    ExitStatus status_;
    std::string step_;
};

} // namespace lxrepo
