// The real lxrepo-server binary, service and its own proxy in one process with NTLM towards the
// service, stopped in the middle of an import by SIGKILL (a crash) or SIGTERM (a clean stop),
// then started again on the same file: every committed table is intact, the half-imported one
// left no trace. The proxy part has no account of its own on the command line, so it
// authenticates as NTLM_USER_FILE's, which it inherits.
// GoogleTest comes first: cpprestsdk's function-like macro U() breaks its templates.
#include <gtest/gtest.h>

#include "e2e/Deployment.h"

#include <csignal>
#include <string>
#include <vector>

#include <sys/wait.h>

namespace {

using namespace e2e;

TEST(CrashRecovery, CommittedTablesSurviveAndHalfImportsVanish) {
    struct Case {
        const char* name;
        int signal;
        bool exitsCleanly;
    };
    for (const Case& c : {Case{"killed", SIGKILL, false}, Case{"terminated", SIGTERM, true}}) {
        servertest::TempDirectory directory;
        const std::string database = directory.File("repo.sqlite");
        WriteNtlmUsers(directory.File("users"));
        const unsigned short port = testsupport::FreePort(NtlmServiceHost());
        const Endpoint host = NtlmSelfProxy(port);
        const auto start = [&] {
            return std::make_unique<testsupport::ChildProcess>(std::vector<std::string>{
                LXREPO_SERVER_BINARY, "--address", NtlmServiceHost(), "--port",
                std::to_string(port), "--database", database, "--auth", "ntlm", "--ntlm-users",
                directory.File("users"), "--proxy-allow", host.serviceUrl});
        };
        const Table committed = GenerateTable("Committed");
        {
            auto server = start();
            ASSERT_EQ(ImportThroughLibrary(host, committed).failure, "") << "case: " << c.name;
            ASSERT_EQ(ImportThroughLibrary(host, GenerateTable("Half", 1), false).failure, "")
                << "case: " << c.name;
            const int status = server->Stop(c.signal);
            EXPECT_EQ(WIFEXITED(status) && WEXITSTATUS(status) == 0, c.exitsCleanly)
                << "case: " << c.name;
        }
        auto restarted = start();
        EXPECT_EQ(servertest::TableRows(database, "Committed"), ExpectedRows(committed))
            << "case: " << c.name;
        EXPECT_EQ(servertest::QueryRows(database, "select name from lxrepo_tables"),
                  std::vector<servertest::Row>{{"Committed"}})
            << "case: " << c.name;
        // The name of the lost import is free again; the committed one is not.
        EXPECT_EQ(ImportThroughLibrary(host, GenerateTable("Half")).failure, "")
            << "case: " << c.name;
        EXPECT_EQ(ImportThroughLibrary(host, committed).failure, "CreateTable: 409")
            << "case: " << c.name;
    }
}

} // namespace
