// Table creation and the attribute definitions upload, driven through a connected client against
// a real loopback service: the exact bytes and paths that arrive, and what the host gets back.
// gtest first: cpprestsdk defines a macro U that gtest's headers use as a template parameter.
#include <gtest/gtest.h>

#include "TableRepositoryImport.h"
#include "client/TextConversion.h"
#include "definitions/AttributeDefinitionsJson.h"
#include "support/ConnectedClient.h"
#include "support/RecordingServer.h"

#include <cpprest/http_client.h>
#include <cpprest/json.h>

#include <climits>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using testsupport::ConnectedBy;
using testsupport::ConnectedClient;
using testsupport::RecordedRequest;
using testsupport::RecordingServer;
using testsupport::ScriptedResponse;

namespace {

ScriptedResponse Answer(int status, std::string contentType = "", std::string body = "") {
    ScriptedResponse answer;
    answer.status = status;
    if (!contentType.empty()) {
        answer.headers.push_back({"Content-Type", std::move(contentType)});
    }
    answer.body = std::move(body);
    return answer;
}

std::string Utf8(const CString& text) {
    return ToUtf8(text.GetString(), static_cast<std::size_t>(text.GetLength()));
}

// The host must see exactly the plain std::exception: nothing narrower it could catch, and the
// message of the failure underneath.
void ExpectPlainException(const std::function<void()>& call, const std::string& message) {
    try {
        call();
    } catch (const web::http::http_exception& e) {
        ADD_FAILURE() << "escaped as http_exception: " << e.what();
        return;
    } catch (const web::json::json_exception& e) {
        ADD_FAILURE() << "escaped as json_exception: " << e.what();
        return;
    } catch (const std::runtime_error& e) {
        ADD_FAILURE() << "escaped as a runtime_error: " << e.what();
        return;
    } catch (const std::logic_error& e) {
        ADD_FAILURE() << "escaped as a logic_error: " << e.what();
        return;
    } catch (const std::exception& e) {
        EXPECT_EQ(std::string(e.what()), message);
        return;
    } catch (...) {
        ADD_FAILURE() << "escaped as something other than a std::exception";
        return;
    }
    ADD_FAILURE() << "no exception";
}

// A service address where nobody listens, and the message cpprestsdk itself gives for it.
struct RefusedService {
    RefusedService() {
        {
            RecordingServer closed;
            url = closed.BaseUrl();
        }
        try {
            web::http::client::http_client direct{web::uri(url)};
            direct.request(web::http::methods::POST).get();
        } catch (const std::exception& e) {
            message = e.what();
        }
    }
    std::string url;
    std::string message;
};

// The host's attribute list. It owns its records for the length of a test, as the host does
// for the length of a call.
class HostAttributes {
public:
    DesktopAttributeDTO& Add(const CString& name) {
        auto* attribute = Own(new DesktopAttributeDTO);
        attribute->AttributeName = name;
        m_list.AddTail(attribute);
        return *attribute;
    }
    void AddRange(DesktopAttributeDTO& attribute, int op, const CString& threshold,
                  const std::vector<CString>& valueSet, const CString& className,
                  BOOL unmodified) {
        auto* range = Own(new DesktopValueRangeDTO);
        range->Operator = op;
        range->StringThreshold = threshold;
        for (const CString& v : valueSet) {
            range->ValueSet.AddTail(v);
        }
        range->ClassName = className;
        range->Unmodified = unmodified;
        attribute.ValueRanges.AddTail(range);
    }
    void AddCase(DesktopAttributeDTO& attribute, const CString& condition, const CString& name) {
        auto* c = Own(new DesktopCaseDTO);
        c->Condition = condition;
        c->CaseName = name;
        attribute.Cases.AddTail(c);
    }
    CList<DesktopAttributeDTO*>* List() { return &m_list; }

private:
    template <class Record> Record* Own(Record* record) {
        m_records.emplace_back(record);
        return record;
    }

