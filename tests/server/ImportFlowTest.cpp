// Whole imports over real HTTP in the client library's wire form, read back from the SQLite file.
#include <gtest/gtest.h>

#include "ServerFixture.h"

#include <nlohmann/json.hpp>

#include <string>
#include <thread>
#include <vector>

namespace {

using namespace servertest;

// Names that need every kind of path encoding; one attribute name holds a slash, which the
// client leaves unencoded.
TableData AwkwardTable() {
    TableData table;
    table.name = "Sales Q1 %?# \xC3\xBC\"quoted\"";
    table.attributes = {"Price", "Region name ?#%", "Zeit/Datum \xE2\x82\xAC"};
    table.distinctValues = {{"42", "17.5", "", "1e3"},
                            {"North",
                             "S\xC3\xBC"
                             "d",
                             "East & West"},
                            {"2024-01-01", "2024-12-31"}};
    table.valueIds = {{0, 1, 2, -1, 3, 0, 1}, {2, -1, 0, 1, 1, 2, -1}, {-1, -1, 1, 0, 1, 0, 1}};
    return table;
}

// The cells as the table should hold them: the distinct value an id names, NULL for -1.
std::vector<Row> ExpectedRows(const TableData& table) {
    std::vector<Row> rows(table.valueIds[0].size());
    for (std::size_t r = 0; r < rows.size(); ++r) {
        for (std::size_t c = 0; c < table.attributes.size(); ++c) {
            const int id = table.valueIds[c][r];
            rows[r].push_back(id < 0 ? std::nullopt
                                     : std::optional<std::string>(table.distinctValues[c][id]));
        }
    }
    return rows;
}

std::string SelectAll(const std::string& table) {
    std::string quoted;
    for (const char c : table) {
        quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    }
    return "select * from \"" + quoted + "\" order by rowid";
}

void ExpectCells(const std::vector<Row>& actual, const std::vector<Row>& expected) {
    ASSERT_EQ(actual.size(), expected.size());
    for (std::size_t r = 0; r < actual.size(); ++r) {
        ASSERT_EQ(actual[r].size(), expected[r].size()) << "row " << r;
        for (std::size_t c = 0; c < actual[r].size(); ++c) {
            EXPECT_EQ(actual[r][c], expected[r][c]) << "row " << r << ", column " << c;
        }
    }
}

class ImportFlow : public ::testing::Test {
protected:
    TempDirectory directory;
    std::string database = directory.File("repo.sqlite");
    RunningServer server{DefaultOptions(database)};
};

TEST_F(ImportFlow, WholeImportBecomesAnSqlTableCellByCell) {
    const TableData table = AwkwardTable();
    ASSERT_EQ(ImportWholeTable(server.Url(), table), 200);

    ExpectCells(QueryRows(database, SelectAll(table.name)), ExpectedRows(table));
    const auto columns =
        QueryRows(database, "select name from pragma_table_info('" +
                                std::string("Sales Q1 %?# \xC3\xBC\"quoted\"") + "') order by cid");
    ASSERT_EQ(columns.size(), 3u);
    for (std::size_t c = 0; c < columns.size(); ++c) {
        EXPECT_EQ(columns[c][0], table.attributes[c]);
    }
    const auto catalogue =
        QueryRows(database, "select record_count, table_class, attributes from lxrepo_tables");
    ASSERT_EQ(catalogue.size(), 1u);
    EXPECT_EQ(catalogue[0][0], "7");
    EXPECT_EQ(catalogue[0][1], "Sales");
    EXPECT_EQ(nlohmann::json::parse(*catalogue[0][2]),
              nlohmann::json::parse(AttributeDocument(table.attributes)));
}

TEST_F(ImportFlow, CreateAnswers201WithJsonTableIdThatTheLaterCallsAccept) {
    std::string id;
    const Answer created = CreateTable(server.Url(), "T", 0, false, &id);
    EXPECT_EQ(created.status, 201);
    EXPECT_EQ(created.contentType.rfind("application/json", 0), 0u) << created.contentType;
    EXPECT_FALSE(id.empty());
    EXPECT_EQ(PostImport(server.Url(), id, {Word("Attributes")}, AttributeDocument({"A"})).status,
              200);
    // A table without records still becomes a table.
    for (const auto& [rest, status] : std::vector<std::pair<std::vector<Segment>, int>>{
             {{Word("DistinctValues"), Name("A"), Word("Begin")}, 200},
             {{Word("DistinctValues"), Name("A"), Word("End")}, 200},
             {{Word("ValueIds"), Name("A"), Word("Begin")}, 200},
             {{Word("ValueIds"), Name("A"), Word("End")}, 200},
             {{Word("End")}, 200}}) {
        EXPECT_EQ(PostImport(server.Url(), id, rest, "null").status, status);
    }
    EXPECT_TRUE(QueryRows(database, "select * from T").empty());
    EXPECT_EQ(QueryRows(database, "select table_id from lxrepo_tables")[0][0], id);
}

TEST_F(ImportFlow, NothingIsVisibleBeforeTheEnd) {
    std::string id;
    ASSERT_EQ(CreateTable(server.Url(), "Pending", 1, false, &id).status, 201);
    ASSERT_EQ(PostImport(server.Url(), id, {Word("Attributes")}, AttributeDocument({"A"})).status,
              200);
    EXPECT_TRUE(
        QueryRows(database, "select name from sqlite_master where name = 'Pending'").empty());
    EXPECT_TRUE(QueryRows(database, "select name from lxrepo_tables").empty());
}

TEST_F(ImportFlow, ExistingNameNeedsOverwriteWhichReplacesTheTable) {
    TableData first = {"Reused", {"A"}, {{"old"}}, {{0, 0}}};
    ASSERT_EQ(ImportWholeTable(server.Url(), first), 200);

    const Answer refused = CreateTable(server.Url(), "reused", 1, false);
    EXPECT_EQ(refused.status, 409) << "names ignore case, as SQLite's do";
    EXPECT_NE(nlohmann::json::parse(refused.body).at("error").get<std::string>().find("Reused"),
              std::string::npos);

    TableData second = {"Reused", {"B", "C"}, {{"new"}, {"x", "y"}}, {{0, -1, 0}, {1, 0, -1}}};
    ASSERT_EQ(ImportWholeTable(server.Url(), second, true), 200);
    ExpectCells(QueryRows(database, SelectAll("Reused")), ExpectedRows(second));
    EXPECT_EQ(QueryRows(database, "select count(*) from lxrepo_tables")[0][0], "1");
}

TEST_F(ImportFlow, ImportsOfDifferentTablesRunConcurrently) {
    constexpr int tables = 4;
    std::vector<TableData> data;
    for (int t = 0; t < tables; ++t) {
        TableData table{"Parallel " + std::to_string(t), {"K", "V"}, {{}, {}}, {{}, {}}};
        for (int v = 0; v < 50; ++v) {
            table.distinctValues[0].push_back("k" + std::to_string(t) + "-" + std::to_string(v));
            table.distinctValues[1].push_back(std::to_string(v * t));
        }
        for (int r = 0; r < 300; ++r) {
            table.valueIds[0].push_back((r * 7 + t) % 50);
            table.valueIds[1].push_back(r % 11 == 0 ? -1 : (r + t) % 50);
        }
        data.push_back(table);
    }
    std::vector<int> statuses(tables);
    std::vector<std::thread> threads;
    for (int t = 0; t < tables; ++t) {
        threads.emplace_back([&, t] { statuses[t] = ImportWholeTable(server.Url(), data[t]); });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (int t = 0; t < tables; ++t) {
        EXPECT_EQ(statuses[t], 200) << "table " << t;
        ExpectCells(QueryRows(database, SelectAll(data[t].name)), ExpectedRows(data[t]));
    }
}

TEST(ImportFlowAccess, AuthorizationAndCreationFollowTheAllowedClasses) {
    TempDirectory directory;
    auto options = DefaultOptions(directory.File("repo.sqlite"));
    options.allowedClasses = {"Sales", "Stock"};
    RunningServer server(options);
    struct Case {
        std::string tableClass;
        int status;
    };
    for (const Case& c : {Case{"Sales", 200}, Case{"Stock", 200}, Case{"sales", 403}, Case{"", 403},
                          Case{"HR", 403}}) {
        const Answer answer = Send(server.Url(), "POST", {Word("/Import/Authorization")},
                                   nlohmann::json{{"tableClass", c.tableClass}}.dump());
        EXPECT_EQ(answer.status, c.status) << "case: class \"" << c.tableClass << "\"";
    }
    const nlohmann::json hr = {{"recordCount", 1},
                               {"tableClass", "HR"},
                               {"tableDescription", ""},
                               {"tableName", "Salaries"},
                               {"tableOverwrite", false}};
    EXPECT_EQ(Send(server.Url(), "POST", {Word("/Import/Tables")}, hr.dump()).status, 403);
    EXPECT_EQ(Send(server.Url(), "GET", {Word("/Import/Connect")}, std::nullopt).status, 200);
}

} // namespace
