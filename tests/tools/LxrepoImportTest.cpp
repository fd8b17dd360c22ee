// lxrepo run as a program against the end-to-end deployment through the authentication proxy;
// its tables read back from SQLite.
// GoogleTest comes first: cpprestsdk's function-like macro U() breaks its templates.
#include <gtest/gtest.h>

#include "e2e/Deployment.h"

#include <nlohmann/json.hpp>

#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace {

using servertest::QueryRows;
using servertest::Row;

// The service accepts the classes "default" and "sales"; with tls it and the proxy serve https.
class Lxrepo {
public:
    explicit Lxrepo(bool tls = false)
        : deployment_(e2e::Way::Proxy, Database(), {"default", "sales"}, tls) {}
    std::string Database() const { return files_.File("repo.sqlite"); }
    std::string Write(const std::string& name, const std::string& content) const {
        std::ofstream(files_.File(name), std::ios::binary) << content;
        return files_.File(name);
    }
    // lxrepo with the blank-separated words of line, then this deployment's service, proxy and
    // client unless the line names a proxy.
    testsupport::Finished Run(const std::string& line) const {
        std::vector<std::string> args{LXREPO_BINARY};
        std::istringstream words(line);
        for (std::string word; words >> word;) {
            args.push_back(word);
        }
        if (line.find("--proxy") == std::string::npos) {
            args.insert(args.end(),
                        {"--server", deployment_.host.serviceUrl, "--proxy",
                         deployment_.proxyServer->Url(), "--client", deployment_.client});
        }
        return testsupport::RunToEnd(args);
    }
    int ProxyConnectStatus() const { return deployment_.ProxyConnectStatus(); }

private:
    servertest::TempDirectory files_;
    e2e::Deployment deployment_;
};

const std::optional<std::string> kEmpty;

TEST(Lxrepo, TableInSqliteEqualsTheFileCellByCell) {
    const struct {
        const char* name;
        std::string csv;
        std::vector<Row> columns; // name and attribute type of each
        std::vector<Row> rows;    // nullopt: an empty cell
    } cases[] = {
        {"quoted_fields",
         "id,comment\n1,\"a, b\"\n2,\"say \"\"hi\"\"\"\n3,plain\n10,\"a, b\"\n",
         {{"id", "1"}, {"comment", "0"}},
         {{"1", "a, b"}, {"2", "say \"hi\""}, {"3", "plain"}, {"10", "a, b"}}},
        {"line_breaks_and_crlf",
         "name,note\r\nx,\"two\r\nlines\"\r\ny,\"three\nlines\"\r\n x , \r\n",
         {{"name", "0"}, {"note", "0"}},
         {{"x", "two\r\nlines"}, {"y", "three\nlines"}, {" x ", " "}}},
        {"byte_order_mark_and_non_ascii",
         "\xEF\xBB\xBF"
         "Stadt \xC3\xBC,\"in \xE2\x82\xAC, (%)\"\n"
         "Z\xC3\xBCrich,12.50\n\xE6\x9D\xB1\xE4\xBA\xAC,3\nS\xC3\xA3o,-0.5\n",
         {{"Stadt \xC3\xBC", "0"}, {"in \xE2\x82\xAC, (%)", "2"}},
         {{"Z\xC3\xBCrich", "12.50"}, {"\xE6\x9D\xB1\xE4\xBA\xAC", "3"}, {"S\xC3\xA3o", "-0.5"}}},
        {"empty_cells_dates_no_final_line_end",
         // The first of a month and the last of a 31-day month are dates; a 29 February only in
         // a leap year.
         "day,qty,label,code\n2024-01-31,,a,007\n,7,,2023-02-29\n"
         "2024-02-29,8,a,1\n2024-12-01,9,b,2\n,,,",
         {{"day", "3"}, {"qty", "1"}, {"label", "0"}, {"code", "0"}},
         {{"2024-01-31", kEmpty, "a", "007"},
          {kEmpty, "7", kEmpty, "2023-02-29"},
          {"2024-02-29", "8", "a", "1"},
          {"2024-12-01", "9", "b", "2"},
          {kEmpty, kEmpty, kEmpty, kEmpty}}},
    };
    // Over https: lxrepo trusts the test authority as the system's store (SSL_CERT_FILE, which
    // it inherits).
    const Lxrepo lxrepo(true);
    for (const auto& c : cases) {
        // Chunks of two rows and two distinct values, so every phase takes several requests.
        const auto run = lxrepo.Run("import " + lxrepo.Write(std::string(c.name) + ".csv", c.csv) +
                                    " --chunk-rows 2 --json");
        ASSERT_EQ(run.status, 0) << "case: " << c.name << "\n" << run.err;
        const auto summary = nlohmann::json::parse(run.out);
        EXPECT_EQ(summary["rows"], c.rows.size()) << "case: " << c.name;
        EXPECT_EQ(summary["attributes"], c.columns.size()) << "case: " << c.name;
        EXPECT_EQ(summary["table"], c.name) << "case: " << c.name;
        EXPECT_EQ(servertest::TableRows(lxrepo.Database(), c.name), c.rows) << "case: " << c.name;
        // The SQL table's columns with the types of the catalogue's attribute document.
        EXPECT_EQ(
            QueryRows(lxrepo.Database(),
                      "select p.name, json_extract(t.attributes, '$[' || p.cid || '].Type') "
                      "from lxrepo_tables t, pragma_table_info(t.name) p where t.table_id = '" +
                          summary["tableId"].get<std::string>() + "' order by p.cid"),
            c.columns)
            << "case: " << c.name;
    }
}

