#include "Catalogue.h"

#include "Http.h"

#include <sqlite3.h>

#include <chrono>
#include <ctime>
#include <stdexcept>

namespace lxrepo {

namespace {

class Statement {
public:
    Statement(sqlite3* db, const std::string& sql) : db_(db) {
        if (sqlite3_prepare_v2(db, sql.c_str(), static_cast<int>(sql.size()), &statement_,
                               nullptr) != SQLITE_OK) {
            throw std::runtime_error(std::string("SQLite: ") + sqlite3_errmsg(db));
        }
    }
    ~Statement() { sqlite3_finalize(statement_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    void BindText(int index, const std::string& text) {
        sqlite3_bind_text(statement_, index, text.data(), static_cast<int>(text.size()),
                          SQLITE_STATIC);
    }
    void BindInt(int index, std::int64_t value) { sqlite3_bind_int64(statement_, index, value); }
    void BindNull(int index) { sqlite3_bind_null(statement_, index); }

    // true while a row is available
    bool Step() {
        const int result = sqlite3_step(statement_);
        if (result == SQLITE_ROW) {
            return true;
        }
        if (result != SQLITE_DONE) {
            throw std::runtime_error(std::string("SQLite: ") + sqlite3_errmsg(db_));
        }
        return false;
    }
    void Reset() { sqlite3_reset(statement_); }
    std::string Text(int column) {
        const auto* text = sqlite3_column_text(statement_, column);
        return text == nullptr ? std::string()
                               : std::string(reinterpret_cast<const char*>(text),
                                             sqlite3_column_bytes(statement_, column));
    }

private:
    sqlite3* db_;
    sqlite3_stmt* statement_ = nullptr;
};

// Rolls back unless Commit() was reached, so every failure path leaves the file as it was.
class Transaction {
public:
    explicit Transaction(sqlite3* db) : db_(db) { Run("BEGIN IMMEDIATE"); }
    ~Transaction() {
        if (open_) {
            sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
        }
    }
    void Commit() {
        Run("COMMIT");
        open_ = false;
    }

private:
    void Run(const char* sql) {
        char* message = nullptr;
        if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) != SQLITE_OK) {
            std::string text = message != nullptr ? message : "unknown error";
            sqlite3_free(message);
            throw std::runtime_error("SQLite: " + text);
        }
    }
    sqlite3* db_;
    bool open_ = true;
};

std::string UtcNow() {
    const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    std::tm parts{};
    gmtime_r(&now, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

void CreateDataTable(sqlite3* db, const CommitTable& table) {
    std::string create = "CREATE TABLE " + QuoteIdentifier(table.name) + " (";
    std::string insert = "INSERT INTO " + QuoteIdentifier(table.name) + " VALUES (";
    for (std::size_t i = 0; i < table.columns.size(); ++i) {
        // Values arrive as text whatever the host's type was, so they are kept as text.
        create += (i ? ", " : "") + QuoteIdentifier(*table.columns[i].name) + " TEXT";
        insert += i ? ", ?" : "?";
    }
    Statement(db, create + ")").Step();

    Statement row(db, insert + ")");
    for (std::int64_t r = 0; r < table.recordCount; ++r) {
        for (std::size_t c = 0; c < table.columns.size(); ++c) {
            const std::int32_t id = (*table.columns[c].valueIds)[static_cast<std::size_t>(r)];
            const int parameter = static_cast<int>(c + 1);
            if (id < 0) {
                row.BindNull(parameter);
            } else {
                row.BindText(parameter,
                             (*table.columns[c].distinctValues)[static_cast<std::size_t>(id)]);
            }
        }
        row.Step();
        row.Reset();
    }
}

void RecordInCatalogue(sqlite3* db, const CommitTable& table) {
    Statement entry(db, std::string("INSERT INTO ") + Catalogue::tableName +
                            " (name, table_id, table_class, description, record_count,"
                            " attributes, imported_by, client, imported_at)"
                            " VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)");
    entry.BindText(1, table.name);
    entry.BindText(2, table.id);
    entry.BindText(3, table.tableClass);
    entry.BindText(4, table.description);
    entry.BindInt(5, table.recordCount);
    entry.BindText(6, table.attributesJson);
    entry.BindText(7, table.importedBy);
    entry.BindText(8, table.client);
    const std::string now = UtcNow();
    entry.BindText(9, now);
    entry.Step();
}

} // namespace

std::string QuoteIdentifier(const std::string& name) {
    std::string quoted = "\"";
    for (const char c : name) {
        quoted += c;
        if (c == '"') {
            quoted += '"';
        }
    }
    return quoted + "\"";
}

Catalogue::Catalogue(const std::string& path) {
    if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
        SQLITE_OK) {
        const std::string message = db_ != nullptr ? sqlite3_errmsg(db_) : "out of memory";
        sqlite3_close(db_);
        throw std::runtime_error("cannot open the database " + path + ": " + message);
    }
    sqlite3_busy_timeout(db_, 10000);
    Execute("PRAGMA journal_mode=WAL");
    // FULL: a commit the client saw answered survives even a power cut, not just a crash.
    Execute("PRAGMA synchronous=FULL");
    Execute((std::string("CREATE TABLE IF NOT EXISTS ") + tableName +
             " (name TEXT PRIMARY KEY COLLATE NOCASE, table_id TEXT NOT NULL,"
             " table_class TEXT NOT NULL, description TEXT NOT NULL,"
             " record_count INTEGER NOT NULL, attributes TEXT NOT NULL,"
             " imported_by TEXT NOT NULL, client TEXT NOT NULL, imported_at TEXT NOT NULL)")
                .c_str());
}

Catalogue::~Catalogue() { sqlite3_close(db_); }

void Catalogue::Execute(const char* sql) {
    char* message = nullptr;
    if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) != SQLITE_OK) {
        std::string text = message != nullptr ? message : "unknown error";
        sqlite3_free(message);
        throw std::runtime_error(std::string("SQLite: ") + text + " in " + sql);
    }
}

std::optional<std::string> Catalogue::ExistingName(const std::string& name) {
    std::lock_guard<std::mutex> lock(mutex_);
    Statement query(db_, "SELECT name FROM sqlite_master WHERE name = ? COLLATE NOCASE");
    query.BindText(1, name);
    if (!query.Step()) {
        return std::nullopt;
    }
    return query.Text(0);
}

void Catalogue::Commit(const CommitTable& table) {
    std::lock_guard<std::mutex> lock(mutex_);
    Transaction transaction(db_);
    Statement existing(db_, "SELECT type, name FROM sqlite_master WHERE name = ? COLLATE NOCASE");
    existing.BindText(1, table.name);
    if (existing.Step()) {
        const std::string type = existing.Text(0);
        const std::string name = existing.Text(1);
        // A statement still reading sqlite_master would keep DROP TABLE from running.
        existing.Reset();
        if (!table.overwrite || type != "table") {
            throw HttpError(http::status::conflict,
                            "a " + type + " named \"" + name +
                                "\" already exists and the import does not overwrite it");
        }
        Statement(db_, "DROP TABLE " + QuoteIdentifier(name)).Step();
        Statement forget(db_, std::string("DELETE FROM ") + tableName + " WHERE name = ?");
        forget.BindText(1, table.name);
        forget.Step();
    }
    CreateDataTable(db_, table);
    RecordInCatalogue(db_, table);
    transaction.Commit();
}

} // namespace lxrepo
