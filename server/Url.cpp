#include "Url.h"

#include <algorithm>
#include <cctype>

namespace lxrepo {

namespace {

int HexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

std::string Lower(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return result;
}

} // namespace

std::optional<std::string> PercentDecode(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            result.push_back(text[i]);
            continue;
        }
        if (i + 2 >= text.size()) {
            return std::nullopt;
        }
        const int high = HexValue(text[i + 1]);
        const int low = HexValue(text[i + 2]);
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        result.push_back(static_cast<char>(high * 16 + low));
        i += 2;
    }
    return result;
}

std::string PercentEncode(std::string_view text) {
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string result;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (std::isalnum(byte) || c == '-' || c == '.' || c == '_' || c == '~') {
            result.push_back(c);
        } else {
            result.push_back('%');
            result.push_back(digits[byte >> 4]);
            result.push_back(digits[byte & 0xF]);
        }
    }
    return result;
}

std::optional<std::vector<std::string>> DecodePathSegments(std::string_view path) {
    std::vector<std::string> segments;
    std::size_t start = 0;
    while (start <= path.size()) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        if (end > start) {
            auto segment = PercentDecode(path.substr(start, end - start));
            if (!segment) {
                return std::nullopt;
            }
            segments.push_back(std::move(*segment));
        }
        start = end + 1;
    }
    return segments;
}

Target SplitTarget(std::string_view target) {
    const std::size_t question = target.find('?');
    if (question == std::string_view::npos) {
        return {std::string(target), {}};
    }
    return {std::string(target.substr(0, question)), std::string(target.substr(question + 1))};
}

std::optional<std::vector<std::pair<std::string, std::string>>> ParseQuery(std::string_view query) {
    std::vector<std::pair<std::string, std::string>> parameters;
    std::size_t start = 0;
    while (start < query.size()) {
        const std::size_t end = std::min(query.find('&', start), query.size());
        std::string piece(query.substr(start, end - start));
        start = end + 1;
        if (piece.empty()) {
            continue;
        }
        std::replace(piece.begin(), piece.end(), '+', ' ');
        const std::size_t equals = piece.find('=');
        auto name = PercentDecode(std::string_view(piece).substr(0, equals));
        auto value = equals == std::string::npos
                         ? std::optional<std::string>("")
                         : PercentDecode(std::string_view(piece).substr(equals + 1));
        if (!name || !value) {
            return std::nullopt;
        }
        parameters.emplace_back(std::move(*name), std::move(*value));
    }
    return parameters;
}

std::string BaseUrl::Origin() const {
    return (secure ? "https://" : "http://") + Lower(host) + ":" + port;
}

std::optional<BaseUrl> ParseBaseUrl(std::string_view url) {
    BaseUrl result;
    const std::size_t schemeEnd = url.find("://");
    const std::string scheme = Lower(url.substr(0, schemeEnd));
    if (schemeEnd == std::string_view::npos || (scheme != "http" && scheme != "https")) {
        return std::nullopt;
    }
    result.secure = scheme == "https";
    url.remove_prefix(schemeEnd + 3);
    url = url.substr(0, url.find_first_of("?#"));
    const std::size_t slash = std::min(url.find('/'), url.size());
    const std::string_view authority = url.substr(0, slash);
    std::string path(url.substr(slash));
    while (!path.empty() && path.back() == '/') {
        path.pop_back();
    }
    if (authority.empty() || authority.find('@') != std::string_view::npos) {
        return std::nullopt;
    }
    // A bracketed IPv6 literal keeps its colons; the port follows the bracket.
    const std::size_t bracket = authority.rfind(']');
    const std::size_t colon = authority.rfind(':');
    if (colon != std::string_view::npos && (bracket == std::string_view::npos || colon > bracket)) {
        result.host = std::string(authority.substr(0, colon));
        result.port = std::string(authority.substr(colon + 1));
        if (result.port.empty() ||
            !std::all_of(result.port.begin(), result.port.end(),
                         [](unsigned char c) { return std::isdigit(c) != 0; })) {
            return std::nullopt;
        }
    } else {
        result.host = std::string(authority);
        result.port = result.secure ? "443" : "80";
    }
    if (result.host.empty()) {
        return std::nullopt;
    }
    result.path = std::move(path);
    return result;
}

} // namespace lxrepo
