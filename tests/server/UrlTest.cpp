// The parsers of outside input in Url.h, and the encoder of what the server sends on.
#include <gtest/gtest.h>

#include "Url.h"

#include <optional>
#include <string>
#include <vector>

namespace {

using Segments = std::optional<std::vector<std::string>>;

TEST(Url, PathSegmentsAreDecodedOneByOne) {
    const struct {
        const char* name;
        std::string path;
        Segments segments;
    } cases[] = {
        {"escapes of every kind", "/a%20b/%25/%3F%23%C3%BC", Segments({"a b", "%", "?#\xC3\xBC"})},
        {"encoded slash stays inside its segment", "/x%2Fy/z", Segments({"x/y", "z"})},
        {"plus is not a blank in a path", "/a+b", Segments({"a+b"})},
        {"empty segments dropped", "//a///b/", Segments({"a", "b"})},
        {"escape cut short", "/a%2", std::nullopt},
        {"escape of non-hex digits", "/a%zz", std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(lxrepo::DecodePathSegments(c.path), c.segments) << "case: " << c.name;
    }
    const std::vector<std::pair<std::string, std::string>> query = {
        {"lxclient", "desk 01"}, {"lxserver", "http://h:1"}, {"a b", "c d"}, {"flag", ""}};
    EXPECT_EQ(lxrepo::ParseQuery("lxclient=desk%2001&lxserver=http%3A%2F%2Fh%3A1&a+b=c+d&flag"),
              query);
    EXPECT_EQ(lxrepo::ParseQuery("a=%G0"), std::nullopt);
    // Unreserved characters stay, everything else is escaped, bytes of UTF-8 one by one.
    EXPECT_EQ(lxrepo::PercentEncode("aZ09-._~ /%\xC3\xBC"), "aZ09-._~%20%2F%25%C3%BC");
}

TEST(Url, BaseUrlsCompareByOrigin) {
    const struct {
        const char* url;
        std::optional<std::string> origin;
        std::string path;
    } cases[] = {
        {"http://127.0.0.1:8080/repo/", "http://127.0.0.1:8080", "/repo"},
        {"HTTP://LocalHost:81", "http://localhost:81", ""},
        {"http://example.test", "http://example.test:80", ""},
        {"http://h:1/p?x=1", "http://h:1", "/p"},
        {"https://h:1", std::nullopt, ""},
        {"http://:80/", std::nullopt, ""},
        {"http://u@h:1", std::nullopt, ""},
        {"http://h:x", std::nullopt, ""},
    };
    for (const auto& c : cases) {
        const auto url = lxrepo::ParseBaseUrl(c.url);
        EXPECT_EQ(url ? std::optional<std::string>(url->Origin()) : std::nullopt, c.origin)
            << "case: " << c.url;
        EXPECT_EQ(url ? url->path : "", c.path) << "case: " << c.url;
    }
}

} // namespace
