// The rules every service operation shares, each checked over one table of the operations: which
// status counts as success, where the request goes (names percent-encoded, the service address's
// own path replaced but its query kept, through the authentication proxy when the connection test
// chose it), and what the host gets when the service cannot be reached. Then what only table
// creation and the attribute definitions upload have: the exact bytes of their bodies, and text
// that fails the document before anything is sent.
// gtest first: cpprestsdk defines a macro U that gtest's headers use as a template parameter.
#include <gtest/gtest.h>

#include "client/PlainException.h"
#include "client/TextConversion.h"
#include "support/ConnectedClient.h"
#include "support/HostRecords.h"
#include "support/Process.h"
#include "support/Thrown.h"

#include <cpprest/http_msg.h>
#include <cpprest/json.h>

#include <climits>
#include <functional>
#include <regex>
#include <string>
#include <tuple>
#include <vector>

using namespace testsupport;

namespace {

std::string Utf8(const CString& text) {
    return ToUtf8(text.GetString(), static_cast<std::size_t>(text.GetLength()));
}

std::string OnlyWith200(int status) { return status == 200 ? "1" : "0"; }

// Every answer carries a table id, in UTF-8 with a two- and a four-byte sequence; only a 201
// counts.
const std::string kTableId = "t-\xc3\xbc\xf0\x9f\x98\x80";

// What the host gets back, as text: the result, and for CreateTable the table id after it.
struct Seen {
    Seen(int result) : text(std::to_string(result)) {}
    Seen(const std::tuple<int, CString>& created)
        : text(std::to_string(std::get<0>(created)) + " " + Utf8(std::get<1>(created))) {}
    std::string text;
};

using Text = const CString&;

struct Operation {
    const char* name;
    const char* path; // {t} and {a}: the table and the attribute, each one encoded segment
    const char* body;
    std::string (*seen)(int status); // what the host gets for an answer with this status
    bool flattens;                   // failures reach the host as a plain std::exception
    // Runs the operation on table t and attribute a, the host's one column.
    std::function<Seen(CTableRepositoryImport&, Text t, Text a, HostTable&)> run;
};

const Operation kOperations[] = {
    {"IsAuthorized", "/Import/Authorization", R"({"tableClass":"Sales"})", OnlyWith200, false,
     [](auto& c, Text, Text, auto&) { return c.IsAuthorized(L"Sales"); }},
    // Non-ASCII as UTF-8, quotes and backslashes escaped, overwrite 1 sent as true.
    {"CreateTable", "/Import/Tables",
     R"({"recordCount":7,"tableClass":"😀","tableDescription":"say \"hi\"\\ €",)"
     R"("tableName":"Zürich 😀","tableOverwrite":true})",
     [](int status) { return std::to_string(status) + " " + (status == 201 ? kTableId : ""); },
     true,
     [](auto& c, Text, Text, auto&) {
         return c.CreateTable(L"Z\u00fcrich \U0001F600", L"\xD83D\xDE00", L"say \"hi\"\\ \u20ac", 1,
                              7);
     }},
    {"CreateAttributeDefinitions", "/Import/Tables/{t}/Attributes", "[]", OnlyWith200, true,
     [](auto& c, Text t, Text, auto&) {
         return c.CreateAttributeDefinitions(t, HostDefinitions().List());
     }},
    {"BeginDistinctValues", "/Import/Tables/{t}/DistinctValues/{a}/Begin", "null", OnlyWith200,
     false, [](auto& c, Text t, Text a, auto&) { return c.BeginDistinctValues(t, a); }},
    {"EndDistinctValues", "/Import/Tables/{t}/DistinctValues/{a}/End", "null", OnlyWith200, false,
     [](auto& c, Text t, Text a, auto&) { return c.EndDistinctValues(t, a); }},
    {"ImportDistinctValuesChunk", "/Import/Tables/{t}/DistinctValues/{a}", R"(["x"])", OnlyWith200,
     false,
     [](auto& c, Text t, Text a, auto& h) {
         return c.ImportDistinctValuesChunk(t, a, 0, 1, h.DistinctValues(0), 0);
     }},
    {"BeginImportValueIds", "/Import/Tables/{t}/ValueIds/{a}/Begin", "null", OnlyWith200, false,
     [](auto& c, Text t, Text, auto& h) { return c.BeginImportValueIds(t, h.Attributes()); }},
    {"EndImportValueIds", "/Import/Tables/{t}/ValueIds/{a}/End", "null", OnlyWith200, false,
     [](auto& c, Text t, Text, auto& h) { return c.EndImportValueIds(t, h.Attributes()); }},
    {"ImportValueIdsChunk", "/Import/Tables/{t}/ValueIds/{a}", "[7,8]", OnlyWith200, true,
     [](auto& c, Text t, Text, auto& h) {
         return c.ImportValueIdsChunk(t, 0, 2, h.Attributes(), 0);
     }},
    {"EndImport", "/Import/Tables/{t}/End", "null", OnlyWith200, false,
     [](auto& c, Text t, Text, auto&) { return c.EndImport(t); }},
};

