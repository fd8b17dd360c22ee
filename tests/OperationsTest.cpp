// The service operations. First the rules they share, each checked over one table of the
// operations: which status counts as success, and where the request goes (names percent-encoded,
// the service address's own path replaced but its query kept, through the authentication proxy
// when the connection test chose it). Then what only table creation and the attribute definitions
// upload have: the exact bytes of their bodies, and text that fails the document before anything
// is sent. Last, how a server's bad answers reach the host, and servers TLS cannot trust.
// gtest first: cpprestsdk defines a macro U that gtest's headers use as a template parameter.
#include <gtest/gtest.h>

#include "client/PlainException.h"
#include "client/TextConversion.h"
#include "support/ConnectedClient.h"
#include "support/HostRecords.h"
#include "support/Process.h"
#include "support/TestCertificates.h"
#include "support/Thrown.h"

#include <boost/asio/write.hpp>
#include <cpprest/http_msg.h>
#include <cpprest/json.h>

#include <climits>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using namespace testsupport;
using web::http::http_exception;
using web::json::json_exception;

// The code paths a fault's outcome depends on; the first two never authenticate.
enum class Path { ProxyCall, Connection, JsonValue, JsonText, ValueIdTask, CreateTable };

std::string Utf8(const CString& text) { return ToUtf8(text.GetString()); }

ScriptedResponse Json(int status, std::string body) {
    return {status, {{"Content-Type", "application/json"}}, std::move(body), false, {}};
}

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
    Path path;
    const char* address; // {t} and {a}: the table and the attribute, each one encoded segment
    const char* body;
    bool flattens; // failures reach the host as the library's plain std::exception
    // Runs the operation on table t and attribute a, the host's one column.
    std::function<Seen(CTableRepositoryImport&, Text t, Text a, HostTable&)> run;
};

// In the order of their code paths: the fault table meets the first of each.
const Operation kOperations[] = {
    {"IsAuthorized", Path::JsonValue, "/Import/Authorization", R"({"tableClass":"Sales"})", false,
     [](auto& c, Text, Text, auto&) { return c.IsAuthorized(L"Sales"); }},
    {"BeginDistinctValues", Path::JsonValue, "/Import/Tables/{t}/DistinctValues/{a}/Begin", "null",
     false, [](auto& c, Text t, Text a, auto&) { return c.BeginDistinctValues(t, a); }},
    {"EndDistinctValues", Path::JsonValue, "/Import/Tables/{t}/DistinctValues/{a}/End", "null",
     false, [](auto& c, Text t, Text a, auto&) { return c.EndDistinctValues(t, a); }},
    {"BeginImportValueIds", Path::JsonValue, "/Import/Tables/{t}/ValueIds/{a}/Begin", "null", false,
     [](auto& c, Text t, Text, auto& h) { return c.BeginImportValueIds(t, h.Attributes()); }},
    {"EndImportValueIds", Path::JsonValue, "/Import/Tables/{t}/ValueIds/{a}/End", "null", false,
     [](auto& c, Text t, Text, auto& h) { return c.EndImportValueIds(t, h.Attributes()); }},
    {"EndImport", Path::JsonValue, "/Import/Tables/{t}/End", "null", false,
     [](auto& c, Text t, Text, auto&) { return c.EndImport(t); }},
    {"ImportDistinctValuesChunk", Path::JsonText, "/Import/Tables/{t}/DistinctValues/{a}",
     R"(["x"])", false,
     [](auto& c, Text t, Text a, auto& h) {
         return c.ImportDistinctValuesChunk(t, a, 0, 1, h.DistinctValues(0), 0);
     }},
    {"CreateAttributeDefinitions", Path::JsonText, "/Import/Tables/{t}/Attributes", "[]", true,
     [](auto& c, Text t, Text, auto&) {
         return c.CreateAttributeDefinitions(t, HostDefinitions().List());
     }},
    {"ImportValueIdsChunk", Path::ValueIdTask, "/Import/Tables/{t}/ValueIds/{a}", "[7,8]", true,
     [](auto& c, Text t, Text, auto& h) {
         return c.ImportValueIdsChunk(t, 0, 2, h.Attributes(), 0);
     }},
    // Non-ASCII as UTF-8, quotes and backslashes escaped, overwrite 1 sent as true.
    {"CreateTable", Path::CreateTable, "/Import/Tables",
     R"({"recordCount":7,"tableClass":"😀","tableDescription":"say \"hi\"\\ €",)"
     R"("tableName":"Zürich 😀","tableOverwrite":true})",
     true,
     [](auto& c, Text, Text, auto&) {
         return c.CreateTable(L"Z\u00fcrich \U0001F600", L"\xD83D\xDE00", L"say \"hi\"\\ \u20ac", 1,
                              7);
     }},
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
    const std::string path = std::regex_replace(op.address, std::regex("\\{t\\}"), table);
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

