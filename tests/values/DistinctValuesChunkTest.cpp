// ImportDistinctValuesChunk: what the host's CDistinctValues is asked, on which thread, and the
// body that reaches the service.
#include <gtest/gtest.h>

#include "values/HostRecords.h"

#include "support/ConnectedClient.h"
#include "support/RecordingServer.h"

#include <map>
#include <string>
#include <thread>
#include <vector>

using testsupport::ConnectedClient;
using testsupport::RecordedRequest;
using testsupport::RecordingServer;
using namespace valuestest;

namespace {

struct ChunkCase {
    const char* name;
    std::map<int, std::string> texts;
    long first;
    long last;
    int copyMode;
    std::vector<std::string> calls;
    std::string body;
};

const ChunkCase kChunkCases[] = {
    {"values by pointer", {{0, "red"}, {1, "42"}, {2, "Z\xc3\xbcrich"}}, 0, 3, 0,
     {"Prepare", "GetValue(0)", "GetValue(1)", "GetValue(2)"},
     "[\"red\",\"42\",\"Z\xc3\xbcrich\"]"},
    {"values copied", {{0, "red"}, {1, "42"}, {2, "Z\xc3\xbcrich"}}, 0, 3, 1,
     {"Prepare", "CopyValue(0)", "CopyValue(1)", "CopyValue(2)"},
     "[\"red\",\"42\",\"Z\xc3\xbcrich\"]"},
    {"any non-zero copy mode copies", {{7, "x"}}, 7, 8, -5, {"Prepare", "CopyValue(7)"}, "[\"x\"]"},
    {"numbers and literals stay text", {{0, "-1.5"}, {1, "true"}, {2, "null"}}, 0, 3, 0,
     {"Prepare", "GetValue(0)", "GetValue(1)", "GetValue(2)"},
     "[\"-1.5\",\"true\",\"null\"]"},
    {"quotes and control characters escaped", {{0, "say \"hi\"\\\n"}}, 0, 1, 0,
     {"Prepare", "GetValue(0)"}, "[\"say \\\"hi\\\"\\\\\\n\"]"},
    {"range offset: position, not index", {{10, "a"}, {11, "b"}}, 10, 12, 0,
     {"Prepare", "GetValue(10)", "GetValue(11)"}, "[\"a\",\"b\"]"},
    {"negative first passed as it is", {{-2, "m2"}, {-1, "m1"}, {0, "z"}}, -2, 1, 1,
     {"Prepare", "CopyValue(-2)", "CopyValue(-1)", "CopyValue(0)"}, "[\"m2\",\"m1\",\"z\"]"},
    {"empty range still prepares", {{0, "never"}}, 4, 4, 0, {"Prepare"}, "[]"},
    {"reversed range still prepares", {{0, "never"}}, 5, 2, 1, {"Prepare"}, "[]"},
    {"copy that writes nothing is the empty text", {{0, "a"}, {2, "c"}}, 0, 3, 1,
     {"Prepare", "CopyValue(0)", "CopyValue(1)", "CopyValue(2)"}, "[\"a\",\"\",\"c\"]"},
    {"empty text by pointer", {{0, ""}}, 0, 1, 0, {"Prepare", "GetValue(0)"}, "[\"\"]"},
};

class DistinctValuesChunk : public ::testing::Test {
protected:
    RecordingServer service;
    EventClock clock;
};

TEST_F(DistinctValuesChunk, SendsTheRangeAsJsonStringsInIndexOrderAfterOnePrepare) {
    ConnectedClient client(service.BaseUrl());
    for (const ChunkCase& c : kChunkCases) {
        service.Clear();
        HostLog log(clock);
        FakeDistinctValues values(log, c.texts);
        EXPECT_EQ(client->ImportDistinctValuesChunk(L"Sales", L"Colour", c.first, c.last, &values,
                                                    c.copyMode),
                  1)
            << "case: " << c.name;
        EXPECT_EQ(log.Names(), c.calls) << "case: " << c.name;
        EXPECT_TRUE(values.clearedBeforeCopy) << "case: " << c.name;
        const auto requests = service.Requests();
        ASSERT_EQ(requests.size(), 1u) << "case: " << c.name;
        EXPECT_EQ(requests[0].target, "/Import/Tables/Sales/DistinctValues/Colour") << "case: " << c.name;
        EXPECT_EQ(requests[0].body, c.body) << "case: " << c.name;
        EXPECT_EQ(requests[0].HeaderValue("Content-Type").value_or("<none>"), "application/json")
            << "case: " << c.name;
    }
}

TEST_F(DistinctValuesChunk, CopyBufferHoldsTheLongestValueTheHostMayWrite) {
    ConnectedClient client(service.BaseUrl());
    const std::string longest(9999, 'w');
    HostLog log(clock);
    FakeDistinctValues values(log, {{0, "short"}, {1, longest}, {2, "s"}});
    EXPECT_EQ(client->ImportDistinctValuesChunk(L"T", L"A", 0, 3, &values, 1), 1);
    ASSERT_EQ(service.Requests().size(), 1u);
    EXPECT_EQ(service.Requests()[0].body, "[\"short\",\"" + longest + "\",\"s\"]");
}

TEST_F(DistinctValuesChunk, CallsTheHostOnTheCallersThread) {
    ConnectedClient client(service.BaseUrl());
    for (int copyMode : {0, 1}) {
        HostLog log(clock);
        FakeDistinctValues values(log, {{0, "a"}, {1, "b"}});
        client->ImportDistinctValuesChunk(L"T", L"A", 0, 2, &values, copyMode);
        const auto calls = log.Calls();
        ASSERT_EQ(calls.size(), 3u) << "case: copy mode " << copyMode;
        for (const HostCall& call : calls) {
            EXPECT_EQ(call.thread, std::this_thread::get_id())
                << "case: copy mode " << copyMode << ", " << call.what;
        }
    }
}

// Nothing is caught here: the host gets its own exception back, and the copy buffer is not lost
// on the way (LeakSanitizer watches that in the sanitizer build).
TEST_F(DistinctValuesChunk, HostExceptionsPassUnchangedAndNothingIsSent) {
    const struct {
        const char* failOn;
        int copyMode;
    } cases[] = {{"Prepare", 1}, {"GetValue(1)", 0}, {"CopyValue(0)", 1}, {"CopyValue(2)", 1}};
    ConnectedClient client(service.BaseUrl());
    for (const auto& c : cases) {
        HostLog log(clock);
        log.failOn = c.failOn;
        FakeDistinctValues values(log, {{0, "a"}, {1, "b"}, {2, "c"}});
        const Caught caught = CatchFrom(
            [&] { client->ImportDistinctValuesChunk(L"T", L"A", 0, 3, &values, c.copyMode); });
        EXPECT_EQ(caught.type, "std::runtime_error") << "case: " << c.failOn;
        EXPECT_EQ(caught.message, "boom") << "case: " << c.failOn;
        EXPECT_EQ(log.Names().back(), c.failOn) << "case: " << c.failOn;
    }
    EXPECT_TRUE(service.Requests().empty());
}

TEST_F(DistinctValuesChunk, TransportFailureReachesTheHostAsTheHttpLibrarysException) {
    const std::string unreachable = UnreachableServiceUrl();
    ConnectedClient client(unreachable);
    HostLog log(clock);
    FakeDistinctValues values(log, {{0, "a"}});
    const Caught caught =
        CatchFrom([&] { client->ImportDistinctValuesChunk(L"T", L"A", 0, 1, &values, 0); });
    EXPECT_EQ(caught.type, "web::http::http_exception");
    EXPECT_EQ(caught.message, TransportFailureMessage(unreachable + "/Import/Tables/T/DistinctValues/A"));
    EXPECT_EQ(log.Names(), (std::vector<std::string>{"Prepare", "GetValue(0)"}));
}

} // namespace
