#pragma once

#include <array>
#include <cstddef>
#include <string>

// Platform seam for the two primitives a login needs: OpenSSL on POSIX, BCrypt (CNG) on Windows,
// which ships with the system, so a Windows build needs no OpenSSL.

// Fills size bytes from the system's cryptographically secure generator; false when it cannot.
bool FillRandomBytes(unsigned char* data, std::size_t size);

// SHA-256 of text; throws std::runtime_error when the platform's hash fails.
std::array<unsigned char, 32> Sha256(const std::string& text);
