// The real lxrepo-server binary as a child process, stopped in the middle of an import by
// SIGKILL (a crash) or SIGTERM (a clean stop), then started again on the same file: every
// committed table is intact, the half-imported one left no trace.
#include <gtest/gtest.h>

#include "ServerFixture.h"

#include <csignal>
#include <string>
#include <vector>

#include <sys/wait.h>

namespace {

using namespace servertest;

// lxrepo-server --port 0 --database FILE as a child process.
class ChildServer : public ChildProcess {
public:
    explicit ChildServer(const std::string& database)
        : ChildProcess({LXREPO_SERVER_BINARY, "--port", "0", "--database", database}),
          url_("http://127.0.0.1:" + std::to_string(Port())) {}
    const std::string& Url() const { return url_; }

private:
    std::string url_;
};

TableData Committed() {
    return {"Committed", {"A", "B"}, {{"one", "two"}, {"x"}}, {{0, 1, -1, 1}, {0, -1, 0, 0}}};
}

TEST(CrashRecovery, CommittedTablesSurviveAndHalfImportsVanish) {
    struct Case {
        const char* name;
        int signal;
        bool exitsCleanly;
    };
    for (const Case& c : {Case{"killed", SIGKILL, false}, Case{"terminated", SIGTERM, true}}) {
        TempDirectory directory;
        const std::string database = directory.File("repo.sqlite");
        {
            ChildServer server(database);
            ASSERT_EQ(ImportWholeTable(server.Url(), Committed()), 200) << "case: " << c.name;
            // A second import that has everything but its End.
            std::string id;
            ASSERT_EQ(CreateTable(server.Url(), "Half", 2, false, &id).status, 201);
            ASSERT_EQ(
                PostImport(server.Url(), id, {Word("Attributes")}, AttributeDocument({"A"})).status,
                200);
            for (const auto& [rest, body] :
                 std::vector<std::pair<std::vector<Segment>, std::string>>{
                     {{Word("DistinctValues"), Name("A"), Word("Begin")}, "null"},
                     {{Word("DistinctValues"), Name("A")}, "[\"v\"]"},
                     {{Word("DistinctValues"), Name("A"), Word("End")}, "null"},
                     {{Word("ValueIds"), Name("A"), Word("Begin")}, "null"},
                     {{Word("ValueIds"), Name("A")}, "[0, 0]"},
                     {{Word("ValueIds"), Name("A"), Word("End")}, "null"}}) {
                ASSERT_EQ(PostImport(server.Url(), id, rest, body).status, 200)
                    << "case: " << c.name;
            }
            const int status = server.Stop(c.signal);
            if (c.exitsCleanly) {
                EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "case: " << c.name;
            } else {
                EXPECT_TRUE(WIFSIGNALED(status)) << "case: " << c.name;
            }
        }
        ChildServer restarted(database);
        const std::vector<Row> expected = {
            {"one", "x"}, {"two", std::nullopt}, {std::nullopt, "x"}, {"two", "x"}};
        EXPECT_EQ(QueryRows(database, "select * from Committed order by rowid"), expected)
            << "case: " << c.name;
        EXPECT_TRUE(
            QueryRows(database, "select name from sqlite_master where name like 'Half%'").empty())
            << "case: " << c.name;
        EXPECT_EQ(QueryRows(database, "select name from lxrepo_tables"),
                  std::vector<Row>{{"Committed"}})
            << "case: " << c.name;
        // The name of the lost import is free again; the committed one is not.
        EXPECT_EQ(ImportWholeTable(restarted.Url(), {"Half", {"A"}, {{"w"}}, {{0}}}), 200)
            << "case: " << c.name;
        EXPECT_EQ(CreateTable(restarted.Url(), "Committed", 1, false).status, 409)
            << "case: " << c.name;
    }
}

} // namespace
