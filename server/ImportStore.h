// Imports in progress, held in memory until their End commits them to the Catalogue in one
// transaction; a crash or an abandoned import therefore leaves nothing in the file. Enforces the
// order of an import:
//
//   create -> Attributes -> per attribute: DistinctValues Begin, chunks, End
//          -> per attribute: ValueIds Begin, chunks, End -> End (commit)
//
// Different tables are imported concurrently; calls for one table are serialised.
#pragma once

#include "Catalogue.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace lxrepo {

struct NewTable {
    std::string name;
    std::string tableClass;
    std::string description;
    std::int64_t recordCount = 0;
    bool overwrite = false;
};

// Who imports: the authenticated user, and the client the proxy named (or the user again).
struct Caller {
    std::string user;
    std::string client;
};

class ImportStore {
public:
    // abandonAfter: an import untouched this long is forgotten when the next table is created.
    ImportStore(Catalogue& catalogue, std::chrono::seconds abandonAfter);
    ~ImportStore();

    // Returns the new table's id. Throws HttpError 400 (reserved or empty name, negative
    // count) or 409 (name taken and no overwrite).
    std::string CreateTable(const NewTable& table, const Caller& caller);

    // names: the attributes' names in document order; document: the JSON text as received.
    void DefineAttributes(const std::string& id, const std::vector<std::string>& names,
                          std::string document);
    bool HasAttribute(const std::string& id, const std::string& attribute);

    void BeginDistinctValues(const std::string& id, const std::string& attribute);
    void AddDistinctValues(const std::string& id, const std::string& attribute,
                           std::vector<std::string> values);
    void EndDistinctValues(const std::string& id, const std::string& attribute);

    void BeginValueIds(const std::string& id, const std::string& attribute);
    void AddValueIds(const std::string& id, const std::string& attribute,
                     const std::vector<std::int64_t>& ids);
    void EndValueIds(const std::string& id, const std::string& attribute);

    // Commits the table; afterwards the id only answers 409.
    void EndImport(const std::string& id);

private:
    struct Import;
    std::shared_ptr<Import> Find(const std::string& id);
    void ForgetAbandoned();

    Catalogue& catalogue_;
    std::chrono::seconds abandonAfter_;
    std::mutex mutex_;
    std::unordered_map<std::string, std::shared_ptr<Import>> imports_;
};

} // namespace lxrepo
