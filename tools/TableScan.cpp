#include "TableScan.h"

#include "CsvReader.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <set>
#include <stdexcept>

namespace lxrepo {

namespace {

constexpr int kMissingValue = -1;
constexpr int kUnknownValue = -2;

// Every few thousand rows is often enough for a display refreshed ten times a second.
constexpr long kProgressEveryRows = 4096;

std::ifstream OpenFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw std::runtime_error("cannot read " + path + ": " + std::strerror(errno));
    }
    return in;
}

class FileFraction {
public:
    FileFraction(std::ifstream& in) : in_(in) {
        in_.seekg(0, std::ios::end);
        size_ = static_cast<double>(in_.tellg());
        in_.seekg(0);
    }
    double operator()() {
        const auto at = in_.tellg();
        return at < 0 || size_ <= 0 ? 1.0 : static_cast<double>(at) / size_;
    }

private:
    std::ifstream& in_;
    double size_ = 0;
};

void CheckFieldCount(const CsvRecord& record, std::size_t expected) {
    if (record.fields.size() != expected) {
        throw MalformedCsv(record.line, std::to_string(record.fields.size()) +
                                            " fields where the header has " +
                                            std::to_string(expected));
    }
}

std::vector<ColumnScan> ColumnsOfHeader(const CsvRecord& header) {
    std::vector<ColumnScan> columns(header.fields.size());
    std::set<std::string> seen;
    for (std::size_t c = 0; c < columns.size(); ++c) {
        const std::string& name = header.fields[c];
        if (name.empty()) {
            throw MalformedCsv(header.line, "column " + std::to_string(c + 1) + " has no name");
        }
        if (!seen.insert(name).second) {
            throw MalformedCsv(header.line, "the column name \"" + name + "\" appears twice");
        }
        columns[c].name = name;
    }
    return columns;
}

} // namespace

int DistinctValues::Add(std::string_view value) {
    if (value.empty()) {
        return kMissingValue;
    }
    const auto found = ids_.find(value);
    if (found != ids_.end()) {
        return found->second;
    }
    const int id = static_cast<int>(values_.size());
    values_.emplace_back(value);
    ids_.emplace(values_.back(), id);
    return id;
}

int DistinctValues::IdOf(std::string_view value) const {
    if (value.empty()) {
        return kMissingValue;
    }
    const auto found = ids_.find(value);
    return found == ids_.end() ? kUnknownValue : found->second;
}

TableScan ScanTable(const std::string& path, char delimiter, const PassProgress& progress) {
    std::ifstream in = OpenFile(path);
    FileFraction fraction(in);
    TableScan scan;
    bool header = true;
    ParseCsvStream(in, delimiter, [&](const CsvRecord& record) {
        if (header) {
            scan.columns = ColumnsOfHeader(record);
            header = false;
            return;
        }
        CheckFieldCount(record, scan.columns.size());
        if (scan.rows == INT_MAX) {
            throw MalformedCsv(record.line, "more rows than a table can hold");
        }
        for (std::size_t c = 0; c < scan.columns.size(); ++c) {
            scan.columns[c].type.See(record.fields[c]);
            scan.columns[c].values.Add(record.fields[c]);
        }
        if (++scan.rows % kProgressEveryRows == 0) {
            progress(scan.rows, fraction());
        }
    });
    if (header) {
        throw MalformedCsv(1, "the file has no header line");
    }
    progress(scan.rows, 1.0);
    return scan;
}

void StreamValueIds(const std::string& path, char delimiter, const TableScan& scan, long chunkRows,
                    const ValueIdChunkHandler& handler, const PassProgress& progress) {
    std::ifstream in = OpenFile(path);
    FileFraction fraction(in);
    std::vector<std::vector<int>> ids(scan.columns.size());
    long first = 0;
    long row = 0;
    bool header = true;
    const auto handOn = [&] {
        handler(first, ids);
        first = row;
        for (auto& column : ids) {
            column.clear();
        }
        progress(row, fraction());
    };
    const auto changed = [] {
        return std::runtime_error("the file changed while it was imported");
    };
    ParseCsvStream(in, delimiter, [&](const CsvRecord& record) {
        if (header) {
            header = false;
            return;
        }
        if (record.fields.size() != scan.columns.size() || row >= scan.rows) {
            throw changed();
        }
        for (std::size_t c = 0; c < ids.size(); ++c) {
            const int id = scan.columns[c].values.IdOf(record.fields[c]);
            if (id == kUnknownValue) {
                throw changed();
            }
            ids[c].push_back(id);
        }
        if (++row - first == chunkRows) {
            handOn();
        }
    });
    if (row != scan.rows) {
        throw changed();
    }
    if (first < row) {
        handOn();
    }
}

} // namespace lxrepo