// sales.csv is a table already when each case runs; each malformed file is one of its own.
TEST(Lxrepo, ExitStatusAndMessageNameWhatFailed) {
    const Lxrepo lxrepo;
    const std::string sales = lxrepo.Write("sales.csv", "region,units\nnorth,3\nsouth,\n");
    ASSERT_EQ(lxrepo.Run("import " + sales).status, 0);
    int files = 0;
    const auto bad = [&](const std::string& csv) {
        return "import " + lxrepo.Write("bad" + std::to_string(files++) + ".csv", csv);
    };
    const std::string nowhere = "http://127.0.0.1:" + std::to_string(testsupport::FreePort());
    const struct {
        const char* name;
        std::string line;
        int status;
        std::string said; // in its output
    } cases[] = {
        {"quote left open", bad("a,b\n1,2\n3,\"open\n4,5\n"), 2, "line 3:"},
        {"too few fields", bad("a,b\n1,2\n3\n"), 2, "line 3:"},
        // The first fault of the file is the one named, also when a later one ends the parse.
        {"too few fields before a quote left open", bad("a,b\n1\n2,\"open\n"), 2, "line 2:"},
        {"too many fields after a quoted break", bad("a,b\n\"x\ny\",2\n1,2,3\n"), 2, "line 4:"},
        {"quote inside an unquoted field", bad("a,b\n1,2\n1,x\"y\n"), 2, "line 3:"},
        {"text after a closing quote", bad("a,b\n\"1\"x,2\n"), 2, "line 2:"},
        {"column name twice", bad("a,a\n1,2\n"), 2, "line 1:"},
        // Table names compare without case, as SQLite's do.
        {"existing table", "import " + sales + " --table SALES", 1,
         "The service refused to create table \"SALES\" (HTTP 409); it exists, --overwrite "
         "replaces it."},
        {"class not allowed", "import " + sales + " --class secret", 1,
         "The service does not authorize imports of class \"secret\" (table \"sales\")."},
        {"unreachable proxy", "import " + sales + " --server " + nowhere + " --proxy " + nowhere, 3,
         "Could not register with the proxy at " + nowhere},
        {"missing file", "import " + sales + ".gone", 2, "cannot read " + sales + ".gone"},
        {"bad chunk size", "import " + sales + " --chunk-rows 0", 2,
         "--chunk-rows: Value 0 not in range"},
        {"check of an allowed class", "check --class sales", 0,
         "connection: Connected\nproxy version: 1.0.0-lxproxy-2.1\nclass \"sales\": authorized\n"},
        {"check of a class not allowed", "check --class secret", 1,
         "class \"secret\": not authorized"},
        // Nothing is sent to an address that is no absolute http(s) URL.
        {"server without scheme", "import " + sales + " --server repo.example --proxy " + nowhere,
         2, "--server: not an absolute http:// or https:// URL: repo.example"},
        {"relative proxy", "check --server " + nowhere + " --proxy /register", 2,
         "--proxy: not an"},
        // Under --json a failure is one object on standard output, usage errors too.
        {"json usage error", "import " + sales + " --json --server ftp://x --proxy " + nowhere, 2,
         R"({"error":"--server: not an absolute http:// or https:// URL: ftp://x","exitStatus":2,"step":"command line"})"},
        {"json refusal", "import " + sales + " --class secret --json", 1,
         R"({"error":"The service does not authorize imports of class \"secret\" (table \"sales\").","exitStatus":1,"step":"authorization"})"},
        {"json unreachable",
         "import " + sales + " --json --server " + nowhere + " --proxy " + nowhere, 3,
         R"(","exitStatus":3,"step":"registration"})"},
        {"json malformed file", bad("a\n\"x\n") + " --json", 2, R"("exitStatus":2,"step":"file"})"},
    };
    for (const auto& c : cases) {
        const auto run = lxrepo.Run(c.line);
        const bool json = c.line.find(" --json") != std::string::npos;
        EXPECT_EQ(run.status, c.status) << "case: " << c.name << "\n" << run.err;
        EXPECT_NE((json ? run.out : run.out + run.err).find(c.said), std::string::npos)
            << "case: " << c.name << "\n"
            << run.out << run.err;
        EXPECT_TRUE(!json || nlohmann::json::accept(run.out)) << "case: " << c.name << run.out;
    }
    // Every run withdrew its registration, the refused ones too.
    EXPECT_EQ(lxrepo.ProxyConnectStatus(), 401);
    // Refused imports left the first one alone; --overwrite replaces it.
    EXPECT_EQ(servertest::TableRows(lxrepo.Database(), "sales"),
              (std::vector<Row>{{"north", "3"}, {"south", kEmpty}}));
    const std::string other = lxrepo.Write("other.csv", "units\n7\n");
    ASSERT_EQ(lxrepo.Run("import " + other + " --overwrite --table Sales").status, 0);
    EXPECT_EQ(servertest::TableRows(lxrepo.Database(), "sales"), std::vector<Row>{{"7"}});
    EXPECT_EQ(QueryRows(lxrepo.Database(), "select name from lxrepo_tables"),
              std::vector<Row>{{"Sales"}});
}

} // namespace
