// Table creation and the attribute definitions upload through a connected client: the exact
// bytes that arrive, and text that fails the document before anything is sent. What these two
// share with every operation (status, address, proxy, transport failure) is in OperationsTest.
// gtest first: cpprestsdk defines a macro U that gtest's headers use as a template parameter.
#include <gtest/gtest.h>

#include "client/PlainException.h"
#include "definitions/AttributeDefinitionsJson.h"
#include "support/ConnectedClient.h"
#include "support/HostRecords.h"
#include "support/Thrown.h"

#include <cpprest/json.h>

#include <climits>
#include <string>

using namespace testsupport;

namespace {

// The host can catch a failure of these two operations only as std::exception.
Thrown Flattened(const std::string& message) {
    return ThrownBy([&] { ThrowPlainException(std::runtime_error(message)); });
}

class Definitions : public ::testing::Test {
protected:
    // The body of the one request that reached the service.
    std::string Received() const {
        const auto requests = service.Requests();
        return requests.size() == 1 ? requests[0].body : std::to_string(requests.size()) + " requests";
    }

    RecordingServer service;
    ConnectedClient client{service.BaseUrl()};
};

struct TableBodyCase {
    const char* name;
    CString tableName, tableClass, description;
    int overwrite, recordCount;
    std::string body;
};

TEST_F(Definitions, CreateTableSendsTheFiveMembers) {
    const TableBodyCase cases[] = {
        {"overwrite 1; non-ASCII as UTF-8, quotes and backslashes escaped",
         L"Z\u00fcrich \U0001F600", L"\xD83D\xDE00", L"say \"hi\"\\ \u20ac", 1, 7,
         R"({"recordCount":7,"tableClass":")" "\xf0\x9f\x98\x80" R"(","tableDescription":"say \"hi\"\\ )"
         "\xe2\x82\xac" R"(","tableName":"Z)" "\xc3\xbc" "rich \xf0\x9f\x98\x80" R"(","tableOverwrite":true})"},
        {"overwrite 2 is not 1; empty texts are sent", L"", L"", L"", 2, INT_MIN,
         R"({"recordCount":-2147483648,"tableClass":"","tableDescription":"","tableName":"","tableOverwrite":false})"},
    };
    for (const TableBodyCase& c : cases) {
        service.Clear();
        client->CreateTable(c.tableName, c.tableClass, c.description, c.overwrite, c.recordCount);
        EXPECT_EQ(Received(), c.body) << "case: " << c.name;
    }
}

// One attribute left at its defaults and one with every text and code member set, all different,
// with value ranges (one with an empty value set) and cases, so a member wired to the wrong key
// shows in the bytes. The flags have a test of their own below.
TEST_F(Definitions, TheAttributeDocumentCarriesEveryMember) {
    HostDefinitions host;
    host.Add(L"Region");
    DesktopAttributeDTO& a = host.Add(L"Umsatz \u20ac");
    a.Type = -3; a.LCID = 1031; a.Level = -2; a.EvalMode = 5; a.SummaryType = 7;
    a.Format = CString(L"0.00\0 hidden", 12); a.Id = L"attr-2"; a.Source = L"Revenue";
    a.SummaryPerAttribute = L"Region"; a.ClassifiedAttribute = L"Revenue net";
    a.Formula = L"IF([A]=\"x\";1;0)"; a.ReferencedAttributes = L"Revenue;Region";
    a.MarginalValue = L"  0 "; a.CoupledAttributes = L"Region|Country";
    a.Parent = L"Finanzen \U0001F600"; a.ReferencedDrillDownGroup = L"Geo";
    host.AddRange(a, 3, L"1000", {}, L"gro\u00df", 0);
    host.AddRange(a, -1, L"", {L"a", L"b", L"\u00e9t\u00e9"}, L"Set", 2);
    host.AddCase(a, L"[Region]=\"Nord\"", L"North");
    host.AddCase(a, L"", L"\xD83D\xDE00");

    EXPECT_EQ(client->CreateAttributeDefinitions(L"t-1", host.List()), 1);
    const std::string flags =
        R"("IsCaseDiscrimination":false,"IsClassification":false,"IsCoupled":false,)"
        R"("IsCoupledAttributeSortedReverse":false,"IsDrillDownGroup":false,"IsExpanded":false,)"
        R"("IsFirstCoupledAttribute":false,"IsFormula":false,"IsGroup":false,)"
        R"("IsLastCoupledAttributeLeads":false,"IsLink":false,"IsPermanentlyHidden":false,)"
        R"("IsSummary":false,)";
    EXPECT_EQ(Received(),
        R"([{"AttributeName":"Region","Cases":[],"ClassifiedAttribute":"","CoupledAttributes":"",)"
        R"("EvalMode":0,"Format":"","Formula":"","Id":"",)" + flags +
        R"("LCID":0,"Level":0,"MarginalValue":"","MissingValuesAsZero":false,"Parent":"",)"
        R"("ReferencedAttributes":"","ReferencedDrillDownGroup":"","Reverse":false,"Source":"",)"
        R"("SummaryPerAttribute":"","SummaryType":0,"Type":0,"UserDefinedOrder":false,)"
        R"("ValueRanges":[]},)"
        R"({"AttributeName":"Umsatz )" "\xe2\x82\xac" R"(","Cases":[{"CaseName":"North",)"
        R"("Condition":"[Region]=\"Nord\""},{"CaseName":")" "\xf0\x9f\x98\x80" R"(","Condition":""}],)"
        R"("ClassifiedAttribute":"Revenue net","CoupledAttributes":"Region|Country","EvalMode":5,)"
        R"json("Format":"0.00","Formula":"IF([A]=\"x\";1;0)","Id":"attr-2",)json" + flags +
        R"("LCID":1031,"Level":-2,"MarginalValue":"  0 ","MissingValuesAsZero":false,)"
        R"("Parent":"Finanzen )" "\xf0\x9f\x98\x80" R"(","ReferencedAttributes":"Revenue;Region",)"
        R"("ReferencedDrillDownGroup":"Geo","Reverse":false,"Source":"Revenue",)"
        R"("SummaryPerAttribute":"Region","SummaryType":7,"Type":-3,"UserDefinedOrder":false,)"
        R"("ValueRanges":[{"ClassName":"gro)" "\xc3\x9f" R"(","Operator":3,"StringThreshold":"1000",)"
        R"("Unmodified":false,"ValueSet":[]},{"ClassName":"Set","Operator":-1,)"
        R"("StringThreshold":"","Unmodified":true,"ValueSet":["a","b",")" "\xc3\xa9t\xc3\xa9" R"("]}]}])");
}

