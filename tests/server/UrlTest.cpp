// The parsers of outside input in Url.h, over tables of cases.
#include <gtest/gtest.h>

#include "Url.h"

#include <optional>
#include <string>
#include <vector>

namespace {

using lxrepo::DecodePathSegments;
using lxrepo::ParseBaseUrl;
using lxrepo::ParseQuery;
using lxrepo::PercentDecode;

TEST(Url, PercentDecodingOfPathsAndQueries) {
    struct Case {
        const char* name;
        std::string path;
        std::optional<std::vector<std::string>> segments;
    };
    const Case cases[] = {
        {"plain words", "/Import/Tables", std::vector<std::string>{"Import", "Tables"}},
        {"blank, percent, question mark, number sign", "/a%20b/%25/%3F%23",
         std::vector<std::string>{"a b", "%", "?#"}},
        {"UTF-8 bytes", "/%C3%BC%E2%82%AC", std::vector<std::string>{"\xC3\xBC\xE2\x82\xAC"}},
        {"encoded slash stays inside its segment", "/x%2Fy/z",
         std::vector<std::string>{"x/y", "z"}},
        {"plus is not a blank in a path", "/a+b", std::vector<std::string>{"a+b"}},
        {"empty segments dropped", "//a///b/", std::vector<std::string>{"a", "b"}},
        {"escape cut short", "/a%2", std::nullopt},
        {"escape of non-hex digits", "/a%zz", std::nullopt},
        {"lone percent at the end", "/a%", std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(DecodePathSegments(c.path), c.segments) << "case: " << c.name;
    }

    const auto query = ParseQuery("lxclient=desk%2001&lxserver=http%3A%2F%2Fh%3A1&a+b=c+d&flag");
    ASSERT_TRUE(query);
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"lxclient", "desk 01"}, {"lxserver", "http://h:1"}, {"a b", "c d"}, {"flag", ""}};
    EXPECT_EQ(*query, expected);
    EXPECT_FALSE(ParseQuery("a=%G0"));
    EXPECT_EQ(PercentDecode("%41%42c"), std::optional<std::string>("ABc"));
}

TEST(Url, BaseUrlsCompareByOrigin) {
    struct Case {
        const char* name;
        const char* url;
        std::optional<std::string> origin;
        std::string path;
    };
    const Case cases[] = {
        {"host and port", "http://127.0.0.1:8080", "http://127.0.0.1:8080", ""},
        {"trailing slash and path", "http://127.0.0.1:8080/repo/", "http://127.0.0.1:8080",
         "/repo"},
        {"upper-case scheme and host", "HTTP://LocalHost:81", "http://localhost:81", ""},
        {"default port", "http://example.test", "http://example.test:80", ""},
        {"query dropped", "http://h:1/p?x=1", "http://h:1", "/p"},
        {"https is not spoken", "https://h:1", std::nullopt, ""},
        {"no host", "http://:80/", std::nullopt, ""},
        {"user information refused", "http://u@h:1", std::nullopt, ""},
        {"port not a number", "http://h:x", std::nullopt, ""},
        {"not a URL", "127.0.0.1:8080", std::nullopt, ""},
    };
    for (const auto& c : cases) {
        const auto url = ParseBaseUrl(c.url);
        EXPECT_EQ(url ? std::optional<std::string>(url->Origin()) : std::nullopt, c.origin)
            << "case: " << c.name;
        if (url) {
            EXPECT_EQ(url->path, c.path) << "case: " << c.name;
        }
    }
}

} // namespace
