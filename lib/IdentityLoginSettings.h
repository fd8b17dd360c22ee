#pragma once

// Process-wide settings of the identity-server login that the direct connection uses. Every
// function here is thread-safe; a login reads the settings once, when it starts.

#include "TableRepositoryImportExport.h"

/// Opens url in the user's browser; returns non-zero when it could start the browser.
typedef int (*TableRepositoryBrowserLauncher)(const wchar_t* url, void* context);

/// Replaces the launcher (nullptr restores the system default: xdg-open on Linux, ShellExecuteW on Windows).
extern "C" TRI_API void TableRepositorySetBrowserLauncher(TableRepositoryBrowserLauncher launcher,
                                                          void* context);

/// How long a login waits for the user (default 5 minutes); <= 0 restores the default.
extern "C" TRI_API void TableRepositorySetLoginTimeout(int milliseconds);
