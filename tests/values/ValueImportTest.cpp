// The value import as the host drives it: what its records are asked, on which thread, the
// bodies that reach the service, what becomes of the host's own exceptions, and where the list
// operations stop. These run under ThreadSanitizer too: the value ids are read on a worker thread.
// gtest first: cpprestsdk defines a macro U that gtest's headers use as a template parameter.
#include <gtest/gtest.h>

#include "client/PlainException.h"
#include "support/ConnectedClient.h"
#include "support/HostRecords.h"
#include "support/Thrown.h"

#include <algorithm>
#include <climits>
#include <set>
#include <string>
#include <thread>
#include <vector>

using namespace testsupport;

namespace {

std::vector<std::string> Bodies(const RecordingServer& server) {
    std::vector<std::string> bodies;
    for (const RecordedRequest& r : server.Requests()) {
        bodies.push_back(r.body);
    }
    return bodies;
}

// One column of values for every case: ranges of it by pointer and copied, into a buffer that
// must hold the longest value and is cleared for a value that writes nothing.
TEST(ValueImport, DistinctValuesGoOutAsJsonStringsInIndexOrderAfterOnePrepare) {
    const std::string longest(9999, 'w');
    const std::vector<std::string> values = {"red",           "-1.5", "null", "say \"hi\"\\\n",
                                             "Z\xc3\xbcrich", "",     longest};
    const struct {
        const char* name;
        long first, last;
        int mode; // the copy mode
        std::string body;
    } cases[] = {
        {"by pointer: numbers, literals and escapes stay text", 0, 5, 0,
         R"(["red","-1.5","null","say \"hi\"\\\n","Zürich"])"},
        {"copied with any non-zero mode, from the middle; writing nothing is the empty text", 4, 6,
         -5, R"(["Zürich",""])"},
        {"the copy buffer holds the longest value", 5, 7, 1, R"(["",")" + longest + "\"]"},
        {"a reversed range still prepares", 5, 2, 1, "[]"},
    };
    RecordingServer service;
    ConnectedClient client(service.BaseUrl());
    for (const auto& c : cases) {
        service.Clear();
        HostTable host({{"", values, {}}});
        client->ImportDistinctValuesChunk(L"T", L"A", c.first, c.last, host.DistinctValues(0),
                                          c.mode);
        std::vector<std::string> calls = {"Prepare"};
        for (long index = c.first; index < c.last; ++index) {
            calls.push_back((c.mode ? "CopyValue(" : "GetValue(") + std::to_string(index) + ")");
        }
        EXPECT_EQ(host.log.Names(), calls) << "case: " << c.name;
        EXPECT_EQ(host.log.Threads(), std::set{std::this_thread::get_id()}) << "case: " << c.name;
        EXPECT_EQ(Bodies(service), std::vector{c.body}) << "case: " << c.name;
    }
}

// The caller is parked while one worker thread reads the host's records, row by row across the
// attributes, asking for the reader each time, before anything is sent (the walks' table shows
// that a failed read sends nothing). Each attribute's column then goes out in row order, a
// reversed range as an empty column.
TEST(ValueImport, ValueIdsAreReadOnOneWorkerThreadThenSentColumnByColumn) {
    HostTable host(
        {{"a", {}, {10, 11, 12}}, {"b", {}, {-1, -2, -3}}, {"c", {}, {INT_MIN, 0, INT_MAX}}});
    RecordingServer service;
    ConnectedClient client(service.BaseUrl());
    ASSERT_EQ(client->ImportValueIdsChunk(L"T", 1, 3, host.Attributes(), 0), 1);
    EXPECT_EQ(host.log.Names(),
              (std::vector<std::string>{"GetValueIds(a)", "GetValueId(a,1)", "GetValueIds(b)",
                                        "GetValueId(b,1)", "GetValueIds(c)", "GetValueId(c,1)",
                                        "GetValueIds(a)", "GetValueId(a,2)", "GetValueIds(b)",
                                        "GetValueId(b,2)", "GetValueIds(c)", "GetValueId(c,2)",
                                        "GetName(a)", "GetName(b)", "GetName(c)"}));
    EXPECT_EQ(host.log.Threads().size(), 1u);
    EXPECT_EQ(host.log.Threads().count(std::this_thread::get_id()), 0u);
    EXPECT_EQ(Bodies(service), (std::vector<std::string>{"[11,12]", "[-2,-3]", "[0,2147483647]"}));
    service.Clear();
    ASSERT_EQ(client->ImportValueIdsChunk(L"T", 9, 2, host.Attributes(), 0), 1);
    EXPECT_EQ(Bodies(service), (std::vector<std::string>(3, "[]")));
}

