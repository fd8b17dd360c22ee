#pragma once

#include <cpprest/details/basic_types.h>

#include <string>

// The claims by which an ID token (OpenID Connect Core 1.0 section 3.1.3.7) belongs to a login.

// Borrowed from the login that expects them.
struct IdTokenExpectations {
    const utility::string_t& issuer; // as discovery named it
    const std::string& clientId;
    const std::string& nonce; // sent with the authorization request
};

// Checks iss, aud, exp (with a few minutes of clock skew) and nonce, in this order. Throws
// IdentityServerRefusal naming the first claim that fails, or saying the token cannot be read.
void CheckIdTokenClaims(const utility::string_t& idToken, const IdTokenExpectations& expected);
