// The parsers of outside input in Url.h, and the encoder of what the server sends on.
#include <gtest/gtest.h>

#include "Url.h"

#include <optional>
#include <string>
#include <vector>

namespace {

using Segments = std::optional<std::vector<std::string>>;

TEST(Url, PathsQueriesAndBaseUrlsAreReadAsSent) {
    const struct {
        const char* path;
        Segments segments;
    } paths[] = {
        {"/a%20b/%25/%3F%23%C3%BC", Segments({"a b", "%", "?#\xC3\xBC"})},
        {"/x%2Fy/a+b", Segments({"x/y", "a+b"})}, // an encoded slash stays in its segment
        {"/a%2", std::nullopt},
        {"/a%zz", std::nullopt},
    };
    for (const auto& c : paths) {
        EXPECT_EQ(lxrepo::DecodePathSegments(c.path), c.segments) << "case: " << c.path;
    }
    const std::vector<std::pair<std::string, std::string>> query = {
        {"lxclient", "desk 01"}, {"lxserver", "http://h:1"}, {"a b", "c d"}, {"flag", ""}};
    EXPECT_EQ(lxrepo::ParseQuery("lxclient=desk%2001&lxserver=http%3A%2F%2Fh%3A1&a+b=c+d&flag"),
              query);
    EXPECT_EQ(lxrepo::ParseQuery("a=%G0"), std::nullopt);
    // Unreserved characters stay, everything else is escaped, bytes of UTF-8 one by one.
    EXPECT_EQ(lxrepo::PercentEncode("aZ09-._~ /%\xC3\xBC"), "aZ09-._~%20%2F%25%C3%BC");

    const struct {
        const char* url;
        const char* read; // origin and path, "" for a refused URL
    } urls[] = {
        {"http://127.0.0.1:8080/repo/", "http://127.0.0.1:8080 /repo"},
        {"HTTP://LocalHost:81", "http://localhost:81 "},
        {"http://example.test", "http://example.test:80 "},
        {"http://h:1/p?x=1", "http://h:1 /p"},
        {"HTTPS://example.test/", "https://example.test:443 "},
        {"ftp://h:1", ""},
        {"http://:80/", ""},
        {"http://u@h:1", ""},
        {"http://h:x", ""},
    };
    for (const auto& c : urls) {
        const auto url = lxrepo::ParseBaseUrl(c.url);
        EXPECT_EQ(url ? url->Origin() + " " + url->path : "", c.read) << "case: " << c.url;
    }
}

} // namespace
