// lxrepo-server under load: eight hosts import eight different tables at once through the
// library (each its own client object on its own thread, all through the authentication proxy),
// while a ninth importer starts an import and drops its connection in the middle of a chunk.
// Every complete import must be committed cell by cell, the abandoned one must leave nothing
// behind, and no host may see an error.
// GoogleTest comes first: cpprestsdk's function-like macro U() breaks its templates.
#include <gtest/gtest.h>

#include "e2e/Deployment.h"

#include "Url.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/write.hpp>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace e2e;
using servertest::Name;
using servertest::QueryRows;
using servertest::Row;
using servertest::Word;

// Starts an import through the proxy, sends one chunk of distinct values, then dies inside the
// next chunk and never ends the import.
void ImportAndDropConnection(const std::string& proxyUrl, unsigned short proxyPort,
                             const std::string& serviceUrl, const std::string& tableClass) {
    const servertest::Query parameters = {
        {"lxclient", "dying desk"}, {"lxserver", serviceUrl}, {"lxauth", "windows"}};
    ASSERT_EQ(servertest::Send(proxyUrl, {Word("/register")}, std::nullopt, parameters).status,
              200);
    const auto forward = [&](std::vector<servertest::Segment> path, const std::string& body) {
        path.insert(path.begin(), Word("/forward"));
        return servertest::Send(proxyUrl, path, body, parameters);
    };
    const nlohmann::json create = {{"recordCount", 3},
                                   {"tableClass", tableClass},
                                   {"tableDescription", ""},
                                   {"tableName", "Abandoned halfway"},
                                   {"tableOverwrite", false}};
    const auto created = forward({Word("/Import/Tables")}, create.dump());
    ASSERT_EQ(created.status, 201) << created.body;
    const std::string id = nlohmann::json::parse(created.body).at("tableID").get<std::string>();
    const auto table = [&](std::vector<servertest::Segment> rest) {
        rest.insert(rest.begin(), {Word("/Import/Tables"), Name(id)});
        return rest;
    };
    ASSERT_EQ(
        forward(table({Word("Attributes")}), servertest::AttributeDocument({"Kept", "Dropped"}))
            .status,
        200);
    ASSERT_EQ(forward(table({Word("DistinctValues"), Word("Kept"), Word("Begin")}), "null").status,
              200);
    ASSERT_EQ(forward(table({Word("DistinctValues"), Word("Kept")}), R"(["a", "b"])").status, 200);

    std::string query;
    for (const auto& [name, value] : parameters) {
        query += (query.empty() ? "?" : "&") + name + "=" + lxrepo::PercentEncode(value);
    }
    boost::asio::io_context context;
    boost::asio::ip::tcp::socket socket(context);
    socket.connect({boost::asio::ip::make_address("127.0.0.1"), proxyPort});
    boost::asio::write(
        socket, boost::asio::buffer("POST /forward/Import/Tables/" + lxrepo::PercentEncode(id) +
                                    "/DistinctValues/Kept" + query +
                                    " HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: "
                                    "application/json\r\nContent-Length: 4096\r\n\r\n"
                                    "[\"first value\", \"sec"));
}

TEST(ServerUnderLoad, ConcurrentImportsCommitAndAnAbandonedOneLeavesNothing) {
    constexpr int kImporters = 8;
    servertest::TempDirectory files;
    const std::string database = files.File("repo.sqlite");
    std::vector<Table> tables;
    std::vector<Row> names;
    for (int i = 0; i < kImporters; ++i) {
        tables.push_back(GenerateTable("Ums\xC3\xA4tze load " + std::to_string(i), i));
        names.push_back({tables.back().name});
    }
    const Deployment deployment(Way::Proxy, database, tables[0].tableClass);

    std::vector<std::string> outcomes(kImporters, "never ran");
    std::vector<std::thread> hosts;
    for (int i = 0; i < kImporters; ++i) {
        hosts.emplace_back(
            [&, i] { outcomes[i] = ImportThroughLibrary(deployment.Host(), tables[i]).failure; });
    }
    const std::string proxyUrl = deployment.ProxyUrl();
    ImportAndDropConnection(
        proxyUrl, static_cast<unsigned short>(std::stoi(proxyUrl.substr(proxyUrl.rfind(':') + 1))),
        deployment.Host().serviceUrl, tables[0].tableClass);
    for (std::thread& host : hosts) {
        host.join();
    }
    for (int i = 0; i < kImporters; ++i) {
        EXPECT_EQ(outcomes[i], "") << tables[i].name;
        EXPECT_EQ(servertest::TableRows(database, tables[i].name), ExpectedRows(tables[i]))
            << tables[i].name;
    }
    EXPECT_EQ(QueryRows(database, "select name from lxrepo_tables order by name"), names);
    EXPECT_EQ(QueryRows(database, "select name from sqlite_master where type = 'table' and "
                                  "name <> 'lxrepo_tables' order by name"),
              names);
}

} // namespace
