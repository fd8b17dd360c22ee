#include "client/PlainException.h"

#include <string>

namespace {

// libstdc++'s std::exception cannot carry a message, so this final class adds only that; it is
// not declared anywhere a host could name it.
class PlainException final : public std::exception {
public:
    explicit PlainException(const char* message) : m_message(message) {}
    const char* what() const noexcept override { return m_message.c_str(); }

private:
    std::string m_message;
};

} // namespace

void ThrowPlainException(const std::exception& original) { throw PlainException(original.what()); }
