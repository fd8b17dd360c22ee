// Which "version" texts of the authentication proxy name a proxy that serves the connection.
// gtest first: cpprestsdk defines a macro U that gtest's headers use as a template parameter.
#include <gtest/gtest.h>

#include "connection/VersionJudgement.h"

namespace {

struct Case {
    const char* name;
    const wchar_t* version;
    bool served;
};

// Positions 0, 2, 14 and 16 decide; everything else in the text is ignored.
const Case kCases[] = {
    {"the first proxy-served version", L"1.0.0-lxproxy-2.1", true},
    {"larger digits everywhere", L"9.9.9-lxproxy-9.9", true},
    {"a longer tail after position 16", L"1.0.0-lxproxy-2.1-beta", true},
    {"only the first digit of a longer number at 16 counts", L"1.0.0-lxproxy-2.12", true},
    {"other characters between the positions", L"1a0bcdefghijkl2m1", true},
    {"patch is not judged", L"1.0.x-lxproxy-2.1", true},
    {"minor digit is not a digit: reads as 0, which is enough", L"1.x.0-lxproxy-2.1", true},
    {"embedded second number 0", L"1.0.0-lxproxy-2.0", false},
    {"embedded first number 1", L"1.0.0-lxproxy-1.9", false},
    {"dotted major 0", L"0.0.0-lxproxy-2.1", false},
    {"dotted major 0 whatever the embedded numbers", L"0.9.9-lxproxy-9.9", false},
    {"dotted major not a digit", L"v.0.0-lxproxy-2.1", false},
    {"a sign reads as 0", L"-1.0.0-lxproxy-2.1", false},
    {"a two-digit major shifts every later position", L"12.0.0-lxproxy-2.1", false},
    {"a two-digit embedded number shifts position 16", L"1.0.0-lxproxy-12.1", false},
    {"embedded number without its dot", L"1.0.0-lxproxy-21", false},
    {"embedded numbers not digits", L"1.0.0-lxproxy-a.b", false},
    {"a blank at position 16", L"1.0.0-lxproxy-2. ", false},
    {"16 characters: position 16 is past the end", L"1.0.0-lxproxy-2.", false},
    {"short dotted version", L"1.0.0", false},
    {"a plain 2 version", L"2.0.0", false},
    {"single character", L"1", false},
    {"empty", L"", false},
};

TEST(VersionJudgement, OnlyTheDigitsAtTheirPositionsDecide) {
    for (const Case& c : kCases) {
        EXPECT_EQ(IsServedThroughProxy(CString(c.version)), c.served) << "case: " << c.name;
    }
}

} // namespace
