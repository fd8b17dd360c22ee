// Whole imports through the library's public operations, in the host's order, against
// lxrepo-server, for each way of connecting; the SQL table is then read back cell by cell.
// GoogleTest comes first: cpprestsdk's function-like macro U() breaks its templates.
#include <gtest/gtest.h>

#include "e2e/Deployment.h"

#include <memory>
#include <ostream>
#include <string>
#include <vector>

// gss-ntlmssp 1.2 never frees the MD4 digest it fetches from OpenSSL when it hashes a password;
// that leak is OpenSSL-allocated and not ours.
extern "C" const char* __lsan_default_suppressions() { return "leak:libcrypto.so.3\n"; }

namespace {

using namespace e2e;
using servertest::QueryRows;
using servertest::Row;

struct WayCase {
    const char* name;
    Way way;
    const char* version; // what the proxy reports
};

void PrintTo(const WayCase& c, std::ostream* os) { *os << c.name; }

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
    }

    void ExpectConnected(const Imported& imported) {
        if (browser) {
            EXPECT_EQ(browser->Outcome(), "");
        }
        EXPECT_EQ(Utf8(imported.connection.errorText), "");
        EXPECT_EQ(Utf8(imported.connection.version), GetParam().version);
    }

    const Table table = GenerateTable();
    servertest::TempDirectory files;
    std::string database = files.File("repo.sqlite");
    std::unique_ptr<Deployment> deployment;
    std::unique_ptr<LoginBrowser> browser;
};

TEST_P(ImportEndToEnd, EveryCellArrivesInTheSqlTable) {
    const Imported imported = ImportThroughLibrary(deployment->Host(), table);
    ExpectConnected(imported);
    ASSERT_EQ(imported.failure, "");
    // The service's ids are the name, "#" and eight hex digits: a blank, non-ASCII text and a
    // "#" that every later path must carry encoded.
    EXPECT_EQ(imported.id.rfind(table.name + "#", 0), 0u) << imported.id;

    EXPECT_EQ(deployment->ProxyConnectStatus(), 200);
    const auto unregistered =
        imported.client->UnregisterFromAuthenticationProxy(deployment->Host().proxy);
    EXPECT_EQ(Utf8(unregistered.message), "");
    EXPECT_EQ(deployment->ProxyConnectStatus(), 401) << "the proxy still knows the client";

    std::vector<Row> columns;
    for (const auto& column : table.columns) {
        columns.push_back({column.name});
    }
    EXPECT_EQ(QueryRows(database,
                        "select name from pragma_table_info('" + table.name + "') order by cid"),
              columns);
    const auto rows = servertest::TableRows(database, table.name);
    const auto expected = ExpectedRows(table);
    ASSERT_EQ(rows.size(), expected.size());
    for (std::size_t r = 0; r < rows.size(); ++r) {
        EXPECT_EQ(rows[r], expected[r]) << "row " << r;
    }
    const auto catalogue =
        QueryRows(database, "select name, table_id, table_class, description, "
                            "record_count, imported_by, client from lxrepo_tables");
    EXPECT_EQ(catalogue, (std::vector<Row>{{table.name, imported.id, table.tableClass,
                                            table.description, std::to_string(table.rows),
                                            deployment->ImportedBy(), deployment->Client()}}));
}

// The service commits only complete columns: one attribute a value id short spoils the whole
// import, and nothing of it may reach the file.
TEST_P(ImportEndToEnd, ValueIdsOneShortForAnAttributeLeaveNoTable) {
    const Imported imported =
        ImportThroughLibrary(deployment->Host(), table, Until::EndWithOneAttributeShort);
    ExpectConnected(imported);
    EXPECT_EQ(imported.failure, "");
    EXPECT_EQ(QueryRows(database, "select name from sqlite_master where type = 'table'"),
              std::vector<Row>{{"lxrepo_tables"}});
    EXPECT_EQ(QueryRows(database, "select count(*) from lxrepo_tables"), std::vector<Row>{{"0"}});
}

INSTANTIATE_TEST_SUITE_P(
    Ways, ImportEndToEnd,
    ::testing::Values(WayCase{"ThroughTheAuthenticationProxy", Way::Proxy, "1.0.0-lxproxy-2.1"},
                      WayCase{"DirectWithLoginAtTheOpenIdProvider", Way::Login, "2.0.0"},
                      WayCase{"DirectWithNtlmHandshake", Way::Ntlm, "1.0.0"}),
    [](const ::testing::TestParamInfo<WayCase>& info) { return std::string(info.param.name); });

} // namespace