    CList<DesktopAttributeDTO*> m_list;
    std::vector<std::unique_ptr<CObject>> m_records;
};

class Definitions : public ::testing::Test {
protected:
    // The one request that reached the service.
    RecordedRequest Received() const {
        const std::vector<RecordedRequest> requests = service.Requests();
        if (requests.size() != 1) {
            ADD_FAILURE() << requests.size() << " requests arrived, expected one";
            return {};
        }
        return requests.front();
    }

    RecordingServer service;
    ConnectedClient client{service.BaseUrl()};
};

// ---- CreateTable ----

struct TableBodyCase {
    const char* name;
    CString tableName;
    CString tableClass;
    CString description;
    int overwrite;
    int recordCount;
    std::string body;
};

TEST_F(Definitions, CreateTablePostsTheFiveMembersToImportTables) {
    const TableBodyCase cases[] = {
        {"overwrite 1 asks for an overwrite", L"Sales 2024", L"finance", L"Quarterly figures", 1,
         1200,
         R"({"recordCount":1200,"tableClass":"finance","tableDescription":"Quarterly figures","tableName":"Sales 2024","tableOverwrite":true})"},
        {"overwrite 0", L"T", L"c", L"d", 0, 1,
         R"({"recordCount":1,"tableClass":"c","tableDescription":"d","tableName":"T","tableOverwrite":false})"},
        {"overwrite 2 is not 1", L"T", L"c", L"d", 2, 1,
         R"({"recordCount":1,"tableClass":"c","tableDescription":"d","tableName":"T","tableOverwrite":false})"},
        {"overwrite -1 is not 1", L"T", L"c", L"d", -1, 1,
         R"({"recordCount":1,"tableClass":"c","tableDescription":"d","tableName":"T","tableOverwrite":false})"},
        {"negative record count goes out unchecked", L"T", L"c", L"d", 0, -5,
         R"({"recordCount":-5,"tableClass":"c","tableDescription":"d","tableName":"T","tableOverwrite":false})"},
        {"smallest record count", L"T", L"c", L"d", 1, INT_MIN,
         R"({"recordCount":-2147483648,"tableClass":"c","tableDescription":"d","tableName":"T","tableOverwrite":true})"},
        {"empty strings are sent, not left out", L"", L"", L"", 0, 0,
         R"({"recordCount":0,"tableClass":"","tableDescription":"","tableName":"","tableOverwrite":false})"},
        {"text ends at an embedded NUL", CString(L"Sales\0Q1", 8), CString(L"a\0b", 3),
         CString(L"\0hidden", 7), 0, 3,
         R"({"recordCount":3,"tableClass":"a","tableDescription":"","tableName":"Sales","tableOverwrite":false})"},
        {"non-ASCII as UTF-8, quotes and backslashes escaped", L"Z\u00fcrich \U0001F600",
         L"\xD83D\xDE00", L"say \"hi\"\\ \u20ac", 1, 7,
         R"({"recordCount":7,"tableClass":")"
         "\xf0\x9f\x98\x80"
         R"(","tableDescription":"say \"hi\"\\ )"
         "\xe2\x82\xac"
         R"(","tableName":"Z)"
         "\xc3\xbc"
         R"(rich )"
         "\xf0\x9f\x98\x80"
         R"(","tableOverwrite":true})"},
    };
    for (const TableBodyCase& c : cases) {
        service.Clear();
        client->CreateTable(c.tableName, c.tableClass, c.description, c.overwrite, c.recordCount);
        const RecordedRequest r = Received();
        EXPECT_EQ(r.method, "POST") << "case: " << c.name;
        EXPECT_EQ(r.target, "/Import/Tables") << "case: " << c.name;
        EXPECT_EQ(r.HeaderValue("Content-Type").value_or(""), "application/json")
            << "case: " << c.name;
        EXPECT_EQ(r.body, c.body) << "case: " << c.name;
    }
}

struct TableStatusCase {
    const char* name;
    ScriptedResponse answer;
    int status;
    CString tableId;
};

