#include "auth/BrowserLauncher.h"
#include "client/TextConversion.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Past this many descriptors a process is not a desktop host; it keeps the loop below short.
constexpr rlim_t kDescriptorScanLimit = 1 << 16;

int DescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY ||
        limit.rlim_cur > kDescriptorScanLimit) {
        return static_cast<int>(kDescriptorScanLimit);
    }
    return static_cast<int>(limit.rlim_cur);
}

// Neither Boost.Asio nor cpprestsdk opens its sockets close-on-exec. A browser that inherited
// the login's loopback listener would keep its port taken for as long as it runs.
void CloseInheritedDescriptors(int keep, int limit) {
    for (int fd = 3; fd < limit; ++fd) {
        if (fd != keep) {
            close(fd);
        }
    }
}

void ReportAndExit(int reportFd, int error) {
    (void)!write(reportFd, &error, sizeof error);
    _exit(127);
}

// Runs in a child of the host: only async-signal-safe calls from here on. The middle process
// exits at once, so the browser is nobody's zombie and the host never waits for it.
[[noreturn]] void LaunchDetached(char* const argv[], int reportFd, int descriptorLimit) {
    const pid_t browser = fork();
    if (browser < 0) {
        ReportAndExit(reportFd, errno);
    }
    if (browser == 0) {
        setsid();
        CloseInheritedDescriptors(reportFd, descriptorLimit);
        execvp(argv[0], argv);
        ReportAndExit(reportFd, errno);
    }
    _exit(0);
}

} // namespace

bool OpenInDefaultBrowser(const std::wstring& url) {
    std::string utf8Url = ToUtf8(url);
    char program[] = "xdg-open";
    char* const argv[] = {program, utf8Url.data(), nullptr};
    const int descriptorLimit = DescriptorLimit();

    // The pipe's write end closes on a successful exec; a failed one writes its errno first.
    int report[2];
    if (pipe(report) != 0) {
        return false;
    }
    fcntl(report[1], F_SETFD, FD_CLOEXEC);
    const pid_t middle = fork();
    if (middle == 0) {
        close(report[0]);
        LaunchDetached(argv, report[1], descriptorLimit);
    }
    close(report[1]);
    if (middle > 0) {
        int status = 0;
        while (waitpid(middle, &status, 0) < 0 && errno == EINTR) {
        }
    }
    int execError = 0;
    ssize_t got;
    while ((got = read(report[0], &execError, sizeof execError)) < 0 && errno == EINTR) {
    }
    close(report[0]);
    return middle > 0 && got == 0;
}
