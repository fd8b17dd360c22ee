#include "auth/BrowserLauncher.h"

#include <windows.h>

#include <shellapi.h>

bool OpenInDefaultBrowser(const std::wstring& url) {
    const HINSTANCE outcome =
        ShellExecuteW(nullptr, L"open", url.c_str(), nullptr, nullptr, SW_SHOWNORMAL);
    // ShellExecuteW reports success as a value above 32 dressed up as an HINSTANCE.
    return reinterpret_cast<INT_PTR>(outcome) > 32;
}
