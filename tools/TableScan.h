// The two passes over a CSV file: the first learns the columns, their types, their distinct
// values and the row count; the second streams the value ids chunk by chunk. Neither keeps rows.
#pragma once

#include "ColumnTypes.h"

#include <absl/container/flat_hash_map.h>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace lxrepo {

// A column's distinct values in order of first appearance, each with its 0-based id.
class DistinctValues {
public:
    // The value's id, adding it when new. Empty text is the missing value, id -1.
    int Add(std::string_view value);
    long Count() const { return static_cast<long>(values_.size()); }
    std::string_view At(long index) const {
        return values_.at(static_cast<std::size_t>(index)).Text();
    }

private:
    // A value with its hash, computed once per cell: growing the map then never reads the
    // values again, and a lookup compares text only when the whole hash matches.
    // Sixteen bytes, so a slot of the map is no larger than one holding a string_view: a
    // table's distinct values may be millions. A value too long for 32 bits is refused on reading.
    struct Key {
        const char* data;
        std::uint32_t size;
        std::uint32_t hash;
        std::string_view Text() const { return {data, size}; }
    };
    struct KeyHash {
        std::size_t operator()(const Key& key) const { return key.hash; }
    };
    struct KeyEqual {
        bool operator()(const Key& a, const Key& b) const {
            return a.hash == b.hash && a.Text() == b.Text();
        }
    };
    // Copies a new value into the arena, which never moves what it holds.
    const char* Keep(std::string_view value);

    // The values' bytes, packed into large blocks instead of one allocation each.
    std::vector<std::unique_ptr<char[]>> blocks_;
    std::size_t blockLeft_ = 0;
    char* blockEnd_ = nullptr;
    std::vector<Key> values_; // by id
    absl::flat_hash_map<Key, int, KeyHash, KeyEqual> ids_;
};

struct ColumnScan {
    std::string name;
    ColumnTypeTracker type;
    DistinctValues values;
};

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

struct TableScan {
    std::vector<ColumnScan> columns;
    long rows = 0;
    // Every row's ids as the first pass found them, row after row, so the second pass reads them
    // back instead of parsing and looking everything up again. Deleted when closed.
    std::unique_ptr<std::FILE, CloseFile> ids;
    // The file's size when it was read, to notice a file changed between the passes.
    long long fileSize = 0;
};

// Where a pass stands, for the progress display: rows so far and the bytes read of the file.
using PassProgress = std::function<void(long rows, double fractionRead)>;

// Reads the header (the column names) and every row. Throws MalformedCsv for input that is not
// CSV or a row whose field count differs from the header's, std::runtime_error for an
// unreadable file.
TableScan ScanTable(const std::string& path, char delimiter, const PassProgress& progress);

// ids[c][r] is the id of column c in the chunk's r-th row; first is the table row of r = 0.
using ValueIdChunkHandler =
    std::function<void(long first, const std::vector<std::vector<int>>& ids)>;

// Hands on the value ids the scan kept, chunkRows rows at a time (the last chunk may be
// shorter). Throws std::runtime_error when the file no longer matches the scan.
void StreamValueIds(const std::string& path, const TableScan& scan, long chunkRows,
                    const ValueIdChunkHandler& handler, const PassProgress& progress);

} // namespace lxrepo
