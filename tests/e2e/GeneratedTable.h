// A small table as a host holds it: columns of distinct values and per-row value ids, the
// records through which the library reads them, and what the repository must hold afterwards.
#pragma once

#include "TableRepositoryImport.h"

#include <nlohmann/json.hpp>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace e2e {

// One column: its definition for the attribute document, its distinct values (UTF-8) and the
// value id of every row (-1 for a missing value).
struct Column {
    std::string name;
    int type = 0;
    std::string format;
    int lcid = 0;
    int level = 0;
    bool isGroup = false;
    std::string parent;
    std::vector<std::string> classes; // one value range per class, its value set the class name
    std::vector<std::pair<std::string, std::string>> cases; // condition, case name
    std::vector<std::string> distinctValues;
    std::vector<int> valueIds;
    int copyMode = 0; // how the library is told to read the distinct values
};

struct Table {
    std::string name;
    std::string tableClass;
    std::string description;
    int rows = 0;
    std::vector<Column> columns;
};

// About 250 rows of text (non-ASCII, commas, quotes, empty), integers, decimals and dates as
// text, with missing values in every column.
Table GenerateTable();

// What the data table must hold, row by row, in column order; NULL as nullopt.
std::vector<std::vector<std::optional<std::string>>> ExpectedRows(const Table& table);

// The attribute document the catalogue must hold for the table's columns.
nlohmann::json ExpectedAttributeDocument(const Table& table);

// The host's side of one table: the definition records and the readers of its data, alive as
// long as this object.
class HostTable {
public:
    explicit HostTable(const Table& table);
    ~HostTable();
    HostTable(const HostTable&) = delete;
    HostTable& operator=(const HostTable&) = delete;

    CList<DesktopAttributeDTO*>* Definitions() { return &definitions_; }
    CList<CRepoAttribute*>* Attributes() { return &attributes_; }
    CRepoAttribute* Attribute(std::size_t column);
    CDistinctValues* DistinctValues(std::size_t column);

private:
    class Record;
    std::vector<std::unique_ptr<Record>> records_;
    std::vector<std::unique_ptr<DesktopAttributeDTO>> dtos_;
    std::vector<std::unique_ptr<DesktopValueRangeDTO>> ranges_;
    std::vector<std::unique_ptr<DesktopCaseDTO>> cases_;
    CList<DesktopAttributeDTO*> definitions_;
    CList<CRepoAttribute*> attributes_;
};

inline CString Wide(const std::string& utf8) { return CString(utf8.c_str()); }
std::string Utf8(const CString& text);

} // namespace e2e
