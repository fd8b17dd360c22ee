// The two passes over a CSV file: the first learns the columns, their types, their distinct
// values and the row count; the second streams the value ids chunk by chunk. Neither keeps rows.
#pragma once

#include "ColumnTypes.h"

#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace lxrepo {

// A column's distinct values in order of first appearance, each with its 0-based id.
class DistinctValues {
public:
    // The value's id, adding it when new. Empty text is the missing value, id -1.
    int Add(std::string_view value);
    // The id of a known value, -1 for the empty text; -2 for a value never added.
    int IdOf(std::string_view value) const;
    long Count() const { return static_cast<long>(values_.size()); }
    const std::string& At(long index) const { return values_.at(static_cast<std::size_t>(index)); }

private:
    // A deque never moves its elements, so the map's keys can view them.
    std::deque<std::string> values_;
    std::unordered_map<std::string_view, int> ids_;
};

struct ColumnScan {
    std::string name;
    ColumnTypeTracker type;
    DistinctValues values;
};

struct TableScan {
    std::vector<ColumnScan> columns;
    long rows = 0;
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

// Reads the file again and hands on the value ids of chunkRows rows at a time (the last chunk
// may be shorter). Throws std::runtime_error when the file no longer matches the scan.
void StreamValueIds(const std::string& path, char delimiter, const TableScan& scan, long chunkRows,
                    const ValueIdChunkHandler& handler, const PassProgress& progress);

} // namespace lxrepo
