#include "client/PlainException.h"

// MSVC's std::exception keeps the message of the exception it is copied from.
void ThrowPlainException(const std::exception& original) { throw std::exception(original); }
