// Which "version" texts of the authentication proxy name a proxy that serves the connection.
// gtest first: cpprestsdk defines a macro U that gtest's headers use as a template parameter.
#include <gtest/gtest.h>

#include "connection/VersionJudgement.h"

namespace {

TEST(VersionJudgement, OnlyTheDigitsAtPositions0And14And16Decide) {
    struct Case {
        const char* name;
        const wchar_t* version;
        bool served;
    };
    const Case cases[] = {
        {"the first proxy-served version", L"1.0.0-lxproxy-2.1", true},
        {"larger digits everywhere", L"9.9.9-lxproxy-9.9", true},
        {"only the first digit of a longer number at 16 counts", L"1.0.0-lxproxy-2.12", true},
        {"other characters between the positions", L"1a0bcdefghijkl2m1", true},
        {"minor digit is not a digit: reads as 0, which is enough", L"1.x.0-lxproxy-2.1", true},
        {"embedded second number 0", L"1.0.0-lxproxy-2.0", false},
        {"embedded first number 1", L"1.0.0-lxproxy-1.9", false},
        {"dotted major 0 whatever the embedded numbers", L"0.9.9-lxproxy-9.9", false},
        {"a sign reads as 0", L"-1.0.0-lxproxy-2.1", false},
        {"a two-digit embedded number shifts position 16", L"1.0.0-lxproxy-12.1", false},
        {"16 characters: position 16 is past the end", L"1.0.0-lxproxy-2.", false},
        {"a plain 2 version", L"2.0.0", false},
        {"empty", L"", false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(IsServedThroughProxy(CString(c.version)), c.served) << "case: " << c.name;
    }
}

} // namespace
