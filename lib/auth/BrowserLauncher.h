#pragma once

#include <string>

// Platform seam: one implementation file per platform, chosen by the build.

// Opens url in the user's default browser without waiting for it. False when no browser could
// be started.
bool OpenInDefaultBrowser(const std::wstring& url);
