#include "ProgressBar.h"

#include <algorithm>

namespace lxrepo {

namespace {

constexpr int kBarWidth = 24;
constexpr auto kRedrawEvery = std::chrono::milliseconds(100);

std::string Duration(double seconds) {
    const long total = static_cast<long>(seconds + 0.5);
    char text[32];
    std::snprintf(text, sizeof text, "%ld:%02ld", total / 60, total % 60);
    return text;
}

} // namespace

ProgressBar::ProgressBar(bool enabled, std::FILE* out) : enabled_(enabled), out_(out) {}

void ProgressBar::Begin(const std::string& phase) {
    phase_ = phase;
    started_ = Clock::now();
    drawn_ = Clock::time_point{};
    Update(0, 0.0);
}

void ProgressBar::Update(long rows, double fraction) {
    if (!enabled_) {
        return;
    }
    const Clock::time_point now = Clock::now();
    if (now - drawn_ < kRedrawEvery && fraction < 1.0) {
        return;
    }
    drawn_ = now;
    fraction = std::clamp(fraction, 0.0, 1.0);
    const double seconds = std::chrono::duration<double>(now - started_).count();
    const double rate = seconds > 0 ? rows / seconds : 0;
    const std::string left =
        fraction > 0 ? Duration(seconds * (1 - fraction) / fraction) + " left" : "";
    const int filled = static_cast<int>(fraction * kBarWidth);
    std::fprintf(out_, "\r\033[K%-16s [%s%s] %3d%%  %ld rows  %.0f rows/s  %s", phase_.c_str(),
                 std::string(static_cast<std::size_t>(filled), '#').c_str(),
                 std::string(static_cast<std::size_t>(kBarWidth - filled), '-').c_str(),
                 static_cast<int>(fraction * 100), rows, rate, left.c_str());
    std::fflush(out_);
    visible_ = true;
}

void ProgressBar::Wait(const std::string& phase, const std::string& what) {
    phase_ = phase;
    if (!enabled_) {
        return;
    }
    std::fprintf(out_, "\r\033[K%-16s %s", phase_.c_str(), what.c_str());
    std::fflush(out_);
    visible_ = true;
}

void ProgressBar::Clear() {
    if (visible_) {
        std::fprintf(out_, "\r\033[K");
        std::fflush(out_);
        visible_ = false;
    }
}

} // namespace lxrepo
