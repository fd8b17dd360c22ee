#include "ImportStore.h"

#include "Http.h"

#include <algorithm>
#include <cctype>
#include <random>
#include <unordered_set>

namespace lxrepo {

namespace {

using Clock = std::chrono::steady_clock;

enum class Phase { Defined, DistinctOpen, DistinctDone, IdsOpen, IdsDone };

const char* Describe(Phase phase) {
    switch (phase) {
    case Phase::Defined:
        return "waits for its distinct values";
    case Phase::DistinctOpen:
        return "is receiving distinct values";
    case Phase::DistinctDone:
        return "has its distinct values and waits for its value ids";
    case Phase::IdsOpen:
        return "is receiving value ids";
    case Phase::IdsDone:
        return "has all its value ids";
    }
    return "";
}

[[noreturn]] void Conflict(const std::string& message) {
    throw HttpError(http::status::conflict, message);
}

[[noreturn]] void BadRequest(const std::string& message) {
    throw HttpError(http::status::bad_request, message);
}

std::string LowerAscii(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// The name, made safe for a path segment (the client leaves '/' unencoded), and a random
// suffix. Ids thus carry blanks and non-ASCII text whenever names do, and always a '#', so a
// client that forgets to encode them fails at once.
std::string NewTableId(const std::string& name) {
    static thread_local std::mt19937_64 random{std::random_device{}()};
    std::string id = name.substr(0, 64);
    std::replace(id.begin(), id.end(), '/', '_');
    char suffix[20];
    std::snprintf(suffix, sizeof suffix, "#%08llx",
                  static_cast<unsigned long long>(random() & 0xffffffffu));
    return id + suffix;
}

} // namespace

struct ImportStore::Import {
    struct Attribute {
        std::string name;
        Phase phase = Phase::Defined;
        std::vector<std::string> distinctValues;
        std::vector<std::int32_t> valueIds;
    };

    std::mutex mutex;
    std::string id;
    NewTable table;
    Caller caller;
    bool attributesDefined = false;
    bool ended = false;
    std::string document;
    std::vector<Attribute> attributes;
    Clock::time_point lastUsed = Clock::now();

    void CheckOpen() const {
        if (ended) {
            Conflict("the import of table \"" + table.name + "\" has already ended");
        }
    }

    Attribute& Find(const std::string& name) {
        CheckOpen();
        if (!attributesDefined) {
            Conflict("table \"" + table.name + "\" has no attribute definitions yet");
        }
        for (auto& attribute : attributes) {
            if (attribute.name == name) {
                return attribute;
            }
        }
        throw HttpError(http::status::not_found,
                        "table \"" + table.name + "\" has no attribute \"" + name + "\"");
    }

    // Moves one attribute from `from` to `to`, or says why the command is out of order.
    void Advance(Attribute& attribute, Phase from, Phase to, const char* command) {
        if (attribute.phase != from) {
            Conflict(std::string(command) + " is out of order: attribute \"" + attribute.name +
                     "\" " + Describe(attribute.phase));
        }
        attribute.phase = to;
    }

    void RequirePhase(const Attribute& attribute, Phase phase, const char* what) const {
        if (attribute.phase != phase) {
            Conflict(std::string(what) + " is out of order: attribute \"" + attribute.name + "\" " +
                     Describe(attribute.phase));
        }
    }
};

ImportStore::ImportStore(Catalogue& catalogue, std::chrono::seconds abandonAfter)
    : catalogue_(catalogue), abandonAfter_(abandonAfter) {}

ImportStore::~ImportStore() = default;

std::shared_ptr<ImportStore::Import> ImportStore::Find(const std::string& id) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = imports_.find(id);
    if (found == imports_.end()) {
        throw HttpError(http::status::not_found, "no import has the table id \"" + id + "\"");
    }
    return found->second;
}

void ImportStore::ForgetAbandoned() {
    const auto limit = Clock::now() - abandonAfter_;
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = imports_.begin(); it != imports_.end();) {
        std::unique_lock<std::mutex> busy(it->second->mutex, std::try_to_lock);
        const bool abandoned = busy.owns_lock() && it->second->lastUsed < limit;
        if (busy.owns_lock()) {
            busy.unlock();
        }
        it = abandoned ? imports_.erase(it) : std::next(it);
    }
}