// Attribute i has only flag i set, to a value a narrowing or a "== 1" would get wrong, so a flag
// read from the wrong member or sent under the wrong key shows as a true in the wrong place.
TEST_F(Definitions, EachFlagTravelsUnderItsOwnKeyAndAnyNonZeroIsTrue) {
    using A = DesktopAttributeDTO;
    const std::pair<const char*, BOOL A::*> flags[] = {
        {"IsGroup", &A::IsGroup}, {"IsDrillDownGroup", &A::IsDrillDownGroup},
        {"IsSummary", &A::IsSummary}, {"IsFormula", &A::IsFormula},
        {"IsClassification", &A::IsClassification}, {"IsCaseDiscrimination", &A::IsCaseDiscrimination},
        {"IsLink", &A::IsLink}, {"IsPermanentlyHidden", &A::IsPermanentlyHidden},
        {"UserDefinedOrder", &A::UserDefinedOrder}, {"MissingValuesAsZero", &A::MissingValuesAsZero},
        {"Reverse", &A::Reverse}, {"IsExpanded", &A::IsExpanded}, {"IsCoupled", &A::IsCoupled},
        {"IsFirstCoupledAttribute", &A::IsFirstCoupledAttribute},
        {"IsLastCoupledAttributeLeads", &A::IsLastCoupledAttributeLeads},
        {"IsCoupledAttributeSortedReverse", &A::IsCoupledAttributeSortedReverse}};
    const BOOL trueValues[] = {1, 2, -1, 0x10000};
    HostDefinitions host;
    for (std::size_t i = 0; i < std::size(flags); ++i) {
        host.Add(CString(flags[i].first)).*flags[i].second = trueValues[i % 4];
    }
    ASSERT_EQ(client->CreateAttributeDefinitions(L"t", host.List()), 1);
    const web::json::value document = web::json::value::parse(Received());
    for (std::size_t a = 0; a < std::size(flags); ++a) {
        for (const auto& [key, member] : flags) {
            EXPECT_EQ(document.at(a).at(utility::conversions::to_string_t(key)),
                      web::json::value::boolean(key == flags[a].first))
                << "case: " << flags[a].first << " set, key " << key;
        }
    }
}

// Text that cannot become UTF-8 fails the document before anything is sent, with the error that
// building the document member by member in the order of the host's record would raise.
TEST_F(Definitions, UnconvertibleTextFailsBeforeTheRequest) {
    HostDefinitions host;
    DesktopAttributeDTO& attribute = host.Add(L"A");
    attribute.Format = CString(L"x\xD800", 2);              // no low surrogate; built first
    attribute.ClassifiedAttribute = CString(L"\xD800x", 2); // a bad one; first by name
    EXPECT_EQ(ThrownBy([&] { client->CreateAttributeDefinitions(L"t", host.List()); }),
              Flattened("UTF-16 string is missing low surrogate"));
    EXPECT_TRUE(service.Requests().empty());
}

// The whole document travels in one request, however large: 2,000 attributes of 20 value ranges
// each is the size a wide host table reaches.
TEST_F(Definitions, ALargeDocumentIsSentWhole) {
    HostDefinitions host;
    for (int a = 0; a < 2000; ++a) {
        DesktopAttributeDTO& attribute = host.Add(CString(("A" + std::to_string(a)).c_str()));
        for (int r = 0; r < 20; ++r) {
            host.AddRange(attribute, r, L"", {L"x", L"y"}, CString(std::to_string(r).c_str()), 0);
        }
    }
    ASSERT_EQ(client->CreateAttributeDefinitions(L"big", host.List()), 1);
    // Compared with the document as a JSON value builds it, not printed: it is megabytes long.
    EXPECT_TRUE(Received() ==
                utility::conversions::to_utf8string(BuildAttributeDefinitionsJson(host.List()).serialize()));
}

} // namespace
