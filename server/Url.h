// Pieces of request targets and base URLs, as the service and the proxy need them.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace lxrepo {

// Decodes %XX escapes; nullopt for a broken escape. '+' stays '+' (path rules).
std::optional<std::string> PercentDecode(std::string_view text);

// Encodes every byte outside the unreserved set (RFC 3986 ALPHA DIGIT - . _ ~).
std::string PercentEncode(std::string_view text);

// "/a/b%20c/" -> {"a", "b c"}: split on '/' first, then decode, so "%2F" stays inside a
// segment. Empty segments are dropped. nullopt for a broken escape.
std::optional<std::vector<std::string>> DecodePathSegments(std::string_view path);

struct Target {
    std::string path;  // raw, still encoded
    std::string query; // raw, without '?'
};
Target SplitTarget(std::string_view target);

// Query parameters in order, names and values decoded ('+' is a blank here, as in forms).
// nullopt for a broken escape.
std::optional<std::vector<std::pair<std::string, std::string>>> ParseQuery(std::string_view query);

// An http:// or https:// base address split up.
struct BaseUrl {
    bool secure = false; // https
    std::string host;
    std::string port; // defaulted to 80 or 443
    std::string path; // "" or "/..." without a trailing slash
    // "http://host:port", lower case, default port spelled out: the form allow-lists compare.
    std::string Origin() const;
};
// nullopt for anything but an http:// or https:// address with a host.
std::optional<BaseUrl> ParseBaseUrl(std::string_view url);

} // namespace lxrepo
