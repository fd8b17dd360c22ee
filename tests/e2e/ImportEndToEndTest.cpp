// Whole imports through the library's public operations, in the host's order, against
// lxrepo-server, for each way of connecting; the SQL table is then read back cell by cell.
// GoogleTest comes first: cpprestsdk's function-like macro U() breaks its templates.
#include <gtest/gtest.h>

#include "e2e/Deployment.h"
#include "e2e/GeneratedTable.h"

#include "ServerFixture.h"
#include "TableRepositoryImport.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <memory>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

// gss-ntlmssp 1.2 never frees the MD4 digest it fetches from OpenSSL when it hashes a password;
// that leak is OpenSSL-allocated and not ours.
extern "C" const char* __lsan_default_suppressions() { return "leak:libcrypto.so.3\n"; }

namespace {

using namespace e2e;
using servertest::QueryRows;
using servertest::Row;

constexpr long kDistinctChunk = 16;
constexpr long kRowChunk = 100;

struct WayCase {
    const char* name;
    Way way;
};

void PrintTo(const WayCase& c, std::ostream* os) { *os << c.name; }

std::string Quoted(const std::string& identifier) { return "\"" + identifier + "\""; }

class ImportEndToEnd : public ::testing::TestWithParam<WayCase> {
protected:
    void SetUp() override {
        if (!Deployment::Available(GetParam().way)) {
            GTEST_SKIP() << "the login needs node and tests/oidc's packages "
                            "(scripts/install-dependencies.sh)";
        }
        deployment = std::make_unique<Deployment>(GetParam().way, database, table.tableClass);
        if (GetParam().way == Way::Login) {
            browser = std::make_unique<LoginBrowser>();
        }
        client.reset(dynamic_cast<CTableRepositoryImport*>(new_TableRepositoryImport()));
        ASSERT_NE(client, nullptr);
    }

    // Registration and connection test, as the host starts every import.
    void Connect() {
        const Expectations& expected = deployment->Expected();
        client->RegisterWithAuthenticationProxy(deployment->ProxyConfiguration());
        const TestConnectionResult result = client->TestConnection(Wide(deployment->ServiceUrl()));
        if (browser) {
            EXPECT_EQ(browser->Outcome(), "");
        }
        EXPECT_EQ(Utf8(result.errorText), "");
        EXPECT_EQ(Utf8(result.version), expected.version);
        ASSERT_EQ(result.status, expected.connectionStatus);
    }

    // Table, definitions and every attribute's distinct values in chunks; id gets the table's.
    void DefineTable(CString& id) {
        EXPECT_EQ(client->IsAuthorized(Wide(table.tableClass)), 1);
        EXPECT_EQ(client->IsAuthorized(L"Payroll"), 0);
        int status = 0;
        std::tie(status, id) = client->CreateTable(Wide(table.name), Wide(table.tableClass),
                                                   Wide(table.description), 0, table.rows);
        ASSERT_EQ(status, 201);
        // The service's ids are the name, "#" and eight hex digits: a blank, non-ASCII text and
        // a "#" that every later path must carry encoded.
        EXPECT_EQ(Utf8(id).rfind(table.name + "#", 0), 0u) << Utf8(id);
        ASSERT_EQ(client->CreateAttributeDefinitions(id, host.Definitions()), 1);
        for (std::size_t c = 0; c < table.columns.size(); ++c) {
            const Column& column = table.columns[c];
            const CString name = Wide(column.name);
            ASSERT_EQ(client->BeginDistinctValues(id, name), 1) << column.name;
            const auto count = static_cast<long>(column.distinctValues.size());
            for (long first = 0; first < count; first += kDistinctChunk) {
                ASSERT_EQ(client->ImportDistinctValuesChunk(
                              id, name, first, std::min(count, first + kDistinctChunk),
                              host.DistinctValues(c), column.copyMode),
                          1)
                    << column.name << " from " << first;
            }
            ASSERT_EQ(client->EndDistinctValues(id, name), 1) << column.name;
        }
    }

    std::vector<Row> DataTables() const {
        return QueryRows(database, "select name from sqlite_master where type = 'table' and "
                                   "name <> 'lxrepo_tables' order by name");
    }

