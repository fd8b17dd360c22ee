// GoogleTest comes first: cpprestsdk's function-like macro U() breaks its templates.
#include <gtest/gtest.h>

#include "LxrepoRun.h"

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <vector>

namespace lxrepotest {

namespace {

using servertest::QueryRows;
using servertest::Row;

struct RoundTrip {
    const char* name;
    std::string csv;
    std::vector<std::string> header;
    std::vector<Row> rows; // nullopt: an empty cell
    std::vector<int> types;
};

const std::optional<std::string> kEmpty;

const RoundTrip kRoundTrips[] = {
    {"quoted_fields",
     "id,comment\n1,\"a, b\"\n2,\"say \"\"hi\"\"\"\n3,plain\n10,\"a, b\"\n",
     {"id", "comment"},
     {{"1", "a, b"}, {"2", "say \"hi\""}, {"3", "plain"}, {"10", "a, b"}},
     {1, 0}},
    {"line_breaks_and_crlf",
     "name,note\r\nx,\"two\r\nlines\"\r\ny,\"three\nlines\"\r\n x , \r\n",
     {"name", "note"},
     {{"x", "two\r\nlines"}, {"y", "three\nlines"}, {" x ", " "}},
     {0, 0}},
    {"byte_order_mark_and_non_ascii",
     "\xEF\xBB\xBF"
     "city,amount\nZ\xC3\xBCrich,12.50\n\xE6\x9D\xB1\xE4\xBA\xAC,3\nS\xC3\xA3o Paulo,-0.5\n",
     {"city", "amount"},
     {{"Z\xC3\xBCrich", "12.50"}, {"\xE6\x9D\xB1\xE4\xBA\xAC", "3"}, {"S\xC3\xA3o Paulo", "-0.5"}},
     {0, 2}},
    {"empty_cells_dates_no_final_line_end",
     "day,qty,label,code\n2024-01-31,,a,007\n,7,,2023-02-29\n2024-02-29,8,a,1\n,,,",
     {"day", "qty", "label", "code"},
     {{"2024-01-31", kEmpty, "a", "007"},
      {kEmpty, "7", kEmpty, "2023-02-29"},
      {"2024-02-29", "8", "a", "1"},
      {kEmpty, kEmpty, kEmpty, kEmpty}},
     {3, 1, 0, 0}},
};

void PrintTo(const RoundTrip& c, std::ostream* out) { *out << c.name; }

class LxrepoRoundTrip : public ::testing::TestWithParam<RoundTrip> {};

// Chunks of two rows and two distinct values, so every phase takes several requests.
TEST_P(LxrepoRoundTrip, TableInSqliteEqualsTheFileCellByCell) {
    const RoundTrip& c = GetParam();
    Deployment deployment;
    const std::string file = deployment.Write(std::string(c.name) + ".csv", c.csv);
    const Outcome run = deployment.Lxrepo({"import", file, "--chunk-rows", "2", "--json"});
    ASSERT_EQ(run.status, 0) << "case: " << c.name << "\n" << run.err;

    const auto summary = nlohmann::json::parse(run.out);
    EXPECT_EQ(summary["rows"], c.rows.size()) << "case: " << c.name;
    EXPECT_EQ(summary["attributes"], c.header.size()) << "case: " << c.name;
    EXPECT_EQ(summary["table"], c.name) << "case: " << c.name;

    const std::string table = std::string("\"") + c.name + "\"";
    std::vector<std::string> header;
    for (const Row& column :
         QueryRows(deployment.Database(),
                   "select name from pragma_table_info('" + std::string(c.name) + "')")) {
        header.push_back(*column[0]);
    }
    EXPECT_EQ(header, c.header) << "case: " << c.name;
    EXPECT_EQ(QueryRows(deployment.Database(), "select * from " + table + " order by rowid"),
              c.rows)
        << "case: " << c.name;

    const Row document =
        QueryRows(deployment.Database(), "select attributes from lxrepo_tables where table_id = '" +
                                             summary["tableId"].get<std::string>() + "'")
            .at(0);
    std::vector<int> types;
    for (const auto& attribute : nlohmann::json::parse(*document.at(0))) {
        types.push_back(attribute["Type"]);
    }
    EXPECT_EQ(types, c.types) << "case: " << c.name;
}

INSTANTIATE_TEST_SUITE_P(Files, LxrepoRoundTrip, ::testing::ValuesIn(kRoundTrips),
                         [](const auto& info) { return std::string(info.param.name); });

struct Malformed {
    const char* name;
    std::string csv;
    int line;
};

const Malformed kMalformed[] = {
    {"quote_left_open", "a,b\n1,2\n3,\"open\n4,5\n", 3},
    {"too_few_fields", "a,b\n1,2\n3\n", 3},
    {"too_many_fields_after_a_quoted_break", "a,b\n\"x\ny\",2\n1,2,3\n", 4},
    {"quote_inside_unquoted_field", "a,b\n1,2\n1,x\"y\n", 3},
    {"text_after_closing_quote", "a,b\n\"1\"x,2\n", 2},
    {"column_name_twice", "a,a\n1,2\n", 1},
};

void PrintTo(const Malformed& c, std::ostream* out) { *out << c.name; }

class LxrepoMalformedFile : public ::testing::TestWithParam<Malformed> {};

TEST_P(LxrepoMalformedFile, ExitsWithTwoAndTheLineNumber) {
    const Malformed& c = GetParam();
    Deployment deployment;
    const Outcome run = deployment.Lxrepo({"import", deployment.Write("bad.csv", c.csv)});
    EXPECT_EQ(run.status, 2) << "case: " << c.name << "\n" << run.err;
    EXPECT_NE(run.err.find("line " + std::to_string(c.line) + ":"), std::string::npos)
        << "case: " << c.name << "\n"
        << run.err;
}

INSTANTIATE_TEST_SUITE_P(Files, LxrepoMalformedFile, ::testing::ValuesIn(kMalformed),
                         [](const auto& info) { return std::string(info.param.name); });

struct Refusal {
    const char* name;
    std::vector<std::string> args; // after "import FILE"
    int status;
    std::vector<std::string> said; // pieces of the message
};

// sales.csv already exists as a table when each case runs.
TEST(LxrepoFailures, ExitStatusAndMessageNameWhatFailed) {
    Deployment deployment;
    const std::string file = deployment.Write("sales.csv", "region,units\nnorth,3\nsouth,\n");
    ASSERT_EQ(deployment.Lxrepo({"import", file}).status, 0);
    const std::string nowhere = "http://127.0.0.1:" + std::to_string(servertest::FreePort());
    const Refusal cases[] = {
        {"existing_table", {}, 1, {"create table \"sales\"", "409"}},
        {"class_not_allowed", {"--class", "secret"}, 1, {"\"secret\"", "authorize"}},
        {"unreachable_proxy", {"--server", nowhere, "--proxy", nowhere}, 3, {nowhere}},
        {"missing_file", {"--table", "x"}, 2, {"cannot read"}},
        {"bad_chunk_size", {"--chunk-rows", "0"}, 2, {"chunk-rows"}},
    };
    for (const Refusal& c : cases) {
        std::vector<std::string> args{
            "import", std::string(c.name) == "missing_file" ? file + ".gone" : file};
        args.insert(args.end(), c.args.begin(), c.args.end());
        const bool connect = std::string(c.name) != "unreachable_proxy";
        const Outcome run = deployment.Lxrepo(args, connect);
        EXPECT_EQ(run.status, c.status) << "case: " << c.name << "\n" << run.err;
        for (const std::string& piece : c.said) {
            EXPECT_NE(run.err.find(piece), std::string::npos)
                << "case: " << c.name << " wants \"" << piece << "\" in\n"
                << run.err;
        }
    }
    // Every run withdrew its registration, the refused ones too: the proxy no longer connects
    // the client.
    const auto connect = servertest::Send(
        deployment.ProxyUrl(), "GET", {servertest::Word("connect")}, std::nullopt,
        {{"lxclient", "lxrepo"}, {"lxserver", deployment.ServiceUrl()}, {"lxauth", "windows"}});
    EXPECT_EQ(connect.status, 401) << connect.body;
    // Refused imports left the first one alone; --overwrite replaces it.
    EXPECT_EQ(QueryRows(deployment.Database(), "select count(*) from sales"),
              (std::vector<Row>{{"2"}}));
    ASSERT_EQ(deployment.Lxrepo({"import", file, "--overwrite", "--table", "Sales"}).status, 0);
}

TEST(LxrepoCheck, ReportsStatusVersionAndAuthorization) {
    Deployment deployment;
    const Outcome allowed = deployment.Lxrepo({"check", "--class", "sales"});
    EXPECT_EQ(allowed.status, 0) << allowed.err;
    EXPECT_NE(allowed.out.find("connection: Connected"), std::string::npos) << allowed.out;
    EXPECT_NE(allowed.out.find("lxproxy"), std::string::npos) << allowed.out;
    EXPECT_NE(allowed.out.find("\"sales\": authorized"), std::string::npos) << allowed.out;

    const Outcome refused = deployment.Lxrepo({"check", "--class", "secret"});
    EXPECT_EQ(refused.status, 1) << refused.err;
    EXPECT_NE(refused.out.find("\"secret\": not authorized"), std::string::npos) << refused.out;
}

} // namespace

} // namespace lxrepotest
