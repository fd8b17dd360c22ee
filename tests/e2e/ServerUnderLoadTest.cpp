// lxrepo-server under load: eight hosts import eight different tables at once through the
// library (each its own client object on its own thread, all through the authentication proxy),
// while a ninth importer, a raw client, starts an import and drops its connection in the middle
// of a chunk. Every complete import must be committed cell by cell, the abandoned one must leave
// nothing behind, and no host may see an error.
// GoogleTest comes first: cpprestsdk's function-like macro U() breaks its templates.
#include <gtest/gtest.h>

#include "e2e/Deployment.h"
#include "e2e/GeneratedTable.h"

#include "ServerFixture.h"
#include "TableRepositoryImport.h"
#include "Url.h"

#include <nlohmann/json.hpp>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace e2e;
using servertest::QueryRows;
using servertest::Row;

constexpr int kImporters = 8;
constexpr long kDistinctChunk = 16;
constexpr long kRowChunk = 100;
const std::string kAbandonedName = "Abandoned halfway";

// The generated table under its own name, its rows rotated so that no two tables hold the same.
Table TableNumber(int number) {
    Table table = GenerateTable();
    table.name += " load " + std::to_string(number);
    for (Column& column : table.columns) {
        std::rotate(column.valueIds.begin(), column.valueIds.begin() + number * 7,
                    column.valueIds.end());
    }
    return table;
}

// One host's whole import; "" when every call succeeded, otherwise the first that did not.
std::string ImportThroughLibrary(const Deployment& deployment, const Table& table) {
    HostTable host(table);
    std::unique_ptr<CTableRepositoryImport> client(
        dynamic_cast<CTableRepositoryImport*>(new_TableRepositoryImport()));
    client->RegisterWithAuthenticationProxy(deployment.ProxyConfiguration());
    const TestConnectionResult connection = client->TestConnection(Wide(deployment.ServiceUrl()));
    if (connection.status != deployment.Expected().connectionStatus) {
        return "TestConnection: " + Utf8(connection.errorText);
    }
    auto [status, id] = client->CreateTable(Wide(table.name), Wide(table.tableClass),
                                            Wide(table.description), 0, table.rows);
    if (status != 201) {
        return "CreateTable: " + std::to_string(status);
    }
    if (client->CreateAttributeDefinitions(id, host.Definitions()) != 1) {
        return "CreateAttributeDefinitions";
    }
    for (std::size_t c = 0; c < table.columns.size(); ++c) {
        const Column& column = table.columns[c];
        const CString name = Wide(column.name);
        const auto count = static_cast<long>(column.distinctValues.size());
        bool ok = client->BeginDistinctValues(id, name) == 1;
        for (long first = 0; ok && first < count; first += kDistinctChunk) {
            ok = client->ImportDistinctValuesChunk(id, name, first,
                                                   std::min(count, first + kDistinctChunk),
                                                   host.DistinctValues(c), column.copyMode) == 1;
        }
        if (!ok || client->EndDistinctValues(id, name) != 1) {
            return "distinct values of " + column.name;
        }
    }
    bool ok = client->BeginImportValueIds(id, host.Attributes()) == 1;
    for (long first = 0; ok && first < table.rows; first += kRowChunk) {
        ok = client->ImportValueIdsChunk(id, first, std::min<long>(table.rows, first + kRowChunk),
                                         host.Attributes(), 0) == 1;
    }
    if (!ok || client->EndImportValueIds(id, host.Attributes()) != 1) {
        return "value ids";
    }
    return client->EndImport(id) == 1 ? "" : "EndImport";
}

// Sends the start of a request on a fresh connection and closes it mid-body.
void SendTruncated(unsigned short port, const std::string& target) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    const std::string partial = "POST " + target +
                                " HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/json\r\n"
                                "Content-Length: 4096\r\n\r\n[\"first value\", \"sec";
    ASSERT_EQ(send(fd, partial.data(), partial.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(partial.size()));
    close(fd);
}

