// Standard base64 (RFC 4648, '=' padding) for NTLM tokens and HTTP Basic credentials.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace lxrepo {

std::string EncodeBase64(std::string_view bytes);
// Strict: nullopt for a wrong length, a foreign character or misplaced padding.
std::optional<std::string> DecodeBase64(std::string_view text);

} // namespace lxrepo
