// A host's table and its whole import through the library's public operations, in the host's
// order: registration, connection test, table, definitions, distinct values and value ids in
// chunks, End.
#pragma once

#include "ServerFixture.h"
#include "TableRepositoryImport.h"
#include "support/HostRecords.h"

#include <memory>
#include <string>
#include <vector>

namespace e2e {

struct Table {
    std::string name;
    std::string tableClass;
    std::string description;
    int rows = 0;
    std::vector<testsupport::Column> columns;
};

// About 250 rows of text (non-ASCII, commas, quotes, empty), integers, decimals and dates as
// text, with missing values in every column; its rows rotated by `rotation` times seven.
Table GenerateTable(const std::string& name = "Ums\xC3\xA4tze Q1 2024", int rotation = 0);

// What the data table must hold, row by row, in column order; NULL for a missing value.
std::vector<servertest::Row> ExpectedRows(const Table& table);

// Where a host connects and what its connection test must answer there.
struct Endpoint {
    CAuthenticationProxyConfiguration proxy;
    std::string serviceUrl;
    int connectionStatus = Connected;
    std::string refusedClass; // a class IsAuthorized must refuse, "" for none
};

enum class Until { End, EndWithOneAttributeShort, BeforeEnd };

struct Imported {
    std::string failure; // "" when every call answered as it should, else the first that did not
    std::string id;
    TestConnectionResult connection;
    std::unique_ptr<CTableRepositoryImport> client; // registered still
};

Imported ImportThroughLibrary(const Endpoint& endpoint, const Table& table,
                              Until until = Until::End);

CString Wide(const std::string& utf8);
std::string Utf8(const CString& text);

} // namespace e2e
