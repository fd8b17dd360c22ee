#pragma once

#include <cstddef>
#include <string>

// Proof Key for Code Exchange (RFC 7636) and the random texts of a login.

// Base64url of bytes without '=' padding (RFC 7636 appendix A).
std::string Base64UrlWithoutPadding(const unsigned char* data, std::size_t size);

// byteCount bytes from the system's CSPRNG as base64url text; throws std::runtime_error when the
// generator cannot deliver.
std::string RandomUrlSafeText(std::size_t byteCount);

// The S256 challenge of a code verifier: base64url(SHA-256(verifier)).
std::string CodeChallengeS256(const std::string& verifier);
