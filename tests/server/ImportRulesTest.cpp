// The service's answer to each kind of call: order (409), bodies (400), names (404), classes
// (403), a body at the size limit, and nothing of an import in the file before its End. Each case
// gets a service of its own (bodies up to 4096 bytes, tables of the class Sales), makes the first
// so many calls of a whole import (each must succeed), then its probe. A probe path that starts
// with '@' is under the table's path, /Import/Tables/<id>.
#include <gtest/gtest.h>

#include "ServerFixture.h"

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

namespace {

using namespace servertest;
using nlohmann::json;

// The creation of table "Rules" with two records; key, if given, set to value or, for null,
// left out.
std::string Creation(const char* key = nullptr, const json& value = nullptr) {
    json body = {{"recordCount", 2},
                 {"tableClass", "Sales"},
                 {"tableDescription", ""},
                 {"tableName", "Rules"},
                 {"tableOverwrite", false}};
    if (key != nullptr && value.is_null()) {
        body.erase(key);
    } else if (key != nullptr) {
        body[key] = value;
    }
    return body.dump();
}

const std::string kDefinitions = R"([{"AttributeName":"A","Type":3},{"AttributeName":"B"}])";

using Call = std::pair<std::string, std::string>; // path and body

// A whole import of ["x","y"] for the attributes A and B.
std::vector<Call> WholeImport(const std::string& idsOfA) {
    std::vector<Call> calls = {{"/Import/Tables", Creation()}, {"@/Attributes", kDefinitions}};
    for (const char* a : {"A", "B"}) {
        const std::string path = std::string("@/DistinctValues/") + a;
        calls.insert(calls.end(),
                     {{path + "/Begin", "null"}, {path, R"(["x","y"])"}, {path + "/End", "null"}});
    }
    calls.insert(calls.end(), {{"@/ValueIds/A/Begin", "null"},
                               {"@/ValueIds/B/Begin", "null"},
                               {"@/ValueIds/A", idsOfA},
                               {"@/ValueIds/B", "[1,-1]"},
                               {"@/ValueIds/A/End", "null"},
                               {"@/ValueIds/B/End", "null"},
                               {"@/End", "null"}});
    return calls;
}
// How many of those calls come first.
constexpr int kNothing = 0, kCreated = 1, kDefined = 2, kABegun = 3, kADone = 5, kDistinctDone = 8,
              kIdsOpen = 10, kIdsDone = 14, kEnded = 15;

struct Case {
    const char* name;
    int setUp; // calls of the whole import made first
    std::string path;
    std::optional<std::string> body;
    int status;
    std::string errorPart = ""; // in the error text
    std::string idsOfA = "[0,1]";
};

const Case cases[] = {
    // order
    {"distinct values before definitions", kCreated, "@/DistinctValues/A/Begin", "null", 409},
    {"attribute definitions twice", kDefined, "@/Attributes", kDefinitions, 409},
    {"distinct-values chunk before its Begin", kDefined, "@/DistinctValues/A", "[]", 409},
    {"distinct values Begin twice", kABegun, "@/DistinctValues/A/Begin", "null", 409},
    {"value ids before B's distinct values", kADone, "@/ValueIds/A/Begin", "null", 409},
    {"value-ids chunk before its Begin", kDistinctDone, "@/ValueIds/A", "[0]", 409},
    {"End while value ids are open", kIdsOpen, "@/End", "null", 409},
    {"End before any attribute definition", kCreated, "@/End", "null", 409},
    {"End with fewer value ids than records", kIdsDone, "@/End", "null", 409, "1 value ids", "[0]"},
    {"a call after the End", kEnded, "@/DistinctValues/A/Begin", "null", 409, "already ended"},
    {"End twice", kEnded, "@/End", "null", 409, "already ended"},
    // bodies of an import's calls
    {"malformed JSON", kCreated, "@/Attributes", "[{\"AttributeName\": ", 400},
    {"attribute definitions not an array", kCreated, "@/Attributes", "{}", 400},
    {"attribute definition without a name", kCreated, "@/Attributes", "[{\"Type\": 1}]", 400},
    {"no attributes at all", kCreated, "@/Attributes", "[]", 400},
    {"attribute names equal but for case", kCreated, "@/Attributes",
     R"([{"AttributeName":"Price"},{"AttributeName":"PRICE"}])", 400},
    {"a distinct value that is a number", kABegun, "@/DistinctValues/A", "[\"x\", 42]", 400},
    // nlohmann's parser refuses a number beyond a double's range with out_of_range, not
    // parse_error; it answered 500 until fuzz_import_request found it.
    {"value id beyond a double's range", kIdsOpen, "@/ValueIds/A", "[214E483648]", 400},
    {"value id equal to the number of distinct values", kIdsOpen, "@/ValueIds/A", "[0, 2]", 400},
    {"value id below -1", kIdsOpen, "@/ValueIds/A", "[-2]", 400},
    {"value id beyond 32 bits", kIdsOpen, "@/ValueIds/A", "[4294967296]", 400},
    {"value id that is not an integer", kIdsOpen, "@/ValueIds/A", "[1.5]", 400},
    {"more value ids than records", kIdsOpen, "@/ValueIds/A", "[0, 1, 0]", 400},
    {"Begin with a body other than null", kDefined, "@/DistinctValues/A/Begin", "{}", 400},
    // names
    {"unknown attribute", kDefined, "@/DistinctValues/Z/Begin", "null", 404},
    {"unknown table command", kDefined, "@/Columns", "null", 404},
    {"unknown table", kNothing, "/Import/Tables/no%20such%20%23table/DistinctValues/A/Begin",
     "null", 404},
    {"unknown endpoint", kNothing, "/Import/Nothing", "null", 404},
    {"nothing there", kNothing, "/elsewhere", std::nullopt, 404},
    // the creation and the other calls outside an import
    {"creation as an array", kNothing, "/Import/Tables", "[]", 400},
    {"creation without tableName", kNothing, "/Import/Tables", Creation("tableName"), 400},
    {"tableOverwrite as a number", kNothing, "/Import/Tables", Creation("tableOverwrite", 1), 400},
    {"recordCount as a string", kNothing, "/Import/Tables", Creation("recordCount", "1"), 400},
    {"negative recordCount", kNothing, "/Import/Tables", Creation("recordCount", -1), 400},
    {"empty tableName", kNothing, "/Import/Tables", Creation("tableName", ""), 400},
    {"reserved tableName", kNothing, "/Import/Tables", Creation("tableName", "lxrepo_tables"), 400},
    {"class not allowed", kNothing, "/Import/Tables", Creation("tableClass", "HR"), 403},
    {"class but for case", kNothing, "/Import/Authorization", R"({"tableClass":"sales"})", 403},
    {"body at the limit", kNothing, "/Import/Tables",
     std::string(4096 - Creation().size(), ' ') + Creation(), 201},
    {"Connect by POST", kNothing, "/Import/Connect", "null", 405},
};

TEST(ImportRules, EachCallIsAnsweredAsTheRulesSay) {
    for (const Case& c : cases) {
        TempDirectory directory;
        const std::string database = directory.File("repo.sqlite");
        auto options = DefaultOptions(database);
        options.http.maxBodyBytes = 4096;
        options.allowedClasses = {"Sales"};
        RunningServer server(options);
        std::string id;
        const auto at = [&](const std::string& path) {
            return path[0] == '@' ? "/Import/Tables/" + lxrepo::PercentEncode(id) + path.substr(1)
                                  : path;
        };
        const auto calls = WholeImport(c.idsOfA);
        for (int i = 0; i < c.setUp; ++i) {
            const Answer answer = Send(server.Url(), at(calls[i].first), calls[i].second);
            ASSERT_EQ(answer.status, i == 0 ? 201 : 200)
                << "case: " << c.name << ", set-up call " << i << ": " << answer.body;
            id = i == 0 ? json::parse(answer.body).value("tableID", "") : id;
        }
        const Answer answer = Send(server.Url(), at(c.path), c.body);
        EXPECT_EQ(answer.status, c.status) << "case: " << c.name << ": " << answer.body;
        EXPECT_EQ(answer.contentType.rfind("application/json", 0), 0u) << "case: " << c.name;
        EXPECT_EQ(answer.Error().empty(), c.status < 400) << "case: " << c.name;
        EXPECT_NE(answer.Error().find(c.errorPart), std::string::npos)
            << "case: " << c.name << ": " << answer.body;
        // The table and its catalogue entry, with the definitions as sent, come with the End.
        const bool ended = c.setUp == kEnded;
        EXPECT_EQ(QueryRows(database, "select name, null from sqlite_master where name = 'Rules' "
                                      "union all select table_id, attributes from lxrepo_tables"),
                  (ended ? std::vector<Row>{{"Rules", std::nullopt}, {id, kDefinitions}}
                         : std::vector<Row>{}))
            << "case: " << c.name;
        if (ended) {
            EXPECT_EQ(TableRows(database, "Rules"),
                      (std::vector<Row>{{"x", "y"}, {"y", std::nullopt}}))
                << "case: " << c.name;
        }
    }
}

} // namespace
