// The real lxrepo-server binary as a child process, stopped in the middle of an import by
// SIGKILL (a crash) or SIGTERM (a clean stop), then started again on the same file: every
// committed table is intact, the half-imported one left no trace.
#include <gtest/gtest.h>

#include "ServerFixture.h"

#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace servertest;

// lxrepo-server --port 0 --database FILE, its port read from the first line of its output.
class ChildServer {
public:
    explicit ChildServer(const std::string& database) {
        int output[2];
        if (pipe(output) != 0) {
            throw std::runtime_error("pipe failed");
        }
        pid_ = fork();
        if (pid_ == 0) {
            dup2(output[1], STDOUT_FILENO);
            close(output[0]);
            close(output[1]);
            execl(LXREPO_SERVER_BINARY, LXREPO_SERVER_BINARY, "--port", "0", "--database",
                  database.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        close(output[1]);
        FILE* stream = fdopen(output[0], "r");
        char line[64] = {};
        const bool read = std::fgets(line, sizeof line, stream) != nullptr;
        std::fclose(stream);
        if (!read) {
            Stop(SIGKILL);
            throw std::runtime_error("lxrepo-server printed no port");
        }
        url_ = "http://127.0.0.1:" + std::to_string(std::stoi(line));
    }
    ~ChildServer() {
        if (pid_ > 0) {
            Stop(SIGKILL);
        }
    }

    const std::string& Url() const { return url_; }

    // Sends the signal and returns the wait status.
    int Stop(int signal) {
        kill(pid_, signal);
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return status;
    }

private:
    pid_t pid_ = -1;
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
            ASSERT_EQ(PostImport(server.Url(), id, {Word("Attributes")}, AttributeDocument({"A"}))
                          .status,
                      200);
            for (const auto& [rest, body] : std::vector<std::pair<std::vector<Segment>, std::string>>{
                     {{Word("DistinctValues"), Name("A"), Word("Begin")}, "null"},
                     {{Word("DistinctValues"), Name("A")}, "[\"v\"]"},
                     {{Word("DistinctValues"), Name("A"), Word("End")}, "null"},
                     {{Word("ValueIds"), Name("A"), Word("Begin")}, "null"},
                     {{Word("ValueIds"), Name("A")}, "[0, 0]"},
                     {{Word("ValueIds"), Name("A"), Word("End")}, "null"}}) {
                ASSERT_EQ(PostImport(server.Url(), id, rest, body).status, 200) << "case: " << c.name;
            }
            const int status = server.Stop(c.signal);
            if (c.exitsCleanly) {
                EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "case: " << c.name;
            } else {
                EXPECT_TRUE(WIFSIGNALED(status)) << "case: " << c.name;
            }
        }
        ChildServer restarted(database);
        const std::vector<Row> expected = {{"one", "x"}, {"two", std::nullopt},
                                           {std::nullopt, "x"}, {"two", "x"}};
        EXPECT_EQ(QueryRows(database, "select * from Committed order by rowid"), expected)
            << "case: " << c.name;
        EXPECT_TRUE(QueryRows(database, "select name from sqlite_master where name like 'Half%'")
                        .empty())
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
