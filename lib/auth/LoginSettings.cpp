#include "IdentityLoginSettings.h"
#include "auth/BrowserLauncher.h"
#include "auth/LoginSettings.h"

#include <mutex>

namespace {

constexpr std::chrono::milliseconds kDefaultLoginTimeout = std::chrono::minutes(5);

struct LoginSettings {
    std::mutex mutex;
    TableRepositoryBrowserLauncher launcher = nullptr;
    void* launcherContext = nullptr;
    std::chrono::milliseconds timeout = kDefaultLoginTimeout;
};

LoginSettings& Settings() {
    static LoginSettings settings;
    return settings;
}

} // namespace

extern "C" void TableRepositorySetBrowserLauncher(TableRepositoryBrowserLauncher launcher,
                                                  void* context) {
    LoginSettings& settings = Settings();
    const std::lock_guard<std::mutex> lock(settings.mutex);
    settings.launcher = launcher;
    settings.launcherContext = launcher ? context : nullptr;
}

extern "C" void TableRepositorySetLoginTimeout(int milliseconds) {
    LoginSettings& settings = Settings();
    const std::lock_guard<std::mutex> lock(settings.mutex);
    settings.timeout =
        milliseconds > 0 ? std::chrono::milliseconds(milliseconds) : kDefaultLoginTimeout;
}

bool OpenLoginPage(const std::wstring& url) {
    TableRepositoryBrowserLauncher launcher;
    void* context;
    {
        LoginSettings& settings = Settings();
        const std::lock_guard<std::mutex> lock(settings.mutex);
        launcher = settings.launcher;
        context = settings.launcherContext;
    }
    // Called outside the lock: a launcher may take its time, or change the settings itself.
    return launcher ? launcher(url.c_str(), context) != 0 : OpenInDefaultBrowser(url);
}

std::chrono::milliseconds LoginTimeout() {
    LoginSettings& settings = Settings();
    const std::lock_guard<std::mutex> lock(settings.mutex);
    return settings.timeout;
}
