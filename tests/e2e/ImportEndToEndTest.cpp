// Whole imports through the library's public operations, in the host's order, against
// lxrepo-server, for each way of connecting; the SQL table is then read back cell by cell.
// GoogleTest comes first: cpprestsdk's function-like macro U() breaks its templates.
#include <gtest/gtest.h>

#include "e2e/Deployment.h"

#include <ostream>
#include <string>
#include <vector>

namespace {

using namespace e2e;
using namespace servertest;

struct WayCase {
    const char* name;
    Way way;
    const char* version; // what the proxy reports
    bool tls = false;    // the service and the proxy at https addresses
};

void PrintTo(const WayCase& c, std::ostream* os) { *os << c.name; }

class ImportEndToEnd : public ::testing::TestWithParam<WayCase> {};

TEST_P(ImportEndToEnd, EveryCellArrivesInTheSqlTable) {
    if (!Deployment::Available(GetParam().way)) {
        GTEST_SKIP() << "the login needs node and tests/oidc's packages "
                        "(scripts/install-dependencies.sh)";
    }
    const Table table = GenerateTable("Ums\xC3\xA4tze Q1 2024");
    TempDirectory files;
    const std::string database = files.File("repo.sqlite");
    Deployment deployment(GetParam().way, database, {table.tableClass}, GetParam().tls);
    const Imported imported = ImportThroughLibrary(deployment.host, table);
    EXPECT_EQ(ToStringT(imported.connection.errorText), "");
    EXPECT_EQ(ToStringT(imported.connection.version), GetParam().version);
    ASSERT_EQ(imported.failure, "");
    // The service's ids are the name, "#" and eight hex digits: a blank, non-ASCII text and a
    // "#" that every later path must carry encoded.
    const std::string id = ToStringT(imported.id);
    EXPECT_EQ(id.rfind(table.name + "#", 0), 0u) << id;

    EXPECT_EQ(deployment.ProxyConnectStatus(), 200);
    const auto unregistered =
        imported.client->UnregisterFromAuthenticationProxy(deployment.host.proxy);
    EXPECT_EQ(ToStringT(unregistered.message), "");
    EXPECT_EQ(deployment.ProxyConnectStatus(), 401) << "the proxy still knows the client";

    EXPECT_EQ(TableRows(database, table.name), ExpectedRows(table));
    EXPECT_EQ(
        QueryRows(database, "select name, table_id, table_class, description, "
                            "record_count, imported_by, client from lxrepo_tables"),
        (std::vector<Row>{{table.name, id, table.tableClass, table.description,
                           std::to_string(table.rows), deployment.importedBy, deployment.client}}));
}

INSTANTIATE_TEST_SUITE_P(
    Ways, ImportEndToEnd,
    ::testing::Values(WayCase{"ThroughTheAuthenticationProxy", Way::Proxy, "1.0.0-lxproxy-2.1"},
                      WayCase{"DirectWithLoginAtTheOpenIdProvider", Way::Login, "2.0.0"},
                      WayCase{"DirectWithNtlmHandshake", Way::Ntlm, "1.0.0"},
                      WayCase{"HttpsWithLoginAtTheOpenIdProvider", Way::Login, "2.0.0", true},
                      WayCase{"HttpsWithNtlmHandshake", Way::Ntlm, "1.0.0", true}),
    [](const ::testing::TestParamInfo<WayCase>& info) { return std::string(info.param.name); });

} // namespace