// Runs op on table and attribute names as the host hands them in, the attribute also the name of
// the host's one column, with the value "x" and the ids 7 and 8.
std::string Perform(const Operation& op, CTableRepositoryImport& client, Text table,
                    Text attribute) {
    HostTable host({{Utf8(attribute), {"x"}, {7, 8}}});
    return op.run(client, table, attribute, host).text;
}

// The operation's path for the encoded names; an empty name adds no segment.
std::string PathOf(const Operation& op, const std::string& table, const std::string& attribute) {
    const std::string path = std::regex_replace(op.path, std::regex("\\{t\\}"), table);
    return std::regex_replace(std::regex_replace(path, std::regex("\\{a\\}"), attribute),
                              std::regex("//"), "/");
}

// A client connected directly to a recording service.
class Connected : public ::testing::Test {
protected:
    std::string Received() const { return service.Requests().at(0).body; }

    RecordingServer service;
    ConnectedClient client{service.BaseUrl()};
};

TEST_F(Connected, OperationsSucceedOnlyWithTheirOwnStatus) {
    for (const Operation& op : kOperations) {
        for (const int status : {200, 201, 202, 204, 400, 401, 404, 500}) {
            // A 204 carries no body.
            const std::string body = status == 204 ? "" : "{\"tableID\":\"" + kTableId + "\"}";
            service.SetDefault({status, {{"Content-Type", "application/json"}}, body, false, {}});
            EXPECT_EQ(Perform(op, *client, L"T", L"A"), op.seen(status))
                << "case: " << op.name << " answered " << status;
        }
    }
}

struct NameCase {
    const char* name;
    CString text;
    std::string encoded;
};

const NameCase kNames[] = {
    {"blanks and reserved characters encoded, a slash left a slash", L"Q 1/100%?#+",
     "Q%201/100%25%3F%23%2B"},
    {"non-ASCII, and a surrogate pair combined", L"Z\u00fcrich \u20ac\xD83D\xDE00",
     "Z%C3%BCrich%20%E2%82%AC%F0%9F%98%80"},
    {"empty", L"", ""},
    {"ends at an embedded NUL", CString(L"ab\0cd", 5), "ab"},
};

// Through the proxy, requests arrive under its /forward path and their JSON as UTF-8.
struct Route {
    const char* name;
    std::string servicePath; // appended to the service's address for the connection test
    ConnectedBy by;
    const char* query; // nullptr: the proxy's own, not checked here
};

const Route kRoutes[] = {
    {"direct", "", ConnectedBy::Plain, ""},
    {"the service's path replaced, its query kept", "/repository/v2?tenant=a", ConnectedBy::Plain,
     "tenant=a"},
    {"through the proxy", "", ConnectedBy::Proxy, nullptr},
};

TEST(Operations, PostTheirBodyToTheirPathWithTheNamesEncoded) {
    RecordingServer service;
    for (const Route& route : kRoutes) {
        ConnectedClient client(service.BaseUrl() + route.servicePath, route.by);
        const bool proxied = route.by == ConnectedBy::Proxy;
        RecordingServer& receiver = proxied ? client.Proxy() : service;
        service.Clear();
        for (const Operation& op : kOperations) {
            for (const NameCase& n : kNames) {
                const std::string label = std::string(route.name) + ", " + op.name + ", " + n.name;
                receiver.Clear();
                Perform(op, *client, n.text, L"A" + n.text);
                const auto requests = receiver.Requests();
                ASSERT_EQ(requests.size(), 1u) << "case: " << label;
                const RecordedRequest& r = requests[0];
                EXPECT_EQ(
                    r.method + " " + r.path + " " + r.HeaderValue("Content-Type").value_or("") +
                        " " + r.body,
                    "POST " + std::string(proxied ? "/forward" : "") +
                        PathOf(op, n.encoded, "A" + n.encoded) +
                        (proxied ? " application/json; charset=utf-8 " : " application/json ") +
                        op.body)
                    << "case: " << label;
                EXPECT_EQ(r.query, route.query ? route.query : r.query) << "case: " << label;
            }
        }
        EXPECT_TRUE(!proxied || service.Requests().empty());
    }
}