// Bodies of several MiB leave in larger transfer chunks than small ones, and each column's text
// is written where the one before it was; the second column's is the shorter, so a stale length
// or a leftover tail would show. Through the proxy the pipeline makes a second client.
TEST(ValueImport, LargeValueIdColumnsArriveByteForByte) {
    std::vector<Column> columns = {{"a", {}, {}}, {"b", {}, {}}};
    std::vector<std::string> expected(2);
    for (int k = 0; k < 2; ++k) {
        for (int row = 0; row < 300000; ++row) {
            const int id = int((row * 7919LL + k) % (k == 0 ? 2000003 : 200003)) - 100001;
            columns[k].ids.push_back(id);
            expected[k] += (row == 0 ? "[" : ",") + std::to_string(id);
        }
        expected[k] += "]";
    }
    HostTable host(columns);
    RecordingServer service;
    for (const ConnectedBy by : {ConnectedBy::Plain, ConnectedBy::Proxy}) {
        ConnectedClient client(service.BaseUrl(), by);
        ASSERT_EQ(client->ImportValueIdsChunk(L"t", 0, 300000, host.Attributes(), 0), 1);
        const RecordingServer& receiver = by == ConnectedBy::Proxy ? client.Proxy() : service;
        EXPECT_TRUE(Bodies(receiver) == expected)
            << "case: " << (by == ConnectedBy::Proxy ? "through the proxy" : "direct");
    }
}

using Drive = int (*)(CTableRepositoryImport&, HostTable&);

const Drive kBegin = [](auto& c, auto& h) { return c.BeginImportValueIds(L"T", h.Attributes()); };
const Drive kEnd = [](auto& c, auto& h) { return c.EndImportValueIds(L"T", h.Attributes()); };
const Drive kChunk = [](auto& c, auto& h) {
    return c.ImportValueIdsChunk(L"T", 0, 2, h.Attributes(), 0);
};
// The same values by pointer, then copied.
const Drive kValues = [](auto& c, auto& h) {
    return c.ImportDistinctValuesChunk(L"T", L"a", 0, 2, h.DistinctValues(0), 0) +
           c.ImportDistinctValuesChunk(L"T", L"a", 0, 2, h.DistinctValues(0), 1);
};

// A walk over the host's list stops at the first attribute the service refuses, or at the host's
// own exception; what was sent before stays sent and nothing after it is asked for. The value-id
// chunk flattens the host's exception to a plain std::exception; every other operation hands it
// back unchanged, and the distinct values' copy buffer is not lost on the way (LeakSanitizer
// watches that).
TEST(ValueImport, OperationsStopAtARefusalOrTheHostsException) {
    const Thrown boom = Expected<std::runtime_error>("boom");
    const Thrown flattened = ThrownBy([] { ThrowPlainException(std::runtime_error("boom")); });
    const struct {
        const char* name;
        Drive drive;
        const char* failOn;
        Thrown thrown;
        std::size_t requests;
    } cases[] = {
        {"BeginImportValueIds refused", kBegin, "", kNothing, 2},
        {"EndImportValueIds refused", kEnd, "", kNothing, 2},
        {"ImportValueIdsChunk refused", kChunk, "", kNothing, 2},
        {"BeginImportValueIds, a name", kBegin, "GetName(b)", boom, 1},
        {"EndImportValueIds, a name", kEnd, "GetName(b)", boom, 1},
        {"ImportValueIdsChunk, an id", kChunk, "GetValueId(c,1)", flattened, 0},
        {"ImportValueIdsChunk, a name", kChunk, "GetName(b)", flattened, 1},
        {"ImportDistinctValuesChunk by pointer", kValues, "GetValue(1)", boom, 0},
        {"ImportDistinctValuesChunk copied", kValues, "CopyValue(1)", boom, 1},
    };
    RecordingServer service;
    ConnectedClient client(service.BaseUrl());
    for (const auto& c : cases) {
        service.Clear();
        service.Enqueue({200, {}, "", false, {}});
        // From the second request on, refused in the rows where the host does not throw.
        service.SetDefault({*c.failOn ? 200 : 201, {}, "", false, {}});
        HostTable host({{"a", {"x", "y"}, {1, 2}}, {"b", {}, {1, 2}}, {"c", {}, {1, 2}}});
        host.log.failOn = c.failOn;
        int result = -1;
        EXPECT_EQ(ThrownBy([&] { result = c.drive(*client, host); }), c.thrown)
            << "case: " << c.name;
        EXPECT_EQ(result, c.thrown == kNothing ? 0 : -1) << "case: " << c.name;
        EXPECT_EQ(service.Requests().size(), c.requests) << "case: " << c.name;
        const auto calls = host.log.Names();
        EXPECT_EQ(std::count(calls.begin(), calls.end(), "GetName(c)"), 0) << "case: " << c.name;
    }
}

} // namespace