// A raw client that creates a table, defines its attributes, sends one chunk of distinct
// values, then dies inside the next chunk and never ends the import.
void ImportAndDropConnection(const Deployment& deployment, const std::string& tableClass) {
    const CAuthenticationProxyConfiguration proxy = deployment.ProxyConfiguration();
    const std::string proxyUrl = Utf8(proxy.proxyBaseUri);
    const servertest::Query parameters = {
        {"lxclient", "dying desk"}, {"lxserver", deployment.ServiceUrl()}, {"lxauth", "windows"}};
    using servertest::Word;
    ASSERT_EQ(servertest::Send(proxyUrl, "GET", {Word("/register")}, std::nullopt, parameters)
                  .status,
              200);
    const servertest::Via via(proxyUrl, "/forward", parameters);
    const nlohmann::json create = {{"recordCount", 3},        {"tableClass", tableClass},
                                   {"tableDescription", ""}, {"tableName", kAbandonedName},
                                   {"tableOverwrite", false}};
    const servertest::Answer created =
        servertest::Send(via, "POST", {Word("/Import/Tables")}, create.dump());
    ASSERT_EQ(created.status, 201) << created.body;
    const std::string id = nlohmann::json::parse(created.body).at("tableID").get<std::string>();
    ASSERT_EQ(servertest::PostImport(via, id, {Word("Attributes")},
                                     servertest::AttributeDocument({"Kept", "Dropped"}))
                  .status,
              200);
    const std::vector<servertest::Segment> kept = {Word("DistinctValues"), Word("Kept")};
    auto begin = kept;
    begin.push_back(Word("Begin"));
    ASSERT_EQ(servertest::PostImport(via, id, begin, "null").status, 200);
    ASSERT_EQ(servertest::PostImport(via, id, kept, R"(["a", "b"])").status, 200);

    std::string query;
    for (const auto& [name, value] : parameters) {
        query += (query.empty() ? "?" : "&") + name + "=" + lxrepo::PercentEncode(value);
    }
    const unsigned short port = static_cast<unsigned short>(
        std::stoi(proxyUrl.substr(proxyUrl.rfind(':') + 1)));
    SendTruncated(port, "/forward/Import/Tables/" + lxrepo::PercentEncode(id) +
                            "/DistinctValues/Kept" + query);
}

TEST(ServerUnderLoad, ConcurrentImportsCommitAndAnAbandonedOneLeavesNothing) {
    servertest::TempDirectory files;
    const std::string database = files.File("repo.sqlite");
    std::vector<Table> tables;
    for (int i = 0; i < kImporters; ++i) {
        tables.push_back(TableNumber(i));
    }
    const Deployment deployment(Way::Proxy, database, tables[0].tableClass);

    std::vector<std::string> outcomes(kImporters, "never ran");
    std::vector<std::thread> hosts;
    for (int i = 0; i < kImporters; ++i) {
        hosts.emplace_back([&, i] { outcomes[i] = ImportThroughLibrary(deployment, tables[i]); });
    }
    ImportAndDropConnection(deployment, tables[0].tableClass);
    for (std::thread& host : hosts) {
        host.join();
    }

    std::vector<Row> names;
    for (int i = 0; i < kImporters; ++i) {
        EXPECT_EQ(outcomes[i], "") << tables[i].name;
        names.push_back({tables[i].name});
        const auto rows = QueryRows(database, "select * from \"" + tables[i].name + "\" order by rowid");
        EXPECT_EQ(rows, ExpectedRows(tables[i])) << tables[i].name;
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(QueryRows(database, "select name from lxrepo_tables order by name"), names);
    EXPECT_EQ(QueryRows(database, "select name from sqlite_master where type = 'table' and "
                                  "name <> 'lxrepo_tables' order by name"),
              names);
    EXPECT_EQ(QueryRows(database, "select count(*) from sqlite_master where name = '" +
                                      kAbandonedName + "'"),
              std::vector<Row>{{"0"}});
}

} // namespace