TEST(Operations, ARefusedConnectionReachesTheHostAsItsDocumentedType) {
    const std::string refused = "Failed to connect to any resolved endpoint";
    // A flattening operation hands the host the library's plain std::exception, which the host
    // can catch only as std::exception, with the message of the failure underneath.
    const Thrown flattened = ThrownBy([&] { ThrowPlainException(std::runtime_error(refused)); });
    ConnectedClient client("http://127.0.0.1:" + std::to_string(FreePort()));
    for (const Operation& op : kOperations) {
        EXPECT_EQ(ThrownBy([&] { Perform(op, *client, L"T", L"A"); }),
                  op.flattens ? flattened : Expected<web::http::http_exception>(refused))
            << "case: " << op.name;
    }
}

// The rest of the table body; the operations' table has the first part.
TEST_F(Connected, CreateTableSendsOverwriteOnlyForOneAndEmptyTexts) {
    client->CreateTable(L"", L"", L"", 2, INT_MIN);
    EXPECT_EQ(Received(), R"({"recordCount":-2147483648,"tableClass":"","tableDescription":"",)"
                          R"("tableName":"","tableOverwrite":false})");
}

// One attribute left at its defaults and one with every text and code member set, all different,
// with value ranges (one with an empty value set) and cases, so a member wired to the wrong key
// shows in the bytes. The flags have a test of their own below.
TEST_F(Connected, TheAttributeDocumentCarriesEveryMember) {
    HostDefinitions host;
    host.Add(L"Region");
    DesktopAttributeDTO& a = host.Add(L"Umsatz \u20ac");
    a.Type = -3;
    a.LCID = 1031;
    a.Level = -2;
    a.EvalMode = 5;
    a.SummaryType = 7;
    a.Format = CString(L"0.00\0 hidden", 12);
    a.Id = L"attr-2";
    a.Source = L"Revenue";
    a.SummaryPerAttribute = L"Region";
    a.ClassifiedAttribute = L"Revenue net";
    a.Formula = L"IF([A]=\"x\";1;0)";
    a.ReferencedAttributes = L"Revenue;Region";
    a.MarginalValue = L"  0 ";
    a.CoupledAttributes = L"Region|Country";
    a.Parent = L"Finanzen \U0001F600";
    a.ReferencedDrillDownGroup = L"Geo";
    host.AddRange(a, 3, L"1000", {}, L"gro\u00df", 0);
    host.AddRange(a, -1, L"", {L"a", L"b", L"\u00e9t\u00e9"}, L"Set", 2);
    host.AddCase(a, L"[Region]=\"Nord\"", L"North");
    host.AddCase(a, L"", L"\xD83D\xDE00");

    EXPECT_EQ(client->CreateAttributeDefinitions(L"t-1", host.List()), 1);
    // One line on the wire; broken here only to fit the page.
    const std::string document = R"json(
[{"AttributeName":"Region","Cases":[],"ClassifiedAttribute":"","CoupledAttributes":"","EvalMode":0,
"Format":"","Formula":"","Id":"","IsCaseDiscrimination":false,"IsClassification":false,
"IsCoupled":false,"IsCoupledAttributeSortedReverse":false,"IsDrillDownGroup":false,
"IsExpanded":false,"IsFirstCoupledAttribute":false,"IsFormula":false,"IsGroup":false,
"IsLastCoupledAttributeLeads":false,"IsLink":false,"IsPermanentlyHidden":false,"IsSummary":false,
"LCID":0,"Level":0,"MarginalValue":"","MissingValuesAsZero":false,"Parent":"",
"ReferencedAttributes":"","ReferencedDrillDownGroup":"","Reverse":false,"Source":"",
"SummaryPerAttribute":"","SummaryType":0,"Type":0,"UserDefinedOrder":false,"ValueRanges":[]},
{"AttributeName":"Umsatz €","Cases":[{"CaseName":"North","Condition":"[Region]=\"Nord\""},
{"CaseName":"😀","Condition":""}],"ClassifiedAttribute":"Revenue net",
"CoupledAttributes":"Region|Country","EvalMode":5,"Format":"0.00","Formula":"IF([A]=\"x\";1;0)",
"Id":"attr-2","IsCaseDiscrimination":false,"IsClassification":false,"IsCoupled":false,
"IsCoupledAttributeSortedReverse":false,"IsDrillDownGroup":false,"IsExpanded":false,
"IsFirstCoupledAttribute":false,"IsFormula":false,"IsGroup":false,
"IsLastCoupledAttributeLeads":false,"IsLink":false,"IsPermanentlyHidden":false,"IsSummary":false,
"LCID":1031,"Level":-2,"MarginalValue":"  0 ","MissingValuesAsZero":false,"Parent":"Finanzen 😀",
"ReferencedAttributes":"Revenue;Region","ReferencedDrillDownGroup":"Geo","Reverse":false,
"Source":"Revenue","SummaryPerAttribute":"Region","SummaryType":7,"Type":-3,
"UserDefinedOrder":false,"ValueRanges":[{"ClassName":"groß","Operator":3,"StringThreshold":"1000",
"Unmodified":false,"ValueSet":[]},{"ClassName":"Set","Operator":-1,"StringThreshold":"",
"Unmodified":true,"ValueSet":["a","b","été"]}]}])json";
    EXPECT_EQ(Received(), std::regex_replace(document, std::regex("\n"), ""));
}

