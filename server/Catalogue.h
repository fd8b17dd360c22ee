// The SQLite file: imported tables as real SQL tables, and the catalogue table lxrepo_tables
// that keeps, per table, what the import said about it (class, description, attribute
// definitions as JSON, who imported it). Only committed imports ever reach the file.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

struct sqlite3;

namespace lxrepo {

// One column of a table to commit: its distinct values and, per row, an index into them
// (-1 for a missing value). Pointers into the import that owns the data.
struct CommitColumn {
    const std::string* name;
    const std::vector<std::string>* distinctValues;
    const std::vector<std::int32_t>* valueIds;
};

struct CommitTable {
    std::string name;
    std::string id;
    std::string tableClass;
    std::string description;
    std::int64_t recordCount = 0;
    bool overwrite = false;
    std::string attributesJson;
    std::string importedBy;
    std::string client;
    std::vector<CommitColumn> columns;
};

class Catalogue {
public:
    static constexpr const char* tableName = "lxrepo_tables";

    // Opens (creating if needed) the file in WAL mode. Throws std::runtime_error.
    explicit Catalogue(const std::string& path);
    ~Catalogue();
    Catalogue(const Catalogue&) = delete;
    Catalogue& operator=(const Catalogue&) = delete;

    // The spelling of the schema object (table, view, index) that already has this name, if
    // any; SQLite compares names case-insensitively, so this does too.
    std::optional<std::string> ExistingName(const std::string& name);

    // The whole table in one transaction. Throws HttpError 409 when the name is taken and the
    // import does not overwrite (or what holds the name is not a table).
    void Commit(const CommitTable& table);

private:
    void Execute(const char* sql);

    std::mutex mutex_; // one writer: SQLite would serialise writers anyway
    sqlite3* db_ = nullptr;
};

// "name" with inner quotes doubled: any text is a valid SQLite identifier this way.
std::string QuoteIdentifier(const std::string& name);

} // namespace lxrepo
