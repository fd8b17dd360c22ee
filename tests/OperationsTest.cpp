// The rules every service operation shares, each checked over one table of the operations: which
// status counts as success, where the request goes (names percent-encoded, the service address's
// own path replaced but its query kept, through the authentication proxy when the connection test
// chose it), and what the host gets when the service cannot be reached.
// gtest first: cpprestsdk defines a macro U that gtest's headers use as a template parameter.
#include <gtest/gtest.h>

#include "client/PlainException.h"
#include "client/TextConversion.h"
#include "support/ConnectedClient.h"
#include "support/HostRecords.h"
#include "support/Process.h"
#include "support/Thrown.h"

#include <cpprest/http_msg.h>

#include <functional>
#include <string>

using namespace testsupport;

namespace {

std::string Utf8(const CString& text) {
    return ToUtf8(text.GetString(), static_cast<std::size_t>(text.GetLength()));
}

std::string OnlyWith200(int status) { return status == 200 ? "1" : "0"; }

// Every answer carries a table id, in UTF-8 with a two- and a four-byte sequence; only a 201 counts.
const std::string kTableId = "t-\xc3\xbc\xf0\x9f\x98\x80";

using Client = CTableRepositoryImport;
using Text = const CString&;

struct Operation {
    const char* name;
    const char* path; // {t} and {a}: the table and the attribute, each one encoded segment
    const char* body;
    std::string (*seen)(int status); // what the host gets for an answer with this status
    bool flattens;                   // failures reach the host as a plain std::exception
    // Runs the operation on table t and attribute a; returns what the host gets.
    std::function<std::string(Client&, Text t, Text a)> run;
};

const Operation kOperations[] = {
    {"IsAuthorized", "/Import/Authorization", R"({"tableClass":"Sales"})", OnlyWith200, false,
     [](Client& c, Text, Text) { return std::to_string(c.IsAuthorized(L"Sales")); }},
    {"CreateTable", "/Import/Tables",
     R"({"recordCount":2,"tableClass":"c","tableDescription":"d","tableName":"Sales","tableOverwrite":true})",
     [](int status) { return std::to_string(status) + " " + (status == 201 ? kTableId : ""); }, true,
     [](Client& c, Text, Text) {
         const auto [status, id] = c.CreateTable(L"Sales", L"c", L"d", 1, 2);
         return std::to_string(status) + " " + Utf8(id);
     }},
    {"CreateAttributeDefinitions", "/Import/Tables/{t}/Attributes", "[]", OnlyWith200, true,
     [](Client& c, Text t, Text) {
         HostDefinitions none;
         return std::to_string(c.CreateAttributeDefinitions(t, none.List()));
     }},
    {"BeginDistinctValues", "/Import/Tables/{t}/DistinctValues/{a}/Begin", "null", OnlyWith200,
     false, [](Client& c, Text t, Text a) { return std::to_string(c.BeginDistinctValues(t, a)); }},
    {"EndDistinctValues", "/Import/Tables/{t}/DistinctValues/{a}/End", "null", OnlyWith200, false,
     [](Client& c, Text t, Text a) { return std::to_string(c.EndDistinctValues(t, a)); }},
    {"ImportDistinctValuesChunk", "/Import/Tables/{t}/DistinctValues/{a}", R"(["x"])", OnlyWith200,
     false,
     [](Client& c, Text t, Text a) {
         HostTable host({{"", {"x"}, {}}});
         return std::to_string(c.ImportDistinctValuesChunk(t, a, 0, 1, host.DistinctValues(0), 0));
     }},
    {"BeginImportValueIds", "/Import/Tables/{t}/ValueIds/{a}/Begin", "null", OnlyWith200, false,
     [](Client& c, Text t, Text a) {
         HostTable host({{Utf8(a), {}, {}}});
         return std::to_string(c.BeginImportValueIds(t, host.Attributes()));
     }},
    {"EndImportValueIds", "/Import/Tables/{t}/ValueIds/{a}/End", "null", OnlyWith200, false,
     [](Client& c, Text t, Text a) {
         HostTable host({{Utf8(a), {}, {}}});
         return std::to_string(c.EndImportValueIds(t, host.Attributes()));
     }},
    {"ImportValueIdsChunk", "/Import/Tables/{t}/ValueIds/{a}", "[7,8]", OnlyWith200, true,
     [](Client& c, Text t, Text a) {
         HostTable host({{Utf8(a), {}, {7, 8}}});
         return std::to_string(c.ImportValueIdsChunk(t, 0, 2, host.Attributes(), 0));
     }},
    {"EndImport", "/Import/Tables/{t}/End", "null", OnlyWith200, false,
     [](Client& c, Text t, Text) { return std::to_string(c.EndImport(t)); }},
};

// The operation's path for the encoded names; an empty name adds no segment.
std::string PathOf(const Operation& op, const std::string& table, const std::string& attribute) {
    std::string path = op.path;
    for (const auto& [mark, name] : {std::pair{"/{t}", table}, std::pair{"/{a}", attribute}}) {
        const std::size_t at = path.find(mark);
        if (at != std::string::npos) {
            path.replace(at, 4, name.empty() ? "" : "/" + name);
        }
    }
    return path;
}

TEST(Operations, SucceedOnlyWithTheirOwnStatus) {
    RecordingServer service;
    ConnectedClient client(service.BaseUrl());
    for (const Operation& op : kOperations) {
        for (const int status : {200, 201, 202, 204, 400, 401, 404, 500}) {
            // A 204 carries no body.
            service.SetDefault({status, {{"Content-Type", "application/json"}},
                                status == 204 ? "" : "{\"tableID\":\"" + kTableId + "\"}", false, {}});
            EXPECT_EQ(op.run(*client, L"T", L"A"), op.seen(status))
                << "case: " << op.name << " answered " << status;
        }
    }
}

struct NameCase {
    const char* name;
    std::wstring text;
    std::string encoded;
};

const NameCase kNames[] = {
    {"blanks and reserved characters encoded, a slash left a slash", L"Q 1/100%?#+",
     "Q%201/100%25%3F%23%2B"},
    {"non-ASCII, and a surrogate pair combined", L"Z\u00fcrich \u20ac\xD83D\xDE00",
     "Z%C3%BCrich%20%E2%82%AC%F0%9F%98%80"},
    {"empty", L"", ""},
    {"ends at an embedded NUL", std::wstring(L"ab\0cd", 5), "ab"},
};

struct Route {
    const char* name;
    std::string servicePath; // appended to the service's address for the connection test
    ConnectedBy by;
    const char* prefix;      // before the operation's path where the request arrives
    const char* query;       // nullptr: the proxy's own, not checked here
    const char* contentType;
};

const Route kRoutes[] = {
    {"direct", "", ConnectedBy::Plain, "", "", "application/json"},
    {"the service's path replaced, its query kept", "/repository/v2?tenant=a",
     ConnectedBy::Plain, "", "tenant=a", "application/json"},
    {"through the proxy", "", ConnectedBy::Proxy, "/forward", nullptr,
     "application/json; charset=utf-8"},
};

TEST(Operations, PostTheirBodyToTheirPathWithTheNamesEncoded) {
    RecordingServer service;
    for (const Route& route : kRoutes) {
        ConnectedClient client(service.BaseUrl() + route.servicePath, route.by);
        RecordingServer& receiver = route.by == ConnectedBy::Proxy ? client.Proxy() : service;
        service.Clear();
        for (const Operation& op : kOperations) {
            for (const NameCase& n : kNames) {
                const std::string label = std::string(route.name) + ", " + op.name + ", " + n.name;
                receiver.Clear();
                const CString table(n.text.data(), static_cast<int>(n.text.size()));
                op.run(*client, table, L"A" + table);
                const auto requests = receiver.Requests();
                ASSERT_EQ(requests.size(), 1u) << "case: " << label;
                const RecordedRequest& r = requests[0];
                EXPECT_EQ(r.method + " " + r.path + " " + r.HeaderValue("Content-Type").value_or("") + " " + r.body,
                          "POST " + std::string(route.prefix) + PathOf(op, n.encoded, "A" + n.encoded) + " " +
                              route.contentType + " " + op.body)
                    << "case: " << label;
                EXPECT_EQ(r.query, route.query ? route.query : r.query) << "case: " << label;
            }
        }
        if (route.by == ConnectedBy::Proxy) {
            EXPECT_TRUE(service.Requests().empty());
        }
    }
}

// What a flattening operation hands the host: the library's plain std::exception, which the host
// can catch only as std::exception, with the message of the failure underneath.
Thrown Flattened(const std::string& message) {
    return ThrownBy([&] { ThrowPlainException(std::runtime_error(message)); });
}

TEST(Operations, ARefusedConnectionReachesTheHostAsItsDocumentedType) {
    const std::string refused = "Failed to connect to any resolved endpoint";
    ConnectedClient client("http://127.0.0.1:" + std::to_string(FreePort()));
    for (const Operation& op : kOperations) {
        EXPECT_EQ(ThrownBy([&] { op.run(*client, L"T", L"A"); }),
                  op.flattens ? Flattened(refused) : Expected<web::http::http_exception>(refused))
            << "case: " << op.name;
    }
}

} // namespace
