// lxrepo-server under load: eight hosts import eight different tables at once through the
// library (each its own client object on its own thread, all through the authentication proxy),
// while a ninth abandons its import before the End. Every complete import must be committed cell
// by cell, the abandoned one must leave nothing behind, and no host may see an error.
// GoogleTest comes first: cpprestsdk's function-like macro U() breaks its templates.
#include <gtest/gtest.h>

#include "e2e/Deployment.h"

#include <string>
#include <thread>
#include <vector>

namespace {

using namespace e2e;
using servertest::Row;

TEST(ServerUnderLoad, ConcurrentImportsCommitAndAnAbandonedOneLeavesNothing) {
    constexpr int kImporters = 9; // the last one abandons its import
    servertest::TempDirectory files;
    const std::string database = files.File("repo.sqlite");
    std::vector<Table> tables;
    std::vector<Row> names;
    for (int i = 0; i < kImporters; ++i) {
        tables.push_back(GenerateTable("Ums\xC3\xA4tze load " + std::to_string(i), i));
        names.push_back({tables.back().name});
    }
    names.pop_back();
    const Deployment deployment(Way::Proxy, database, {tables[0].tableClass});

    std::vector<std::string> outcomes(kImporters, "never ran");
    std::vector<std::thread> hosts;
    for (int i = 0; i < kImporters; ++i) {
        hosts.emplace_back([&, i] {
            outcomes[i] =
                ImportThroughLibrary(deployment.Host(), tables[i], i + 1 < kImporters).failure;
        });
    }
    for (std::thread& host : hosts) {
        host.join();
    }
    for (int i = 0; i < kImporters; ++i) {
        EXPECT_EQ(outcomes[i], "") << tables[i].name;
        if (i + 1 < kImporters) {
            EXPECT_EQ(servertest::TableRows(database, tables[i].name), ExpectedRows(tables[i]))
                << tables[i].name;
        }
    }
    EXPECT_EQ(servertest::QueryRows(database, "select name from lxrepo_tables order by name"),
              names);
    EXPECT_EQ(servertest::QueryRows(database, "select name from sqlite_master where type = "
                                              "'table' and name <> 'lxrepo_tables' order by name"),
              names);
}

} // namespace
