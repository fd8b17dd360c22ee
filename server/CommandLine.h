#pragma once

#include "ServerOptions.h"

#include <optional>

namespace lxrepo {

// Fills options from argv. Returns the exit code when the program should stop at once (--help,
// a usage error; the message is already printed), nullopt to go on.
std::optional<int> ParseCommandLine(int argc, char** argv, ServerOptions& options);

} // namespace lxrepo