// Each operation meets every status somewhere over the routes and names.
TEST(Operations, PostTheirBodyToTheirPathAndSucceedOnlyWithTheirOwnStatus) {
    const int statuses[] = {200, 201, 202, 204, 400, 401, 404, 500};
    RecordingServer service;
    for (const Route& route : kRoutes) {
        ConnectedClient client(service.BaseUrl() + route.servicePath, route.by);
        const bool proxied = route.by == ConnectedBy::Proxy;
        RecordingServer& receiver = proxied ? client.Proxy() : service;
        service.Clear();
        for (const Operation& op : kOperations) {
            for (const NameCase& n : kNames) {
                const int status =
                    statuses[(4 * (&route - kRoutes) + (&op - kOperations) + (&n - kNames)) % 8];
                const std::string label = std::string(route.name) + ", " + op.name + ", " + n.name +
                                          ", answered " + std::to_string(status);
                receiver.Clear();
                // Every answer but a 204 carries the table id.
                receiver.SetDefault(
                    Json(status, status == 204 ? "" : R"({"tableID":")" + kTableId + "\"}"));
                // CreateTable hands over the status, and with a 201 the table id.
                EXPECT_EQ(Perform(op, *client, n.text, L"A" + n.text),
                          op.path != Path::CreateTable
                              ? std::to_string(status == 200)
                              : std::to_string(status) + " " + (status == 201 ? kTableId : ""))
                    << "case: " << label;
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
    DesktopValueRangeDTO& threshold = host.Append(a.ValueRanges);
    threshold.Operator = 3;
    threshold.StringThreshold = L"1000";
    threshold.ClassName = L"gro\u00df";
    DesktopValueRangeDTO& set = host.Append(a.ValueRanges);
    set.Operator = -1;
    set.ValueSet.AddTail(L"a");
    set.ValueSet.AddTail(L"b");
    set.ValueSet.AddTail(L"\u00e9t\u00e9");
    set.ClassName = L"Set";
    set.Unmodified = 2;
    DesktopCaseDTO& north = host.Append(a.Cases);
    north.Condition = L"[Region]=\"Nord\"";
    north.CaseName = L"North";
    host.Append(a.Cases).CaseName = L"\xD83D\xDE00";

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
    BOOL A::*const flags[] = {&A::IsCaseDiscrimination,
                              &A::IsClassification,
                              &A::IsCoupled,
                              &A::IsCoupledAttributeSortedReverse,
                              &A::IsDrillDownGroup,
                              &A::IsExpanded,
                              &A::IsFirstCoupledAttribute,
                              &A::IsFormula,
                              &A::IsGroup,
                              &A::IsLastCoupledAttributeLeads,
                              &A::IsLink,
                              &A::IsPermanentlyHidden,
                              &A::IsSummary,
                              &A::MissingValuesAsZero,
                              &A::Reverse,
                              &A::UserDefinedOrder};
    const BOOL trueValues[] = {1, 2, -1, 0x10000};
    HostDefinitions host;
    for (std::size_t i = 0; i < 16; ++i) {
        host.Add(L"").*flags[i] = trueValues[i % 4];
    }
    ASSERT_EQ(client->CreateAttributeDefinitions(L"t", host.List()), 1);
    const web::json::value document = web::json::value::parse(Received());
    for (std::size_t set = 0; set < 16; ++set) {
        std::string seen;
        for (const auto& [key, value] : document.at(set).as_object()) {
            seen += value.is_boolean() ? (value.as_bool() ? "1" : "0") : "";
        }
        EXPECT_EQ(seen, std::string(16, '0').replace(set, 1, "1"))
            << "case: flag " << set << " set";
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

// How a server's bad answers reach the host. An outcome depends on the code path an operation
// takes, so each path meets each kind of bad answer once, and every operation meets those where
// operations differ (flattening, reading the body). Each case pins the exact outcome, that the one
// request arrived, that every connection ended and that no thread is left behind. The server is
// the recording server on lxrepo-server's HTTP core: it reads each request in full; a broken
// answer goes out as raw bytes on the connection, which then ends.

// Runs the call against the server at url; arm() turns its good answers into the bad one.
using Run = std::function<std::string(const std::string& url, const std::function<void()>& arm)>;

struct Call {
    const char* name;
    Path path;
    bool flattens;
    Run run;
    std::string success = "returned"; // what the host sees for the good answer
    ScriptedResponse good = Json(200, "{}");
    bool ReadsBody() const { return path == Path::Connection || path == Path::CreateTable; }
};

// A new client registered with the proxy at url (or unregistered from it).
std::unique_ptr<CTableRepositoryImport> ProxyClient(const std::string& url, bool registered) {
    std::unique_ptr<CTableRepositoryImport> client(
        static_cast<CTableRepositoryImport*>(new_TableRepositoryImport()));
    CAuthenticationProxyConfiguration config;
    config.proxyBaseUri = Wide(url);
    registered ? client->RegisterWithAuthenticationProxy(config)
               : void(client->UnregisterFromAuthenticationProxy(config));
    return client;
}

// The proxy's calls and the connection test, then the service operations, each on a client
// connected the way a host connects it.
const std::vector<Call>& Calls() {
    static const std::vector<Call> calls = [] {
        std::vector<Call> calls = {
            {"RegisterWithAuthenticationProxy", Path::ProxyCall, false,
             [](auto& url, auto&) { return ProxyClient(url, true), "returned"; }},
            {"UnregisterFromAuthenticationProxy", Path::ProxyCall, false,
             [](auto& url, auto&) { return ProxyClient(url, false), "returned"; }},
            // The registration is answered well; the bad answer is the version question's.
            {"TestConnection", Path::Connection, false,
             [](auto& url, auto& arm) {
                 const auto client = ProxyClient(url, true);
                 arm();
                 const TestConnectionResult r = client->TestConnection(L"http://repo.test:1");
                 return "status " + std::to_string(r.status) + " version " + Utf8(r.version);
             },
             "status 3 version 1.0.0", Json(200, R"({"version":"1.0.0"})")},
        };
        for (const Operation& op : kOperations) {
            const bool created = op.path == Path::CreateTable;
            const Run run = [&op](auto& url, auto&) {
                return Perform(op, *ConnectedClient(url), L"T1", L"a");
            };
            calls.push_back({op.name, op.path, op.flattens, run, created ? "201 T1" : "1",
                             created ? Json(201, R"({"tableID":"T1"})") : Json(200, "{}")});
        }
        return calls;
    }();
    return calls;
}

// An answer's head as raw bytes, written by hand: Beast refuses header values over 64 KiB.
std::string Head(const ScriptedResponse& answer, std::size_t contentLength) {
    std::string head = "HTTP/1.1 " + std::to_string(answer.status) + " Status\r\n";
    for (const Header& header : answer.headers) {
        head += header.name + ": " + header.value + "\r\n";
    }
    return head + "Content-Length: " + std::to_string(contentLength) + "\r\n\r\n";
}

// Which operations meet a bad answer: all of them, or the first of each path it applies to.
enum class Meets { Every, EachPath, EachNtlmPath, EachJsonPath };

struct BadAnswer {
    const char* name;
    Meets meets;
    // Turns the good answer, with its head as raw bytes, into the bad one (a raw answer ends the
    // connection); none: nothing listens on the port.
    std::function<void(ScriptedResponse& answer, const std::string& head)> spoil;
    Thrown thrown;                // what the host sees, or kNothing for the good answer's result
    bool onlyReadersFail = false; // operations that do not read the body see the good result
};

// A TLS record header, NUL and high bytes, and a line break.
const char kGarbage[] = "\x16\x03\x01\x00\xa5\x01\x00\x00\xa1\x03\x03\xff\xfe garbage\r\n\r\n";

template <bool raw = false> auto Challenge(std::string value) {
    return [value](ScriptedResponse& a, auto&) {
        a = {401, {{"WWW-Authenticate", value}}, "", false, {}};
        a.raw = raw ? std::optional(Head(a, 0)) : std::nullopt;
    };
}

const std::vector<BadAnswer>& BadAnswers() {
    const Thrown statusLine = Expected<http_exception>("Failed to read HTTP status line");
    const Thrown body = Expected<http_exception>("Failed to read response body");
    static const std::vector<BadAnswer> bads = {
        {"Refused", Meets::EachPath, nullptr,
         Expected<http_exception>("Failed to connect to any resolved endpoint")},
        {"CloseBeforeAnswer", Meets::Every, [](auto& a, auto&) { a.raw = ""; }, statusLine},
        {"CloseInHeaders", Meets::EachPath,
         [](auto& a, auto& head) { a.raw = head.substr(0, head.size() / 2); }, statusLine},
        // cpprestsdk completes a response once its head is in; only a reader of the body fails.
        {"CloseInBody", Meets::Every,
         [](auto& a, auto& head) { a.raw = head + a.body.substr(0, a.body.size() / 2); }, body,
         true},
        {"ContentLengthTooLarge", Meets::EachPath,
         [](auto& a, auto&) { a.raw = Head(a, a.body.size() + 1000) + a.body; }, body, true},
        {"Garbage", Meets::EachPath, [](auto& a, auto&) { a.raw.emplace(kGarbage, 25); },
         Expected<http_exception>("Invalid HTTP status line")},
        // Blanks after the good JSON: still the same document to a JSON reader.
        {"Body100MB", Meets::EachPath,
         [](auto& a, auto&) { a.body += std::string(100 << 20, ' '); }, kNothing},
        {"NtlmChallengeEmpty", Meets::EachNtlmPath, Challenge("NTLM"),
         Expected<std::out_of_range>("invalid string position")},
        {"NtlmChallengeNotBase64", Meets::EachNtlmPath, Challenge("NTLM ####****"),
         Expected<std::runtime_error>("invalid character found in base64 string")},
        {"NtlmChallengeHuge", Meets::EachNtlmPath,
         Challenge<true>(
             "NTLM " + utility::conversions::to_base64(std::vector<unsigned char>(1 << 20, 0x4e))),
         kResourceException},
        {"JsonMalformed", Meets::EachJsonPath, [](auto& a, auto&) { a.body = R"({"a": nope})"; },
         Expected<json_exception>("* Line 1, Column 8 Syntax error: Malformed literal")},
        {"JsonTruncated", Meets::EachJsonPath, [](auto& a, auto&) { a.body.resize(8); },
         Expected<json_exception>("* Line 1, Column 3 Syntax error: Malformed string literal")},
        // cpprestsdk's reader gives up at a depth of 128 rather than recursing 100,000 deep.
        {"JsonNested100000", Meets::EachJsonPath,
         [](auto& a, auto&) { a.body = std::string(100000, '[') + std::string(100000, ']'); },
         Expected<json_exception>("* Line 1, Column 130 Syntax error: Nesting too deep")},
        // The one member's string value becomes a number.
        {"JsonWrongType", Meets::EachJsonPath,
         [](auto& a, auto&) { a.body = a.body.substr(0, a.body.find(':') + 1) + "2}"; },
         Expected<json_exception>("not a string")},
    };
    return bads;
}

// Not even the head is complete before five seconds have passed; the body comes within two more.
RecordingServer::Handler Trickle(const ScriptedResponse& good) {
    const std::string all = Head(good, good.body.size()) + good.body;
    const std::size_t from = all.size() - good.body.size() - 5; // the head's last five bytes
    return [=](const RecordedRequest&, ConnectionContext& c) {
        boost::system::error_code ec;
        boost::asio::write(*c.socket, boost::asio::buffer(all.data(), from), ec);
        for (std::size_t at = from; at < all.size() && !ec; ++at) {
            std::this_thread::sleep_for(
                at < from + 5 ? 1000ms : 2000ms / static_cast<int>(good.body.size()));
            boost::asio::write(*c.socket, boost::asio::buffer(&all[at], 1), ec);
        }
        return ScriptedResponse{200, {}, "", true, ""};
    };
}

// True once no loopback TCP connection with the port at either end is established: no line of
// the kernel's table has it as the local end ("...:PORT remote 01 ") or the remote one (":PORT 01
// ").
bool ConnectionsEnd(unsigned short port) {
    char hex[5];
    std::snprintf(hex, sizeof hex, "%04X", port);
    const std::regex established(std::string(":") + hex + " ([0-9A-F]{8}:[0-9A-F]{4} )?01 ");
    for (const auto until = std::chrono::steady_clock::now() + 60s;
         std::chrono::steady_clock::now() < until; std::this_thread::sleep_for(10ms)) {
        std::ostringstream table;
        table << std::ifstream("/proc/net/tcp").rdbuf();
        if (!std::regex_search(table.str(), established)) {
            return true;
        }
    }
    return false;
}

// Runs the case and checks all but the threads; returns the case's name.
std::string Check(const Call& op, const BadAnswer& bad, bool trickle = false) {
    const std::string name = std::string(op.name) + " / " + bad.name;
    auto server = std::make_unique<RecordingServer>(bad.meets == Meets::EachNtlmPath ? "127.0.0.2"
                                                                                     : "127.0.0.1");
    const unsigned short port = server->Port();
    const std::string url = server->BaseUrl();
    const auto arm = [&] {
        if (!bad.spoil) {
            server.reset(); // from now on nothing listens on the port
            return;
        }
        ScriptedResponse answer = op.good;
        bad.spoil(answer, Head(answer, answer.body.size()));
        server->Clear();
        server->SetHandler(trickle ? Trickle(answer) : [answer](auto&, auto&) { return answer; });
    };
    if (op.path != Path::Connection) {
        arm();
    }
    std::string result;
    const auto started = std::chrono::steady_clock::now();
    const Thrown thrown = ThrownBy([&] { result = op.run(url, arm); });
    // A slow answer is waited for rather than given up on.
    EXPECT_TRUE(!trickle || std::chrono::steady_clock::now() - started > 4s) << "case: " << name;
    static const std::string plain = ThrownBy([] { ThrowPlainException(std::exception()); }).type;
    Thrown documented = bad.onlyReadersFail && !op.ReadsBody() ? kNothing : bad.thrown;
    // Flattened, unless nothing was thrown or a CResourceException, which is no std::exception.
    documented.type = op.flattens && !documented.message.empty() ? plain : documented.type;
    EXPECT_EQ(thrown, documented) << "case: " << name;
    EXPECT_EQ(result, thrown == kNothing ? op.success : "") << "case: " << name;
    // The outcome came from the bad answer: the request reached the server (unless nothing
    // listened), and only once.
    EXPECT_EQ(server ? server->Requests().size() : 0u, bad.spoil ? 1u : 0u) << "case: " << name;
    // cpprestsdk reads to its end a body nobody asked for; then the library holds no connection.
    EXPECT_TRUE(ConnectionsEnd(port)) << "case: " << name;
    return name;
}

std::size_t ThreadCount() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

// Before a test's first case: cpprestsdk starts its thread pool with the first request of the
// process and keeps it, so one request first makes the pool part of the baseline; and the NTLM
// handshake, which runs only for a service that is not on this machine by name (127.0.0.2 stands
// in for one), takes its default credentials from gss-ntlmssp's user file, one per process as
// tests run in parallel.
std::size_t Baseline() {
    const std::string users = ::testing::TempDir() + std::to_string(getpid()) + "-fault.users";
    std::ofstream(users) << "TESTDOM:alice:Correct-Horse-1\n";
    setenv("NTLM_USER_FILE", users.c_str(), 1);
    ThrownBy([] { ProxyClient("http://127.0.0.1:" + std::to_string(FreePort()), true); });
    return ThreadCount();
}

// At the end of a test. When a connection breaks inside a response body, cpprestsdk closes that
// response's streams through continuations it queues on its pool, after the operation has
// returned; a process that exits before the pool has run them leaves the chain behind, and
// LeakSanitizer reports it (about one case in a hundred). A few rounds through the pool let them
// run.
void ExpectNoThreadLeft(std::size_t baseline, const std::string& name, bool last = false) {
    for (int round = 0; last && round < 5; ++round) {
        pplx::create_task([] {}).wait();
        std::this_thread::sleep_for(50ms);
    }
    // Threads that were ending when the servers closed get a moment to be gone.
    for (int i = 0; i < 50 && ThreadCount() > baseline; ++i) {
        std::this_thread::sleep_for(20ms);
    }
    EXPECT_EQ(ThreadCount(), baseline) << "case: " << name;
}

TEST(Faults, EachPathMeetsEachBadAnswer) {
    const std::size_t baseline = Baseline();
    std::set<Path> seen;
    for (const Call& op : Calls()) {
        const bool first = seen.insert(op.path).second;
        // In the order of Meets.
        const bool meets[] = {true, first, first && op.path > Path::Connection,
                              first && op.ReadsBody()};
        for (const BadAnswer& bad : BadAnswers()) {
            if (meets[static_cast<int>(bad.meets)]) {
                ExpectNoThreadLeft(baseline, Check(op, bad));
            }
        }
    }
    ExpectNoThreadLeft(baseline, "after the last case", true);
}

// Every operation at once against a slow answer.
TEST(Faults, SlowAnswersAreWaitedForByEveryOperation) {
    const std::size_t baseline = Baseline();
    const BadAnswer slow{"Slow", Meets::Every, [](auto&, auto&) {}, kNothing};
    std::vector<std::future<void>> calls;
    for (const Call& op : Calls()) {
        calls.push_back(std::async(std::launch::async, [&] { Check(op, slow, true); }));
    }
    calls.clear(); // waits for every call
    ExpectNoThreadLeft(baseline, "Slow", true);
}

// The handshake fails before a request is written: the refused server records nothing, and the
// host gets cpprestsdk's own error for it.
TEST(Faults, UntrustedTlsServersAreRefusedBeforeAnyRequest) {
    const TestCertificates& certificates = Certificates();
    const Thrown refused = Expected<http_exception>("Error in SSL handshake");
    const struct {
        const char* name;
        const TlsFiles* tls; // nullptr: a plain HTTP server at the https address
        Thrown thrown;
    } cases[] = {
        {"trusted", &certificates.trusted, kNothing},
        {"another_authority", &certificates.otherAuthority, refused},
        {"expired", &certificates.expired, refused},
        {"other_host_name", &certificates.otherName, refused},
        {"plain_http", nullptr, refused},
    };
    for (const auto& c : cases) {
        RecordingServer server("127.0.0.1", c.tls);
        ConnectedClient client("https://127.0.0.1:" + std::to_string(server.Port()));
        const Thrown thrown = ThrownBy([&] { client->IsAuthorized(L"Sales"); });
        EXPECT_EQ(thrown, c.thrown) << "case: " << c.name;
        EXPECT_EQ(server.Requests().size(), thrown == kNothing ? 1u : 0u) << "case: " << c.name;
    }
}

} // namespace