// Attribute i has only the i-th flag in the order of their keys set, to a value a narrowing or a
// "== 1" would get wrong, so a flag read from the wrong member shows as a true in the wrong place.
// The document above pins the keys themselves.
TEST_F(Connected, EachFlagTravelsUnderItsOwnKeyAndAnyNonZeroIsTrue) {
    using A = DesktopAttributeDTO;
    HostDefinitions host;
    const auto setEach = [&](auto... flags) {
        const BOOL trueValues[] = {1, 2, -1, 0x10000};
        int i = 0;
        ((host.Add(L"").*flags = trueValues[i++ % 4]), ...);
    };
    setEach(&A::IsCaseDiscrimination, &A::IsClassification, &A::IsCoupled,
            &A::IsCoupledAttributeSortedReverse, &A::IsDrillDownGroup, &A::IsExpanded,
            &A::IsFirstCoupledAttribute, &A::IsFormula, &A::IsGroup,
            &A::IsLastCoupledAttributeLeads, &A::IsLink, &A::IsPermanentlyHidden, &A::IsSummary,
            &A::MissingValuesAsZero, &A::Reverse, &A::UserDefinedOrder);
    ASSERT_EQ(client->CreateAttributeDefinitions(L"t", host.List()), 1);
    const web::json::value document = web::json::value::parse(Received());
    for (std::size_t set = 0; set < 16; ++set) {
        std::vector<bool> flags, expected(16);
        expected[set] = true;
        for (const auto& [key, value] : document.at(set).as_object()) {
            if (value.is_boolean()) {
                flags.push_back(value.as_bool());
            }
        }
        EXPECT_EQ(flags, expected) << "case: flag " << set << " set";
    }
}

// Text that cannot become UTF-8 fails the document before anything is sent, with the error that
// building the document member by member in the order of the host's record would raise, flattened
// to the plain std::exception the host catches.
TEST_F(Connected, UnconvertibleTextFailsBeforeTheRequest) {
    HostDefinitions host;
    DesktopAttributeDTO& attribute = host.Add(L"A");
    attribute.Format = CString(L"x\xD800", 2);              // no low surrogate; built first
    attribute.ClassifiedAttribute = CString(L"\xD800x", 2); // a bad one; first by name
    EXPECT_EQ(ThrownBy([&] { client->CreateAttributeDefinitions(L"t", host.List()); }),
              ThrownBy([] {
                  ThrowPlainException(std::range_error("UTF-16 string is missing low surrogate"));
              }));
    EXPECT_TRUE(service.Requests().empty());
}

} // namespace
