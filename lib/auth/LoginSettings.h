#pragma once

#include <chrono>
#include <string>

// The library's side of IdentityLoginSettings.h.

// Opens the login page through the host's launcher, or the system's browser when none is set.
// False when the browser could not be started.
bool OpenLoginPage(const std::wstring& url);

// How long a login waits for the browser to come back.
std::chrono::milliseconds LoginTimeout();
