#pragma once

#include <exception>

// Rethrows a failure as the plain standard exception with the same message, so that the host
// catches std::exception and cannot tell the original type apart.
[[noreturn]] void ThrowPlainException(const std::exception& original);
