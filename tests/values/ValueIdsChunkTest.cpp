// ImportValueIdsChunk: the columns that reach the service, the worker thread on which the host's
// records are read, and the flattening of failures into a plain std::exception.
#include <gtest/gtest.h>

#include "values/HostRecords.h"

#include "support/ConnectedClient.h"
#include "support/RecordingServer.h"

#include <algorithm>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

using testsupport::ConnectionContext;
using testsupport::ConnectedClient;
using testsupport::RecordedRequest;
using testsupport::RecordingServer;
using testsupport::ScriptedResponse;
using namespace valuestest;

namespace {

struct ColumnCase {
    const char* name;
    std::vector<std::string> attributes;
    std::function<int(int, int)> idOf;
    long first;
    long last;
    int reserved;
    std::vector<std::string> bodies;  // one per attribute, in list order
    std::size_t hostCalls;            // GetValueIds and GetValueId, together
};

const ColumnCase kColumnCases[] = {
    {"one attribute", {"a"}, [](int, int row) { return row * 3; }, 0, 4, 0, {"[0,3,6,9]"}, 8},
    {"three attributes, offset rows", {"a", "b", "c"},
     [](int k, int row) { return 1000 * k + row; }, 5, 8, 0,
     {"[5,6,7]", "[1005,1006,1007]", "[2005,2006,2007]"}, 18},
    {"negative ids stay negative numbers", {"n", "p"},
     [](int k, int row) { return k == 0 ? -row - 1 : row; }, 0, 3, 0, {"[-1,-2,-3]", "[0,1,2]"},
     12},
    {"extreme ids", {"x"},
     [](int, int row) { return row == 0 ? -2147483647 - 1 : 2147483647; }, 0, 2, 0,
     {"[-2147483648,2147483647]"}, 4},
    {"negative rows", {"r"}, [](int, int row) { return row; }, -2, 1, 0, {"[-2,-1,0]"}, 6},
    {"reserved 1 changes nothing", {"a"}, [](int, int row) { return row; }, 0, 2, 1, {"[0,1]"}, 4},
    {"reserved -7 changes nothing", {"a"}, [](int, int row) { return row; }, 0, 2, -7, {"[0,1]"},
     4},
    {"empty range", {"a", "b"}, [](int, int row) { return row; }, 3, 3, 0, {"[]", "[]"}, 0},
    {"reversed range", {"a", "b", "c"}, [](int, int row) { return row; }, 9, 2, 0,
     {"[]", "[]", "[]"}, 0},
};

class ValueIdsChunk : public ::testing::Test {
protected:
    RecordingServer service;
    EventClock clock;
};

TEST_F(ValueIdsChunk, SendsOneColumnPerAttributeInRowOrder) {
    ConnectedClient client(service.BaseUrl());
    for (const ColumnCase& c : kColumnCases) {
        service.Clear();
        HostLog log(clock);
        Attributes attributes(log, c.attributes, c.idOf);
        EXPECT_EQ(client->ImportValueIdsChunk(L"Sales Q1", c.first, c.last, attributes.List(),
                                              c.reserved),
                  1)
            << "case: " << c.name;
        const auto requests = service.Requests();
        ASSERT_EQ(requests.size(), c.attributes.size()) << "case: " << c.name;
        for (std::size_t k = 0; k < requests.size(); ++k) {
            EXPECT_EQ(requests[k].target, "/Import/Tables/Sales%20Q1/ValueIds/" + c.attributes[k])
                << "case: " << c.name;
            EXPECT_EQ(requests[k].body, c.bodies[k]) << "case: " << c.name;
            EXPECT_EQ(requests[k].HeaderValue("Content-Type").value_or("<none>"),
                      "application/json")
                << "case: " << c.name;
        }
        const auto calls = log.Names();
        const auto valueCalls = std::count_if(calls.begin(), calls.end(), [](const std::string& s) {
            return s.rfind("GetName", 0) != 0;
        });
        EXPECT_EQ(static_cast<std::size_t>(valueCalls), c.hostCalls) << "case: " << c.name;
    }
}

// Bodies of several MiB leave in larger transfer chunks than small ones, and every column's text
// is written into the same room as the one before it; the bytes must not change. The second
// column's text is the shorter one, so a stale length or a leftover tail would show.
TEST_F(ValueIdsChunk, LargeColumnsArriveByteForByte) {
    struct Ids : CValueIds {
        int k = 0;
        int GetValueId(int row) override {
            return static_cast<int>((row * 7919LL + k) % (k == 0 ? 2000003 : 200003) - 100001);
        }
    };
    struct Column : CRepoAttribute {
        Ids ids;
        CString name;
        CString GetName() override { return name; }
        int GetType() override { return 0; }
        CDistinctValues* GetDistinctValues() override { return nullptr; }
        CValueIds* GetValueIds() override { return &ids; }
    };
    Column columns[2];
    CList<CRepoAttribute*> list;
    for (int k = 0; k < 2; ++k) {
        columns[k].ids.k = k;
        columns[k].name = k == 0 ? L"a" : L"b";
        list.AddTail(&columns[k]);
    }
    constexpr int kRows = 300000;
    std::string expected[2];
    for (int k = 0; k < 2; ++k) {
        std::vector<web::json::value> ids;
        for (int row = 0; row < kRows; ++row) {
            ids.push_back(web::json::value::number(columns[k].ids.GetValueId(row)));
        }
        expected[k] = web::json::value::array(ids).serialize();
        ASSERT_GT(expected[k].size(), 1024u * 1024); // more than one transfer chunk
    }
    ASSERT_LT(expected[1].size(), expected[0].size());
    // Directly and through the proxy, whose client is a second one made inside the pipeline.
    for (const auto by : {testsupport::ConnectedBy::Plain, testsupport::ConnectedBy::Proxy}) {
        ConnectedClient client(service.BaseUrl(), by);
        const bool viaProxy = by == testsupport::ConnectedBy::Proxy;
        RecordingServer& receiver = viaProxy ? client.Proxy() : service;
        ASSERT_EQ(client->ImportValueIdsChunk(L"t", 0, kRows, &list, 0), 1);
        const auto requests = receiver.Requests();
        ASSERT_EQ(requests.size(), 2u);
        for (int k = 0; k < 2; ++k) {
            EXPECT_TRUE(requests[static_cast<std::size_t>(k)].body == expected[k])
                << "attribute " << k << (viaProxy ? " via the proxy" : "");
        }
    }
}

TEST_F(ValueIdsChunk, ReadsRowByRowAcrossAttributesAskingForTheReaderEachTime) {
    ConnectedClient client(service.BaseUrl());
    HostLog log(clock);
    Attributes attributes(log, {"a", "b"});
    ASSERT_EQ(client->ImportValueIdsChunk(L"T", 1, 3, attributes.List(), 0), 1);
    EXPECT_EQ(log.Names(), (std::vector<std::string>{
                               "GetValueIds(a)", "GetValueId(a,1)", "GetValueIds(b)",
                               "GetValueId(b,1)", "GetValueIds(a)", "GetValueId(a,2)",
                               "GetValueIds(b)", "GetValueId(b,2)", "GetName(a)", "GetName(b)"}));
}

// The caller is parked while a worker thread reads the host's records; every id of the chunk is
// read before the first request reaches the service.
TEST_F(ValueIdsChunk, ReadsTheHostOnOneWorkerThreadBeforeTheFirstRequest) {
    std::mutex arrivalsMutex;
    std::vector<int> arrivals;
    service.SetHandler([&](const RecordedRequest&, ConnectionContext&) {
        std::lock_guard<std::mutex> lock(arrivalsMutex);
        arrivals.push_back(clock.Tick());
        return ScriptedResponse{};
    });
    ConnectedClient client(service.BaseUrl());
    HostLog log(clock);
    Attributes attributes(log, {"a", "b", "c"});
    ASSERT_EQ(client->ImportValueIdsChunk(L"T", 0, 200, attributes.List(), 0), 1);

    const auto calls = log.Calls();
    std::set<std::thread::id> threads;
    int lastIdRead = -1;
    for (const HostCall& call : calls) {
        threads.insert(call.thread);
        if (call.what.rfind("GetValueId", 0) == 0) {
            lastIdRead = std::max(lastIdRead, call.tick);
        }
    }
    EXPECT_EQ(threads.size(), 1u);
    EXPECT_EQ(threads.count(std::this_thread::get_id()), 0u);
    std::lock_guard<std::mutex> lock(arrivalsMutex);
    ASSERT_EQ(arrivals.size(), 3u);
    EXPECT_LT(lastIdRead, arrivals.front());
}

TEST_F(ValueIdsChunk, HostExceptionsReachTheCallerAsPlainStdException) {
    const struct {
        const char* failOn;
        std::size_t requests;
    } cases[] = {
        {"GetValueIds(b)", 0}, {"GetValueId(a,0)", 0}, {"GetValueId(c,1)", 0}, {"GetName(b)", 1},
    };
    ConnectedClient client(service.BaseUrl());
    for (const auto& c : cases) {
        service.Clear();
        HostLog log(clock);
        log.failOn = c.failOn;
        Attributes attributes(log, {"a", "b", "c"});
        const Caught caught =
            CatchFrom([&] { client->ImportValueIdsChunk(L"T", 0, 2, attributes.List(), 0); });
        EXPECT_EQ(caught.type, "std::exception") << "case: " << c.failOn;
        EXPECT_EQ(caught.message, "boom") << "case: " << c.failOn;
        EXPECT_EQ(service.Requests().size(), c.requests) << "case: " << c.failOn;
    }
}

TEST_F(ValueIdsChunk, TransportFailureReachesTheCallerAsPlainStdException) {
    const std::string unreachable = UnreachableServiceUrl();
    ConnectedClient client(unreachable);
    HostLog log(clock);
    Attributes attributes(log, {"a"});
    const Caught caught =
        CatchFrom([&] { client->ImportValueIdsChunk(L"T", 0, 1, attributes.List(), 0); });
    EXPECT_EQ(caught.type, "std::exception");
    EXPECT_EQ(caught.message, TransportFailureMessage(unreachable + "/Import/Tables/T/ValueIds/a"));
}

} // namespace
