// One line on standard error that tells how far the import is: phase, rows, rate, time left.
#pragma once

#include <chrono>
#include <cstdio>
#include <string>

namespace lxrepo {

class ProgressBar {
public:
    // Draws only when enabled (standard error is a terminal); otherwise every call is a no-op.
    ProgressBar(bool enabled, std::FILE* out);
    ~ProgressBar() { Clear(); }
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    // Starts a phase; its rate and time left are measured from here.
    void Begin(const std::string& phase);
    // rows done in this phase, fraction of the phase done (0 to 1). Redrawn at most ten times a
    // second, so callers may report as often as they like.
    void Update(long rows, double fraction);
    // A phase whose length only the other side knows (the service committing): its name and
    // what it waits for, with no bar, until the next Begin or Clear.
    void Wait(const std::string& phase, const std::string& what);
    // Erases the line, before a message or the summary is printed.
    void Clear();

private:
    using Clock = std::chrono::steady_clock;

    bool enabled_;
    std::FILE* out_;
    std::string phase_;
    Clock::time_point started_;
    Clock::time_point drawn_;
    bool visible_ = false;
};

} // namespace lxrepo