TEST_F(Definitions, CreateTableReturnsTheIdentifierOnlyFor201) {
    const TableStatusCase cases[] = {
        {"201 with an id", Answer(201, "application/json", R"({"tableID":"t-42","x":1})"), 201,
         L"t-42"},
        {"201 with a non-ASCII id",
         Answer(201, "application/json; charset=utf-8",
                "{\"tableID\":\"Z\xc3\xbcrich \xf0\x9f\x98\x80\"}"),
         201, L"Z\u00fcrich \U0001F600"},
        {"201 with an empty id", Answer(201, "application/json", R"({"tableID":""})"), 201, L""},
        {"200 with an id is not a creation", Answer(200, "application/json", R"({"tableID":"t"})"),
         200, L""},
        {"202 with an id", Answer(202, "application/json", R"({"tableID":"t"})"), 202, L""},
        {"204", Answer(204), 204, L""},
        {"409 with a body that is not JSON", Answer(409, "text/plain", "exists"), 409, L""},
        {"401", Answer(401), 401, L""},
        {"500 with an id", Answer(500, "application/json", R"({"tableID":"t"})"), 500, L""},
    };
    for (const TableStatusCase& c : cases) {
        service.Enqueue(c.answer);
        const auto [status, tableId] = client->CreateTable(L"T", L"c", L"d", 0, 1);
        EXPECT_EQ(status, c.status) << "case: " << c.name;
        EXPECT_EQ(Utf8(tableId), Utf8(c.tableId)) << "case: " << c.name;
        EXPECT_EQ(tableId.GetLength(), c.tableId.GetLength()) << "case: " << c.name;
    }
}

struct TableFailureCase {
    const char* name;
    ScriptedResponse answer;
    std::string message;
};

TEST_F(Definitions, CreateTableFailuresReachTheHostAsPlainExceptions) {
    const TableFailureCase cases[] = {
        {"numeric tableID", Answer(201, "application/json", R"({"tableID":42})"), "not a string"},
        {"missing tableID", Answer(201, "application/json", R"({"tableId":"t"})"),
         "Key not found"},
        {"201 not declared as JSON", Answer(201, "text/plain", R"({"tableID":"t"})"),
         "Incorrect Content-Type: must be textual to extract_string, JSON to extract_json."},
    };
    for (const TableFailureCase& c : cases) {
        SCOPED_TRACE(std::string("case: ") + c.name);
        service.Enqueue(c.answer);
        ExpectPlainException([&] { client->CreateTable(L"T", L"c", L"d", 0, 1); }, c.message);
    }
}

// ---- Attribute definition document ----

// Three attributes: one left at its defaults, a classification with value ranges (one with an
// empty value set) and a case discrimination. Every string, code and most flags differ, so a
// member wired to the wrong key shows in the bytes.
void AddThreeAttributes(HostAttributes& host) {
    host.Add(L"Region");

    DesktopAttributeDTO& revenue = host.Add(L"Umsatz \u20ac");
    revenue.Type = -3;
    revenue.Format = CString(L"0.00\0 hidden", 12);
    revenue.LCID = 1031;
    revenue.IsSummary = 1;
    revenue.IsClassification = 2;
    revenue.IsLink = -1;
    revenue.Level = -2;
    revenue.Id = L"attr-2";
    revenue.UserDefinedOrder = 1;
    revenue.EvalMode = 5;
    revenue.Source = L"Revenue";
    revenue.SummaryPerAttribute = L"Region";
    revenue.ClassifiedAttribute = L"Revenue net";
    host.AddRange(revenue, 3, L"1000", {}, L"gro\u00df", 0);
    host.AddRange(revenue, -1, L"", {L"a", L"b", L"\u00e9t\u00e9"}, L"Set", 2);
    revenue.Formula = L"IF([A]=\"x\";1;0)";
    revenue.ReferencedAttributes = L"Revenue;Region";
    revenue.SummaryType = 7;
    revenue.MarginalValue = L"  0 ";
    revenue.Reverse = 1;
    revenue.IsCoupled = 1;
    revenue.IsLastCoupledAttributeLeads = 1;
    revenue.CoupledAttributes = L"Region|Country";
    revenue.Parent = L"Finanzen \U0001F600";
    revenue.IsDrillDownGroup = 1;
    revenue.ReferencedDrillDownGroup = L"Geo";

    DesktopAttributeDTO& segment = host.Add(L"Segment");
    segment.Type = 2;
    segment.LCID = 1033;
    segment.IsGroup = 1;
    segment.IsCaseDiscrimination = 1;
    segment.Level = 1;
    segment.SummaryType = -1;
    segment.IsExpanded = 1;
    segment.IsFirstCoupledAttribute = 1;
    segment.Parent = L"Umsatz \u20ac";
    host.AddRange(segment, 0, L"", {L"Nord", L"M\u00fcnchen"}, L"", 0);
    host.AddCase(segment, L"[Region]=\"Nord\"", L"North");
    host.AddCase(segment, L"", L"\xD83D\xDE00");
}

