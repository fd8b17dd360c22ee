// The service's rules for one import, case by case: order (409), bodies (400), names (404).
// Every case creates a table of two records with the attributes A and B, runs its set-up calls
// (each must get 200) and then the probe.
#include <gtest/gtest.h>

#include "ServerFixture.h"

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

namespace {

using namespace servertest;

struct Call {
    std::vector<Segment> rest; // after "/Import/Tables" / id
    std::string body;
};

Call Attributes(const std::vector<std::string>& names = {"A", "B"}) {
    return {{Word("Attributes")}, AttributeDocument(names)};
}
Call Phase(const char* kind, const std::string& attribute, const char* command) {
    return {{Word(kind), Name(attribute), Word(command)}, "null"};
}
Call Chunk(const char* kind, const std::string& attribute, const std::string& body) {
    return {{Word(kind), Name(attribute)}, body};
}
Call End() { return {{Word("End")}, "null"}; }

std::vector<Call> operator+(std::vector<Call> first, const std::vector<Call>& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// Both attributes with the distinct values ["x", "y"].
std::vector<Call> DistinctValuesDone() {
    std::vector<Call> calls = {Attributes()};
    for (const char* attribute : {"A", "B"}) {
        calls = calls + std::vector<Call>{Phase("DistinctValues", attribute, "Begin"),
                                          Chunk("DistinctValues", attribute, R"(["x","y"])"),
                                          Phase("DistinctValues", attribute, "End")};
    }
    return calls;
}
std::vector<Call> ValueIdsOpen() {
    return DistinctValuesDone() +
           std::vector<Call>{Phase("ValueIds", "A", "Begin"), Phase("ValueIds", "B", "Begin")};
}
std::vector<Call> ValueIdsDone(const char* idsOfA = "[0,1]") {
    return ValueIdsOpen() +
           std::vector<Call>{Chunk("ValueIds", "A", idsOfA), Chunk("ValueIds", "B", "[1,-1]"),
                             Phase("ValueIds", "A", "End"), Phase("ValueIds", "B", "End")};
}

struct Case {
    std::string name;
    std::vector<Call> setUp;
    Call probe;
    int status;
};

std::ostream& operator<<(std::ostream& out, const Case& c) { return out << c.name; }

const Case cases[] = {
    // Order
    {"distinct values before the attribute definitions",
     {},
     Phase("DistinctValues", "A", "Begin"),
     409},
    {"attribute definitions twice", {Attributes()}, Attributes(), 409},
    {"distinct-values chunk before its Begin",
     {Attributes()},
     Chunk("DistinctValues", "A", "[]"),
     409},
    {"distinct values End before Begin", {Attributes()}, Phase("DistinctValues", "A", "End"), 409},
    {"distinct values Begin twice",
     {Attributes(), Phase("DistinctValues", "A", "Begin")},
     Phase("DistinctValues", "A", "Begin"),
     409},
    {"value ids before every attribute has its distinct values",
     {Attributes(), Phase("DistinctValues", "A", "Begin"), Phase("DistinctValues", "A", "End")},
     Phase("ValueIds", "A", "Begin"),
     409},
    {"value-ids chunk before its Begin", DistinctValuesDone(), Chunk("ValueIds", "A", "[0]"), 409},
    {"distinct values again once value ids began", ValueIdsOpen(),
     Phase("DistinctValues", "A", "Begin"), 409},
    {"value-ids chunk after its End", ValueIdsDone(), Chunk("ValueIds", "A", "[0]"), 409},
    {"End while value ids are open", ValueIdsOpen(), End(), 409},
    {"End before any attribute definition", {}, End(), 409},
    {"End with fewer value ids than records", ValueIdsDone("[0]"), End(), 409},
    {"a call after the End", ValueIdsDone() + std::vector<Call>{End()},
     Phase("DistinctValues", "A", "Begin"), 409},
    {"End twice", ValueIdsDone() + std::vector<Call>{End()}, End(), 409},
    {"the right order", ValueIdsDone(), End(), 200},
    // Bodies
    {"malformed JSON attribute definitions",
     {},
     {{Word("Attributes")}, "[{\"AttributeName\": "},
     400},
    {"attribute definitions not an array", {}, {{Word("Attributes")}, "{}"}, 400},
    {"attribute definition without a name", {}, {{Word("Attributes")}, "[{\"Type\": 1}]"}, 400},
    {"no attributes at all", {}, Attributes({}), 400},
    {"attribute names equal but for case", {}, Attributes({"Price", "PRICE"}), 400},
    {"malformed JSON distinct values",
     {Attributes(), Phase("DistinctValues", "A", "Begin")},
     Chunk("DistinctValues", "A", "[\"x\","),
     400},
    // nlohmann's parser refuses a number beyond a double's range with out_of_range, not
    // parse_error; it answered 500 until fuzz_import_request found it.
    {"value id beyond a double's range", ValueIdsOpen(), Chunk("ValueIds", "A", "[214E483648]"),
     400},
    {"a distinct value that is a number",
     {Attributes(), Phase("DistinctValues", "A", "Begin")},
     Chunk("DistinctValues", "A", "[\"x\", 42]"),
     400},
    {"value id equal to the number of distinct values", ValueIdsOpen(),
     Chunk("ValueIds", "A", "[0, 2]"), 400},
    {"value id below -1", ValueIdsOpen(), Chunk("ValueIds", "A", "[-2]"), 400},
    {"value id beyond 32 bits", ValueIdsOpen(), Chunk("ValueIds", "A", "[4294967296]"), 400},
    {"value id that is not an integer", ValueIdsOpen(), Chunk("ValueIds", "A", "[1.5]"), 400},
    {"value id as a string", ValueIdsOpen(), Chunk("ValueIds", "A", "[\"1\"]"), 400},
    {"more value ids than records", ValueIdsOpen(), Chunk("ValueIds", "A", "[0, 1, 0]"), 400},
    {"missing values only", ValueIdsOpen(), Chunk("ValueIds", "A", "[-1, -1]"), 200},
    {"Begin with a body other than null",
     {Attributes()},
     {{Word("DistinctValues"), Name("A"), Word("Begin")}, "{}"},
     400},
    // Names
    {"unknown attribute", {Attributes()}, Phase("DistinctValues", "Z", "Begin"), 404},
    {"unknown attribute's chunk",
     DistinctValuesDone() + std::vector<Call>{Phase("ValueIds", "A", "Begin")},
     Chunk("ValueIds", "a", "[0]"), 404},
    {"unknown table command", {Attributes()}, {{Word("Columns")}, "null"}, 404},
};

class ImportRules : public ::testing::TestWithParam<Case> {
protected:
    TempDirectory directory;
    RunningServer server{DefaultOptions(directory.File("repo.sqlite"))};
};

TEST_P(ImportRules, AnswerTheCallAsTheRulesSay) {
    const Case& c = GetParam();
    std::string id;
    ASSERT_EQ(CreateTable(server.Url(), "Rules", 2, false, &id).status, 201);
    for (std::size_t i = 0; i < c.setUp.size(); ++i) {
        const Answer answer = PostImport(server.Url(), id, c.setUp[i].rest, c.setUp[i].body);
        ASSERT_EQ(answer.status, 200) << "set-up call " << i << ": " << answer.body;
    }
    const Answer answer = PostImport(server.Url(), id, c.probe.rest, c.probe.body);
    EXPECT_EQ(answer.status, c.status) << answer.body;
    EXPECT_EQ(answer.contentType.rfind("application/json", 0), 0u) << answer.contentType;
    if (c.status >= 400) {
        const auto body = nlohmann::json::parse(answer.body, nullptr, false);
        ASSERT_TRUE(body.is_object() && body.contains("error") && body["error"].is_string())
            << answer.body;
        EXPECT_FALSE(body["error"].get<std::string>().empty());
    }
}

INSTANTIATE_TEST_SUITE_P(Cases, ImportRules, ::testing::ValuesIn(cases),
                         [](const ::testing::TestParamInfo<Case>& info) {
                             std::string name;
                             for (const char c : info.param.name) {
                                 name += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
                             }
                             return name;
                         });

TEST(ImportRequests, UnknownTablesMalformedCreationsAndOversizedBodies) {
    TempDirectory directory;
    auto options = DefaultOptions(directory.File("repo.sqlite"));
    options.http.maxBodyBytes = 4096;
    RunningServer server(options);
    struct Probe {
        const char* name;
        std::vector<Segment> path;
        std::optional<std::string> body;
        int status;
    };
    const nlohmann::json good = {{"recordCount", 1},
                                 {"tableClass", "c"},
                                 {"tableDescription", ""},
                                 {"tableName", "T"},
                                 {"tableOverwrite", false}};
    auto without = [&](const char* key) {
        auto body = good;
        body.erase(key);
        return body.dump();
    };
    auto with = [&](const char* key, nlohmann::json value) {
        auto body = good;
        body[key] = std::move(value);
        return body.dump();
    };
    const Probe probes[] = {
        {"unknown table",
         {Word("/Import/Tables"), Name("no such #table"), Word("DistinctValues"), Name("A"),
          Word("Begin")},
         "null",
         404},
        {"unknown table's End", {Word("/Import/Tables"), Name("x"), Word("End")}, "null", 404},
        {"unknown endpoint", {Word("/Import/Nothing")}, "null", 404},
        {"malformed JSON creation", {Word("/Import/Tables")}, "{\"tableName\": ", 400},
        {"creation without tableName", {Word("/Import/Tables")}, without("tableName"), 400},
        {"creation without recordCount", {Word("/Import/Tables")}, without("recordCount"), 400},
        {"tableOverwrite as a number", {Word("/Import/Tables")}, with("tableOverwrite", 1), 400},
        {"recordCount as a string", {Word("/Import/Tables")}, with("recordCount", "1"), 400},
        {"negative recordCount", {Word("/Import/Tables")}, with("recordCount", -1), 400},
        {"empty tableName", {Word("/Import/Tables")}, with("tableName", ""), 400},
        {"reserved tableName", {Word("/Import/Tables")}, with("tableName", "lxrepo_tables"), 400},
        {"creation as an array", {Word("/Import/Tables")}, "[]", 400},
        {"Authorization without tableClass", {Word("/Import/Authorization")}, "{}", 400},
        {"body over the limit",
         {Word("/Import/Tables")},
         std::string(5000, ' ') + good.dump(),
         413},
        {"body at the limit",
         {Word("/Import/Tables")},
         std::string(4096 - good.dump().size(), ' ') + good.dump(),
         201},
        {"Connect by POST", {Word("/Import/Connect")}, "null", 405},
        {"nothing there", {Word("/elsewhere")}, std::nullopt, 404},
    };
    for (const auto& p : probes) {
        const Answer answer = Send(server.Url(), p.body ? "POST" : "GET", p.path, p.body);
        EXPECT_EQ(answer.status, p.status) << "case: " << p.name << ": " << answer.body;
        if (p.status >= 400) {
            const auto body = nlohmann::json::parse(answer.body, nullptr, false);
            EXPECT_TRUE(body.is_object() && body.contains("error")) << "case: " << p.name;
        }
    }
}

} // namespace