std::string ImportStore::CreateTable(const NewTable& table, const Caller& caller) {
    if (table.name.empty()) {
        BadRequest("\"tableName\" must not be empty");
    }
    const std::string lower = LowerAscii(table.name);
    if (lower.rfind("sqlite_", 0) == 0 || lower == Catalogue::tableName) {
        BadRequest("the table name \"" + table.name + "\" is reserved");
    }
    if (table.recordCount < 0) {
        BadRequest("\"recordCount\" must not be negative");
    }
    if (!table.overwrite) {
        if (const auto existing = catalogue_.ExistingName(table.name)) {
            Conflict("a table named \"" + *existing + "\" already exists");
        }
    }
    ForgetAbandoned();
    auto import = std::make_shared<Import>();
    import->table = table;
    import->caller = caller;
    std::lock_guard<std::mutex> lock(mutex_);
    do {
        import->id = NewTableId(table.name);
    } while (imports_.count(import->id) != 0);
    imports_[import->id] = import;
    return import->id;
}

void ImportStore::DefineAttributes(const std::string& id, const std::vector<std::string>& names,
                                   std::string document) {
    auto import = Find(id);
    std::lock_guard<std::mutex> lock(import->mutex);
    import->lastUsed = Clock::now();
    import->CheckOpen();
    if (import->attributesDefined) {
        Conflict("table \"" + import->table.name + "\" already has its attribute definitions");
    }
    if (names.empty()) {
        BadRequest("a table needs at least one attribute");
    }
    // SQLite column names ignore ASCII case, so "Price" and "price" could not both be columns.
    std::unordered_set<std::string> seen;
    for (const auto& name : names) {
        if (name.empty()) {
            BadRequest("an attribute has an empty \"AttributeName\"");
        }
        if (!seen.insert(LowerAscii(name)).second) {
            BadRequest("the attribute name \"" + name + "\" occurs twice (names ignore case)");
        }
    }
    for (const auto& name : names) {
        import->attributes.push_back({name, Phase::Defined, {}, {}});
    }
    import->document = std::move(document);
    import->attributesDefined = true;
}

bool ImportStore::HasAttribute(const std::string& id, const std::string& attribute) {
    auto import = Find(id);
    std::lock_guard<std::mutex> lock(import->mutex);
    return std::any_of(import->attributes.begin(), import->attributes.end(),
                       [&](const auto& a) { return a.name == attribute; });
}

void ImportStore::BeginDistinctValues(const std::string& id, const std::string& attribute) {
    auto import = Find(id);
    std::lock_guard<std::mutex> lock(import->mutex);
    import->lastUsed = Clock::now();
    import->Advance(import->Find(attribute), Phase::Defined, Phase::DistinctOpen,
                    "DistinctValues/Begin");
}

void ImportStore::AddDistinctValues(const std::string& id, const std::string& attribute,
                                    std::vector<std::string> values) {
    auto import = Find(id);
    std::lock_guard<std::mutex> lock(import->mutex);
    import->lastUsed = Clock::now();
    auto& target = import->Find(attribute);
    import->RequirePhase(target, Phase::DistinctOpen, "a distinct-values chunk");
    if (target.distinctValues.size() + values.size() > 0x7fffffffu) {
        BadRequest("more distinct values than a 32-bit value id can address");
    }
    target.distinctValues.insert(target.distinctValues.end(),
                                 std::make_move_iterator(values.begin()),
                                 std::make_move_iterator(values.end()));
}

void ImportStore::EndDistinctValues(const std::string& id, const std::string& attribute) {
    auto import = Find(id);
    std::lock_guard<std::mutex> lock(import->mutex);
    import->lastUsed = Clock::now();
    import->Advance(import->Find(attribute), Phase::DistinctOpen, Phase::DistinctDone,
                    "DistinctValues/End");
}

