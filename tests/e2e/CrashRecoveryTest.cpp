// The real lxrepo-server binary, service and its own proxy in one process with NTLM towards the
// service, under load: eight hosts import eight tables at once through the library (each its
// own client object on its own thread) while a ninth stops before the End. Then it is stopped by
// SIGKILL (a crash) or SIGTERM (a clean stop) and started again on the same file: every
// committed table is intact, the half-imported one left no trace. The proxy part has no account
// of its own on the command line, so it authenticates as NTLM_USER_FILE's, which it inherits.
// GoogleTest comes first: cpprestsdk's function-like macro U() breaks its templates.
#include <gtest/gtest.h>

#include "e2e/Deployment.h"

#include <csignal>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <sys/wait.h>

namespace {

using namespace e2e;
using namespace servertest;

TEST(CrashRecovery, ConcurrentImportsCommitAndSurviveAndHalfImportsVanish) {
    constexpr int kImporters = 9; // the last one stops before the End
    std::vector<Table> tables;
    std::vector<Row> committed;
    for (int i = 0; i < kImporters; ++i) {
        tables.push_back(GenerateTable("Ums\xC3\xA4tze " + std::to_string(i), i));
        committed.push_back({tables.back().name});
    }
    committed.pop_back();
    const std::string names = "select name from lxrepo_tables order by name";
    for (const auto& [name, signal, exitsCleanly] :
         {std::tuple{"killed", SIGKILL, false}, std::tuple{"terminated", SIGTERM, true}}) {
        TempDirectory directory;
        const std::string database = directory.File("repo.sqlite");
        WriteNtlmUsers(directory.File("users"));
        const unsigned short port = testsupport::FreePort(kNtlmServiceHost);
        const Endpoint host = NtlmSelfProxy(port);
        const auto start = [&] {
            return std::make_unique<testsupport::ChildProcess>(std::vector<std::string>{
                LXREPO_SERVER_BINARY, "--address", kNtlmServiceHost, "--port", std::to_string(port),
                "--database", database, "--auth", "ntlm", "--ntlm-users", directory.File("users"),
                "--proxy-allow", host.serviceUrl});
        };
        auto server = start();
        std::vector<std::string> outcomes(kImporters, "never ran");
        std::vector<std::thread> hosts;
        for (int i = 0; i < kImporters; ++i) {
            hosts.emplace_back([&, i] {
                outcomes[i] = ImportThroughLibrary(host, tables[i], i + 1 < kImporters).failure;
            });
        }
        for (std::thread& thread : hosts) {
            thread.join();
        }
        EXPECT_EQ(outcomes, std::vector<std::string>(kImporters, "")) << "case: " << name;
        EXPECT_EQ(QueryRows(database, names), committed) << "case: " << name;
        const int status = server->Stop(signal);
        EXPECT_EQ(WIFEXITED(status) && WEXITSTATUS(status) == 0, exitsCleanly) << "case: " << name;
        auto restarted = start();
        for (int i = 0; i + 1 < kImporters; ++i) {
            EXPECT_EQ(TableRows(database, tables[i].name), ExpectedRows(tables[i]))
                << "case: " << name << ", " << tables[i].name;
        }
        EXPECT_EQ(QueryRows(database, names), committed) << "case: " << name;
        EXPECT_EQ(QueryRows(database, "select name from sqlite_master where type = 'table' and "
                                      "name <> 'lxrepo_tables' order by name"),
                  committed)
            << "case: " << name;
        // The name of the lost import is free again.
        EXPECT_EQ(ImportThroughLibrary(host, tables.back()).failure, "") << "case: " << name;
    }
}

} // namespace