const std::string kThreeAttributes =
    R"([{"AttributeName":"Region","Cases":[],"ClassifiedAttribute":"","CoupledAttributes":"",)"
    R"("EvalMode":0,"Format":"","Formula":"","Id":"","IsCaseDiscrimination":false,)"
    R"("IsClassification":false,"IsCoupled":false,"IsCoupledAttributeSortedReverse":false,)"
    R"("IsDrillDownGroup":false,"IsExpanded":false,"IsFirstCoupledAttribute":false,)"
    R"("IsFormula":false,"IsGroup":false,"IsLastCoupledAttributeLeads":false,"IsLink":false,)"
    R"("IsPermanentlyHidden":false,"IsSummary":false,"LCID":0,"Level":0,"MarginalValue":"",)"
    R"("MissingValuesAsZero":false,"Parent":"","ReferencedAttributes":"",)"
    R"("ReferencedDrillDownGroup":"","Reverse":false,"Source":"","SummaryPerAttribute":"",)"
    R"("SummaryType":0,"Type":0,"UserDefinedOrder":false,"ValueRanges":[]},)"

    R"({"AttributeName":"Umsatz )" "\xe2\x82\xac" R"(","Cases":[],)"
    R"("ClassifiedAttribute":"Revenue net","CoupledAttributes":"Region|Country","EvalMode":5,)"
    R"json("Format":"0.00","Formula":"IF([A]=\"x\";1;0)","Id":"attr-2",)json"
    R"("IsCaseDiscrimination":false,"IsClassification":true,"IsCoupled":true,)"
    R"("IsCoupledAttributeSortedReverse":false,"IsDrillDownGroup":true,"IsExpanded":false,)"
    R"("IsFirstCoupledAttribute":false,"IsFormula":false,"IsGroup":false,)"
    R"("IsLastCoupledAttributeLeads":true,"IsLink":true,"IsPermanentlyHidden":false,)"
    R"("IsSummary":true,"LCID":1031,"Level":-2,"MarginalValue":"  0 ",)"
    R"("MissingValuesAsZero":false,"Parent":"Finanzen )" "\xf0\x9f\x98\x80" R"(",)"
    R"("ReferencedAttributes":"Revenue;Region","ReferencedDrillDownGroup":"Geo","Reverse":true,)"
    R"("Source":"Revenue","SummaryPerAttribute":"Region","SummaryType":7,"Type":-3,)"
    R"("UserDefinedOrder":true,"ValueRanges":[)"
    R"({"ClassName":"gro)" "\xc3\x9f" R"(","Operator":3,"StringThreshold":"1000",)"
    R"("Unmodified":false,"ValueSet":[]},)"
    R"({"ClassName":"Set","Operator":-1,"StringThreshold":"","Unmodified":true,)"
    R"("ValueSet":["a","b",")" "\xc3\xa9t\xc3\xa9" R"("]}]},)"

    R"({"AttributeName":"Segment","Cases":[{"CaseName":"North","Condition":"[Region]=\"Nord\""},)"
    R"({"CaseName":")" "\xf0\x9f\x98\x80" R"(","Condition":""}],)"
    R"("ClassifiedAttribute":"","CoupledAttributes":"","EvalMode":0,"Format":"","Formula":"",)"
    R"("Id":"","IsCaseDiscrimination":true,"IsClassification":false,"IsCoupled":false,)"
    R"("IsCoupledAttributeSortedReverse":false,"IsDrillDownGroup":false,"IsExpanded":true,)"
    R"("IsFirstCoupledAttribute":true,"IsFormula":false,"IsGroup":true,)"
    R"("IsLastCoupledAttributeLeads":false,"IsLink":false,"IsPermanentlyHidden":false,)"
    R"("IsSummary":false,"LCID":1033,"Level":1,"MarginalValue":"","MissingValuesAsZero":false,)"
    R"("Parent":"Umsatz )" "\xe2\x82\xac" R"(","ReferencedAttributes":"",)"
    R"("ReferencedDrillDownGroup":"","Reverse":false,"Source":"","SummaryPerAttribute":"",)"
    R"("SummaryType":-1,"Type":2,"UserDefinedOrder":false,"ValueRanges":[)"
    R"({"ClassName":"","Operator":0,"StringThreshold":"","Unmodified":false,)"
    R"("ValueSet":["Nord","M)" "\xc3\xbc" R"(nchen"]}]}])";

TEST_F(Definitions, AttributeDefinitionsGoOutAsOneArrayWithEveryMember) {
    HostAttributes host;
    AddThreeAttributes(host);
    EXPECT_EQ(client->CreateAttributeDefinitions(L"t-1", host.List()), 1);
    const RecordedRequest r = Received();
    EXPECT_EQ(r.method, "POST");
    EXPECT_EQ(r.target, "/Import/Tables/t-1/Attributes");
    EXPECT_EQ(r.HeaderValue("Content-Type").value_or(""), "application/json");
    EXPECT_EQ(r.body, kThreeAttributes);
}

struct FlagCase {
    const char* key;
    BOOL DesktopAttributeDTO::*member;
};

// Attribute i has only flag i set, so a flag read from the wrong member or sent under the wrong
// key shows as a true in the wrong place.
TEST_F(Definitions, EachFlagTravelsUnderItsOwnKeyAndAnyNonZeroIsTrue) {
    const FlagCase flags[] = {
        {"IsGroup", &DesktopAttributeDTO::IsGroup},
        {"IsDrillDownGroup", &DesktopAttributeDTO::IsDrillDownGroup},
        {"IsSummary", &DesktopAttributeDTO::IsSummary},
        {"IsFormula", &DesktopAttributeDTO::IsFormula},
        {"IsClassification", &DesktopAttributeDTO::IsClassification},
        {"IsCaseDiscrimination", &DesktopAttributeDTO::IsCaseDiscrimination},
        {"IsLink", &DesktopAttributeDTO::IsLink},
        {"IsPermanentlyHidden", &DesktopAttributeDTO::IsPermanentlyHidden},
        {"UserDefinedOrder", &DesktopAttributeDTO::UserDefinedOrder},
        {"MissingValuesAsZero", &DesktopAttributeDTO::MissingValuesAsZero},
        {"Reverse", &DesktopAttributeDTO::Reverse},
        {"IsExpanded", &DesktopAttributeDTO::IsExpanded},
        {"IsCoupled", &DesktopAttributeDTO::IsCoupled},
        {"IsFirstCoupledAttribute", &DesktopAttributeDTO::IsFirstCoupledAttribute},
        {"IsLastCoupledAttributeLeads", &DesktopAttributeDTO::IsLastCoupledAttributeLeads},
        {"IsCoupledAttributeSortedReverse", &DesktopAttributeDTO::IsCoupledAttributeSortedReverse},
    };
    // Values a narrowing or a "== 1" test would get wrong.
    const BOOL trueValues[] = {1, 2, -1, 0x10000};
    HostAttributes host;
    std::size_t i = 0;
    for (const FlagCase& c : flags) {
        DesktopAttributeDTO& attribute = host.Add(CString(c.key));
        attribute.*c.member = trueValues[i++ % 4];
    }
    ASSERT_EQ(client->CreateAttributeDefinitions(L"t", host.List()), 1);
    const web::json::value document = web::json::value::parse(Received().body);
    ASSERT_EQ(document.size(), std::size(flags));
    for (std::size_t a = 0; a < std::size(flags); ++a) {
        for (const FlagCase& key : flags) {
            const web::json::value flag =
                document.at(a).at(utility::conversions::to_string_t(key.key));
            ASSERT_TRUE(flag.is_boolean()) << "case: " << flags[a].key << ", key " << key.key;
            EXPECT_EQ(flag.as_bool(), key.key == flags[a].key)
                << "case: " << flags[a].key << " set, key " << key.key;
        }
    }
}

TEST_F(Definitions, BuildersGiveEmptyArraysForEmptyLists) {
    HostAttributes host;
    EXPECT_EQ(BuildAttributeDefinitionsJson(host.List()).serialize(), "[]");
    const DesktopAttributeDTO& bare = host.Add(L"bare");
    EXPECT_EQ(BuildValueRangesJson(bare.ValueRanges).serialize(), "[]");
    EXPECT_EQ(BuildCasesJson(bare.Cases).serialize(), "[]");
}

// ---- CreateAttributeDefinitions ----

struct PathCase {
    const char* name;
    CString tableId;
    std::string path;
};

TEST_F(Definitions, TableIdIsOnePercentEncodedSegmentBeforeAttributes) {
    const PathCase cases[] = {
        {"plain", L"t-17", "/Import/Tables/t-17/Attributes"},
        {"space", L"sales 2024", "/Import/Tables/sales%202024/Attributes"},
        {"slash stays a slash", L"a/b", "/Import/Tables/a/b/Attributes"},
        {"percent", L"100%", "/Import/Tables/100%25/Attributes"},
        {"question mark", L"what?", "/Import/Tables/what%3F/Attributes"},
        {"number sign", L"#1", "/Import/Tables/%231/Attributes"},
        {"non-ASCII", L"Z\u00fcrich \u20ac\U0001F600",
         "/Import/Tables/Z%C3%BCrich%20%E2%82%AC%F0%9F%98%80/Attributes"},
        {"surrogate pair", L"\xD83D\xDE00", "/Import/Tables/%F0%9F%98%80/Attributes"},
        {"empty adds no segment", L"", "/Import/Tables/Attributes"},
        {"ends at an embedded NUL", CString(L"ab\0cd", 5), "/Import/Tables/ab/Attributes"},
    };
    HostAttributes none;
    for (const PathCase& c : cases) {
        service.Clear();
        EXPECT_EQ(client->CreateAttributeDefinitions(c.tableId, none.List()), 1)
            << "case: " << c.name;
        const RecordedRequest r = Received();
        EXPECT_EQ(r.target, c.path) << "case: " << c.name;
        EXPECT_EQ(r.body, "[]") << "case: " << c.name;
    }
}

struct AcceptCase {
    const char* name;
    ScriptedResponse answer;
    int result;
};

TEST_F(Definitions, AttributeDefinitionsAreAcceptedOnlyWith200) {
    const AcceptCase cases[] = {
        {"200", Answer(200), 1},
        {"200 with a body", Answer(200, "application/json", "{}"), 1},
        {"201 is not 200", Answer(201, "application/json", R"({"tableID":"t"})"), 0},
        {"204", Answer(204), 0},
        {"400", Answer(400), 0},
        {"404", Answer(404), 0},
        {"500", Answer(500, "text/plain", "boom"), 0},
    };
    HostAttributes none;
    for (const AcceptCase& c : cases) {
        service.Enqueue(c.answer);
        EXPECT_EQ(client->CreateAttributeDefinitions(L"t", none.List()), c.result)
            << "case: " << c.name;
    }
}

TEST_F(Definitions, AttributeDefinitionFailuresReachTheHostAsPlainExceptions) {
    HostAttributes host;
    // A lone high surrogate cannot become UTF-8: the document fails while it is built.
    host.Add(CString(L"A\xD800", 2));
    ExpectPlainException([&] { client->CreateAttributeDefinitions(L"t", host.List()); },
                         "UTF-16 string is missing low surrogate");
    EXPECT_TRUE(service.Requests().empty());
}

TEST(DefinitionsRefused, TransportFailuresReachTheHostAsPlainExceptions) {
    const RefusedService refused;
    ASSERT_FALSE(refused.message.empty());
    ConnectedClient client(refused.url);
    HostAttributes none;
    {
        SCOPED_TRACE("case: CreateTable");
        ExpectPlainException([&] { client->CreateTable(L"T", L"c", L"d", 1, 1); },
                             refused.message);
    }
    {
        SCOPED_TRACE("case: CreateAttributeDefinitions");
        ExpectPlainException([&] { client->CreateAttributeDefinitions(L"t", none.List()); },
                             refused.message);
    }
}

TEST(DefinitionsAddress, AServicePathOfItsOwnIsReplaced) {
    RecordingServer service;
    ConnectedClient client(service.BaseUrl() + "/virtual/dir/");
    HostAttributes none;
    client->CreateTable(L"T", L"c", L"d", 0, 1);
    client->CreateAttributeDefinitions(L"t 1", none.List());
    const std::vector<RecordedRequest> requests = service.Requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].target, "/Import/Tables");
    EXPECT_EQ(requests[1].target, "/Import/Tables/t%201/Attributes");
}