    const Table table = GenerateTable();
    HostTable host{table};
    servertest::TempDirectory files;
    std::string database = files.File("repo.sqlite");
    std::unique_ptr<Deployment> deployment;
    std::unique_ptr<LoginBrowser> browser;
    std::unique_ptr<CTableRepositoryImport> client;
};

TEST_P(ImportEndToEnd, EveryCellArrivesInTheSqlTable) {
    ASSERT_NO_FATAL_FAILURE(Connect());
    CString id;
    ASSERT_NO_FATAL_FAILURE(DefineTable(id));

    ASSERT_EQ(client->BeginImportValueIds(id, host.Attributes()), 1);
    for (long first = 0; first < table.rows; first += kRowChunk) {
        ASSERT_EQ(client->ImportValueIdsChunk(id, first,
                                              std::min<long>(table.rows, first + kRowChunk),
                                              host.Attributes(), 0),
                  1)
            << "rows from " << first;
    }
    ASSERT_EQ(client->EndImportValueIds(id, host.Attributes()), 1);
    ASSERT_EQ(client->EndImport(id), 1);

    EXPECT_EQ(deployment->ProxyConnectStatus(), 200);
    const CAuthenticationProxyResult unregistered =
        client->UnregisterFromAuthenticationProxy(deployment->ProxyConfiguration());
    EXPECT_EQ(Utf8(unregistered.message), "");
    EXPECT_EQ(deployment->ProxyConnectStatus(), 401) << "the proxy still knows the client";

    std::vector<Row> columns;
    for (const Column& column : table.columns) {
        columns.push_back({column.name});
    }
    EXPECT_EQ(QueryRows(database, "select name from pragma_table_info(" + Quoted(table.name) +
                                      ") order by cid"),
              columns);
    const auto rows =
        QueryRows(database, "select * from " + Quoted(table.name) + " order by rowid");
    const auto expected = ExpectedRows(table);
    ASSERT_EQ(rows.size(), expected.size());
    for (std::size_t r = 0; r < rows.size(); ++r) {
        EXPECT_EQ(rows[r], expected[r]) << "row " << r;
    }

    const auto catalogue =
        QueryRows(database, "select name, table_id, table_class, description, record_count, "
                            "imported_by, client, attributes from lxrepo_tables");
    ASSERT_EQ(catalogue.size(), 1u);
    const Expectations& who = deployment->Expected();
    const Row entry(catalogue[0].begin(), catalogue[0].end() - 1);
    const Row expectedEntry = {
        table.name,     Utf8(id),  table.tableClass, table.description, std::to_string(table.rows),
        who.importedBy, who.client};
    EXPECT_EQ(entry, expectedEntry);
    ASSERT_TRUE(catalogue[0].back().has_value());
    EXPECT_EQ(nlohmann::json::parse(*catalogue[0].back()), ExpectedAttributeDocument(table));
}

// The service commits only complete columns: one attribute a value id short spoils the whole
// import, and nothing of it may reach the file.
TEST_P(ImportEndToEnd, ValueIdsOneShortForAnAttributeLeaveNoTable) {
    ASSERT_NO_FATAL_FAILURE(Connect());
    CString id;
    ASSERT_NO_FATAL_FAILURE(DefineTable(id));

    const std::size_t shortColumn = 2;
    CList<CRepoAttribute*> allButOne;
    for (std::size_t c = 0; c < table.columns.size(); ++c) {
        if (c != shortColumn) {
            allButOne.AddTail(host.Attribute(c));
        }
    }
    const long last = table.rows - 1;
    ASSERT_EQ(client->BeginImportValueIds(id, host.Attributes()), 1);
    ASSERT_EQ(client->ImportValueIdsChunk(id, 0, last, host.Attributes(), 0), 1);
    ASSERT_EQ(client->ImportValueIdsChunk(id, last, table.rows, &allButOne, 0), 1);
    ASSERT_EQ(client->EndImportValueIds(id, host.Attributes()), 1);
    EXPECT_EQ(client->EndImport(id), 0);

    EXPECT_EQ(DataTables(), std::vector<Row>{});
    EXPECT_EQ(QueryRows(database, "select count(*) from lxrepo_tables"), std::vector<Row>{{"0"}});
}

INSTANTIATE_TEST_SUITE_P(
    Ways, ImportEndToEnd,
    ::testing::Values(WayCase{"ThroughTheAuthenticationProxy", Way::Proxy},
                      WayCase{"DirectWithLoginAtTheOpenIdProvider", Way::Login},
                      WayCase{"DirectWithNtlmHandshake", Way::Ntlm}),
    [](const ::testing::TestParamInfo<WayCase>& info) { return std::string(info.param.name); });

} // namespace
