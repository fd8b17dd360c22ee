#pragma once

#include <map>
#include <string>

// application/x-www-form-urlencoded, the encoding of a token request's body and of the query
// that an identity server redirects the browser with.

// Appends text percent-encoded: every byte but letters, digits and "-._~".
void AppendFormEncoded(std::string& out, const std::string& text);

// Appends "name=value" (with '&' when body is not empty), both percent-encoded.
void AppendFormField(std::string& body, const std::string& name, const std::string& value);

// Fields of an encoded form or query ('+' is a space). The first of repeated names wins.
std::map<std::string, std::string> ParseFormFields(const std::string& encoded);
