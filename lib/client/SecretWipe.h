#pragma once

#include <cstddef>
#include <string>

// Overwrites the characters of a string that held a secret, in a way the optimiser may not drop
// as a dead store before the memory is freed or reused.
template <class Char> void WipeSecret(std::basic_string<Char>& secret) {
    volatile Char* p = secret.data();
    for (std::size_t i = 0; i < secret.size(); ++i) {
        p[i] = Char();
    }
}

inline void WipeSecretBytes(unsigned char* data, std::size_t size) {
    volatile unsigned char* p = data;
    for (std::size_t i = 0; i < size; ++i) {
        p[i] = 0;
    }
}

// Replaces a secret without leaving the old one behind in a buffer the string gives up.
template <class Char>
void ReplaceSecret(std::basic_string<Char>& target, const std::basic_string<Char>& value) {
    WipeSecret(target);
    target.clear();
    target.shrink_to_fit();
    target = value;
}
