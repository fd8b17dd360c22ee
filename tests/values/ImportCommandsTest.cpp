// The value-import operations on the wire: addresses, status judgement, and the list operations'
// stop at the first refused attribute.
#include <gtest/gtest.h>

#include "values/HostRecords.h"

#include "support/ConnectedClient.h"
#include "support/RecordingServer.h"

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

using testsupport::ConnectedClient;
using testsupport::RecordedRequest;
using testsupport::RecordingServer;
using testsupport::ScriptedResponse;
using namespace valuestest;

namespace {

// One operation driven with a table and an attribute name, and the path it must reach, built
// from the encoded names.
struct Operation {
    const char* name;
    std::function<int(CTableRepositoryImport&, HostLog&, const CString&, const std::string&)> call;
    std::function<std::string(const std::string&, const std::string&)> path;
    const char* body;
};

const std::vector<Operation>& Operations() {
    static const std::vector<Operation> operations = {
        {"BeginDistinctValues",
         [](CTableRepositoryImport& c, HostLog&, const CString& t, const std::string& a) {
             return c.BeginDistinctValues(t, Wide(a));
         },
         [](const std::string& t, const std::string& a) {
             return "/Import/Tables/" + t + "/DistinctValues/" + a + "/Begin";
         },
         "null"},
        {"EndDistinctValues",
         [](CTableRepositoryImport& c, HostLog&, const CString& t, const std::string& a) {
             return c.EndDistinctValues(t, Wide(a));
         },
         [](const std::string& t, const std::string& a) {
             return "/Import/Tables/" + t + "/DistinctValues/" + a + "/End";
         },
         "null"},
        {"ImportDistinctValuesChunk",
         [](CTableRepositoryImport& c, HostLog& log, const CString& t, const std::string& a) {
             FakeDistinctValues values(log, {{0, "x"}});
             return c.ImportDistinctValuesChunk(t, Wide(a), 0, 1, &values, 0);
         },
         [](const std::string& t, const std::string& a) {
             return "/Import/Tables/" + t + "/DistinctValues/" + a;
         },
         "[\"x\"]"},
        {"BeginImportValueIds",
         [](CTableRepositoryImport& c, HostLog& log, const CString& t, const std::string& a) {
             Attributes attributes(log, {a});
             return c.BeginImportValueIds(t, attributes.List());
         },
         [](const std::string& t, const std::string& a) {
             return "/Import/Tables/" + t + "/ValueIds/" + a + "/Begin";
         },
         "null"},
        {"EndImportValueIds",
         [](CTableRepositoryImport& c, HostLog& log, const CString& t, const std::string& a) {
             Attributes attributes(log, {a});
             return c.EndImportValueIds(t, attributes.List());
         },
         [](const std::string& t, const std::string& a) {
             return "/Import/Tables/" + t + "/ValueIds/" + a + "/End";
         },
         "null"},
        {"ImportValueIdsChunk",
         [](CTableRepositoryImport& c, HostLog& log, const CString& t, const std::string& a) {
             Attributes attributes(log, {a}, [](int, int row) { return row + 7; });
             return c.ImportValueIdsChunk(t, 0, 2, attributes.List(), 0);
         },
         [](const std::string& t, const std::string& a) {
             return "/Import/Tables/" + t + "/ValueIds/" + a;
         },
         "[7,8]"},
        {"EndImport",
         [](CTableRepositoryImport& c, HostLog&, const CString& t, const std::string&) {
             return c.EndImport(t);
         },
         [](const std::string& t, const std::string&) { return "/Import/Tables/" + t + "/End"; },
         "null"},
    };
    return operations;
}

struct NameCase {
    const char* name;
    std::string raw;
    std::string encoded;
};

const NameCase kNames[] = {
    {"plain", "Price", "Price"},
    {"blank", "Sales Q1", "Sales%20Q1"},
    {"percent sign", "100%", "100%25"},
    {"question mark", "why?", "why%3F"},
    {"number sign", "#1", "%231"},
    {"plus", "a+b", "a%2Bb"},
    {"non-ASCII", "Z\xc3\xbcrich \xe2\x82\xac", "Z%C3%BCrich%20%E2%82%AC"},
};

class ValueImportOperations : public ::testing::Test {
protected:
    RecordingServer service;
    EventClock clock;
    HostLog log{clock};
};

TEST_F(ValueImportOperations, PostTheBodyToTheEncodedPathWithFixedWordsAsTheyStand) {
    ConnectedClient client(service.BaseUrl());
    for (const Operation& op : Operations()) {
        for (const NameCase& n : kNames) {
            service.Clear();
            const std::string table = "T " + n.raw;
            const std::string attribute = "A" + n.raw;
            const int result = op.call(*client, log, Wide(table), attribute);
            const auto requests = service.Requests();
            ASSERT_EQ(requests.size(), 1u) << "case: " << op.name << " / " << n.name;
            const RecordedRequest& r = requests[0];
            EXPECT_EQ(result, 1) << "case: " << op.name << " / " << n.name;
            EXPECT_EQ(r.method, "POST") << "case: " << op.name << " / " << n.name;
            EXPECT_EQ(r.target, op.path("T%20" + n.encoded, "A" + n.encoded))
                << "case: " << op.name << " / " << n.name;
            EXPECT_EQ(r.body, op.body) << "case: " << op.name << " / " << n.name;
            EXPECT_EQ(r.HeaderValue("Content-Type").value_or("<none>"), "application/json")
                << "case: " << op.name << " / " << n.name;
        }
    }
}

TEST_F(ValueImportOperations, ReplaceThePathOfTheConfiguredAddressButKeepItsQuery) {
    ConnectedClient client(service.BaseUrl() + "/repository/v2?tenant=a");
    for (const Operation& op : Operations()) {
        service.Clear();
        EXPECT_EQ(op.call(*client, log, L"T", "A"), 1) << "case: " << op.name;
        const auto requests = service.Requests();
        ASSERT_EQ(requests.size(), 1u) << "case: " << op.name;
        EXPECT_EQ(requests[0].target, op.path("T", "A") + "?tenant=a") << "case: " << op.name;
    }
}

TEST_F(ValueImportOperations, AcceptOnlyStatus200) {
    const struct {
        int status;
        int result;
    } statuses[] = {{200, 1}, {201, 0}, {202, 0}, {204, 0}, {400, 0}, {404, 0}, {500, 0}};
    ConnectedClient client(service.BaseUrl());
    for (const Operation& op : Operations()) {
        for (const auto& s : statuses) {
            service.Clear();
            service.SetDefault({s.status, {}, "", false, {}});
            EXPECT_EQ(op.call(*client, log, L"T", "A"), s.result)
                << "case: " << op.name << " answered " << s.status;
            EXPECT_EQ(service.Requests().size(), 1u)
                << "case: " << op.name << " answered " << s.status;
        }
    }
}

TEST_F(ValueImportOperations, GoThroughTheAuthenticationProxyWhenTheConnectionTestChoseIt) {
    ConnectedClient client(service.BaseUrl(), testsupport::ConnectedBy::Proxy);
    for (const Operation& op : Operations()) {
        client.Proxy().Clear();
        EXPECT_EQ(op.call(*client, log, L"T", "A"), 1) << "case: " << op.name;
        const auto forwarded = client.Proxy().Requests();
        ASSERT_EQ(forwarded.size(), 1u) << "case: " << op.name;
        EXPECT_EQ(forwarded[0].path, "/forward" + op.path("T", "A")) << "case: " << op.name;
        EXPECT_EQ(forwarded[0].body, op.body) << "case: " << op.name;
        EXPECT_EQ(forwarded[0].HeaderValue("Content-Type").value_or("<none>"),
                  "application/json; charset=utf-8")
            << "case: " << op.name;
    }
    EXPECT_TRUE(service.Requests().empty());
}

// The operations that walk the host's attribute list, one request per attribute.
struct ListOperation {
    const char* name;
    std::function<int(CTableRepositoryImport&, CList<CRepoAttribute*>*)> call;
    const char* pathSuffix;
};

const ListOperation kListOperations[] = {
    {"BeginImportValueIds",
     [](CTableRepositoryImport& c, CList<CRepoAttribute*>* list) {
         return c.BeginImportValueIds(L"T", list);
     },
     "/Begin"},
    {"EndImportValueIds",
     [](CTableRepositoryImport& c, CList<CRepoAttribute*>* list) {
         return c.EndImportValueIds(L"T", list);
     },
     "/End"},
    {"ImportValueIdsChunk",
     [](CTableRepositoryImport& c, CList<CRepoAttribute*>* list) {
         return c.ImportValueIdsChunk(L"T", 0, 1, list, 0);
     },
     ""},
};

TEST_F(ValueImportOperations, ListOperationsStopAtTheFirstRefusedAttribute) {
    ConnectedClient client(service.BaseUrl());
    for (const ListOperation& op : kListOperations) {
        for (int refusal : {201, 204, 400, 500}) {
            service.Clear();
            service.SetDefault({200, {}, "", false, {}});
            service.Enqueue({200, {}, "", false, {}});
            service.Enqueue({refusal, {}, "", false, {}});
            HostLog calls(clock);
            Attributes attributes(calls, {"a", "b", "c"});
            EXPECT_EQ(op.call(*client, attributes.List()), 0)
                << "case: " << op.name << " refused with " << refusal;
            std::vector<std::string> paths;
            for (const RecordedRequest& r : service.Requests()) {
                paths.push_back(r.path);
            }
            EXPECT_EQ(paths, (std::vector<std::string>{"/Import/Tables/T/ValueIds/a" + std::string(op.pathSuffix),
                                                       "/Import/Tables/T/ValueIds/b" + std::string(op.pathSuffix)}))
                << "case: " << op.name << " refused with " << refusal;
            // A chunk reads every column before it sends; only the name of the attribute after
            // the refusal is never needed.
            const auto names = calls.Names();
            EXPECT_EQ(std::count(names.begin(), names.end(), "GetName(c)"), 0)
                << "case: " << op.name << " refused with " << refusal;
        }
    }
}

TEST_F(ValueImportOperations, ListOperationsOnAnEmptyListSucceedWithoutRequest) {
    ConnectedClient client(service.BaseUrl());
    service.SetDefault({500, {}, "", false, {}});
    for (const ListOperation& op : kListOperations) {
        HostLog calls(clock);
        Attributes none(calls, {});
        EXPECT_EQ(op.call(*client, none.List()), 1) << "case: " << op.name;
    }
    const struct {
        long first, last;
    } ranges[] = {{5, 1}, {-3, 3}, {0, 100000}};
    for (const auto& range : ranges) {
        Attributes none(log, {});
        EXPECT_EQ(client->ImportValueIdsChunk(L"T", range.first, range.last, none.List(), 0), 1)
            << "case: rows " << range.first << " to " << range.last;
    }
    EXPECT_TRUE(service.Requests().empty());
}

TEST_F(ValueImportOperations, PhaseCommandsPassTheHostsNameExceptionUnchanged) {
    ConnectedClient client(service.BaseUrl());
    const ListOperation* phaseCommands[] = {&kListOperations[0], &kListOperations[1]};
    for (const ListOperation* op : phaseCommands) {
        service.Clear();
        HostLog calls(clock);
        calls.failOn = "GetName(b)";
        Attributes attributes(calls, {"a", "b", "c"});
        const Caught caught = CatchFrom([&] { op->call(*client, attributes.List()); });
        EXPECT_EQ(caught.type, "std::runtime_error") << "case: " << op->name;
        EXPECT_EQ(caught.message, "boom") << "case: " << op->name;
        EXPECT_EQ(service.Requests().size(), 1u) << "case: " << op->name;
    }
}

} // namespace