TEST(DefinitionsProxy, BothOperationsGoThroughTheRequestPipeline) {
    RecordingServer service;
    ConnectedClient client(service.BaseUrl(), ConnectedBy::Proxy);
    client.Proxy().Enqueue(Answer(201, "application/json", R"({"tableID":"via-proxy"})"));
    const auto [status, tableId] = client->CreateTable(L"T", L"c", L"d", 1, 2);
    EXPECT_EQ(status, 201);
    EXPECT_EQ(Utf8(tableId), "via-proxy");
    HostAttributes none;
    EXPECT_EQ(client->CreateAttributeDefinitions(tableId, none.List()), 1);

    EXPECT_TRUE(service.Requests().empty());
    const std::vector<RecordedRequest> forwarded = client.Proxy().Requests();
    ASSERT_EQ(forwarded.size(), 2u);
    EXPECT_EQ(forwarded[0].path, "/forward/Import/Tables");
    EXPECT_EQ(forwarded[0].body,
              R"({"recordCount":2,"tableClass":"c","tableDescription":"d","tableName":"T","tableOverwrite":true})");
    EXPECT_EQ(forwarded[1].path, "/forward/Import/Tables/via-proxy/Attributes");
    EXPECT_EQ(forwarded[1].body, "[]");
}

// The whole document travels in one request, however large. 2,000 attributes of 20 value
// ranges each is the size a wide host table reaches.
TEST_F(Definitions, LargeDocumentIsBuiltAndSentWhole) {
    constexpr int kAttributes = 2000;
    constexpr int kRanges = 20;
    HostAttributes host;
    for (int a = 0; a < kAttributes; ++a) {
        DesktopAttributeDTO& attribute = host.Add(CString(("A" + std::to_string(a)).c_str()));
        for (int r = 0; r < kRanges; ++r) {
            host.AddRange(attribute, r, L"", {L"x", L"y"}, CString(std::to_string(r).c_str()), 0);
        }
    }
    const web::json::value built = BuildAttributeDefinitionsJson(host.List());
    ASSERT_EQ(built.size(), static_cast<std::size_t>(kAttributes));

    ASSERT_EQ(client->CreateAttributeDefinitions(L"big", host.List()), 1);
    const web::json::value received = web::json::value::parse(Received().body);
    ASSERT_EQ(received.size(), static_cast<std::size_t>(kAttributes));
    for (int a = 0; a < kAttributes; a += 999) {
        const web::json::value& attribute = received.at(static_cast<std::size_t>(a));
        EXPECT_EQ(attribute.at(U("AttributeName")).as_string(), U("A") + utility::conversions::to_string_t(std::to_string(a)));
        const web::json::value& ranges = attribute.at(U("ValueRanges"));
        ASSERT_EQ(ranges.size(), static_cast<std::size_t>(kRanges));
        EXPECT_EQ(ranges.at(kRanges - 1).at(U("ClassName")).as_string(),
                  utility::conversions::to_string_t(std::to_string(kRanges - 1)));
        EXPECT_EQ(ranges.at(kRanges - 1).at(U("ValueSet")).size(), 2u);
    }
    std::size_t ranges = 0;
    for (std::size_t a = 0; a < received.size(); ++a) {
        ranges += received.at(a).at(U("ValueRanges")).size();
    }
    EXPECT_EQ(ranges, static_cast<std::size_t>(kAttributes * kRanges));
}

} // namespace