void ImportStore::BeginValueIds(const std::string& id, const std::string& attribute) {
    auto import = Find(id);
    std::lock_guard<std::mutex> lock(import->mutex);
    import->lastUsed = Clock::now();
    auto& target = import->Find(attribute);
    // Ids index the distinct values, so every attribute's vocabulary must be complete first.
    for (const auto& other : import->attributes) {
        if (other.phase == Phase::Defined || other.phase == Phase::DistinctOpen) {
            Conflict("ValueIds/Begin is out of order: attribute \"" + other.name + "\" " +
                     Describe(other.phase));
        }
    }
    import->Advance(target, Phase::DistinctDone, Phase::IdsOpen, "ValueIds/Begin");
}

void ImportStore::AddValueIds(const std::string& id, const std::string& attribute,
                              const std::vector<std::int64_t>& ids) {
    auto import = Find(id);
    std::lock_guard<std::mutex> lock(import->mutex);
    import->lastUsed = Clock::now();
    auto& target = import->Find(attribute);
    import->RequirePhase(target, Phase::IdsOpen, "a value-ids chunk");
    const auto distinct = static_cast<std::int64_t>(target.distinctValues.size());
    for (std::size_t i = 0; i < ids.size(); ++i) {
        if (ids[i] < -1 || ids[i] >= distinct) {
            BadRequest("value id " + std::to_string(ids[i]) + " at position " + std::to_string(i) +
                       " of the chunk is outside [-1, " + std::to_string(distinct) +
                       ") for attribute \"" + attribute + "\"");
        }
    }
    const std::int64_t total = static_cast<std::int64_t>(target.valueIds.size() + ids.size());
    if (total > import->table.recordCount) {
        BadRequest("attribute \"" + attribute + "\" would get " + std::to_string(total) +
                   " value ids, but the table has " + std::to_string(import->table.recordCount) +
                   " records");
    }
    target.valueIds.insert(target.valueIds.end(), ids.begin(), ids.end());
}

void ImportStore::EndValueIds(const std::string& id, const std::string& attribute) {
    auto import = Find(id);
    std::lock_guard<std::mutex> lock(import->mutex);
    import->lastUsed = Clock::now();
    import->Advance(import->Find(attribute), Phase::IdsOpen, Phase::IdsDone, "ValueIds/End");
}

void ImportStore::EndImport(const std::string& id) {
    auto import = Find(id);
    std::lock_guard<std::mutex> lock(import->mutex);
    import->lastUsed = Clock::now();
    import->CheckOpen();
    if (!import->attributesDefined) {
        Conflict("End is out of order: table \"" + import->table.name +
                 "\" has no attribute definitions yet");
    }
    CommitTable commit;
    for (const auto& attribute : import->attributes) {
        if (attribute.phase != Phase::IdsDone) {
            Conflict("End is out of order: attribute \"" + attribute.name + "\" " +
                     Describe(attribute.phase));
        }
        if (static_cast<std::int64_t>(attribute.valueIds.size()) != import->table.recordCount) {
            Conflict("attribute \"" + attribute.name + "\" has " +
                     std::to_string(attribute.valueIds.size()) + " value ids, but the table has " +
                     std::to_string(import->table.recordCount) + " records");
        }
        commit.columns.push_back({&attribute.name, &attribute.distinctValues, &attribute.valueIds});
    }
    commit.name = import->table.name;
    commit.id = import->id;
    commit.tableClass = import->table.tableClass;
    commit.description = import->table.description;
    commit.recordCount = import->table.recordCount;
    commit.overwrite = import->table.overwrite;
    commit.attributesJson = import->document;
    commit.importedBy = import->caller.user;
    commit.client = import->caller.client;
    catalogue_.Commit(commit);

    import->ended = true;
    import->attributes.clear();
    import->attributes.shrink_to_fit();
    import->document.clear();
}

} // namespace lxrepo
