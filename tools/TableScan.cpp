#include "TableScan.h"

#include "CsvReader.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <stdexcept>

namespace lxrepo {

namespace {

constexpr int kMissingValue = -1;

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
    long long Size() const { return static_cast<long long>(size_); }
    double operator()() {
        const auto at = in_.tellg();
        return at < 0 || size_ <= 0 ? 1.0 : static_cast<double>(at) / size_;
    }

private:
    std::ifstream& in_;
    double size_ = 0;
};

void WriteIds(std::FILE* file, const std::vector<std::int32_t>& ids) {
    if (std::fwrite(ids.data(), sizeof(std::int32_t), ids.size(), file) != ids.size()) {
        throw std::runtime_error(std::string("cannot write a temporary file: ") +
                                 std::strerror(errno));
    }
}

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
    if (value.size() > UINT32_MAX) {
        throw std::runtime_error("a value longer than 4 GB");
    }
    const auto size = static_cast<std::uint32_t>(value.size());
    const auto hash = static_cast<std::uint32_t>(absl::Hash<std::string_view>{}(value));
    const auto found = ids_.find(Key{value.data(), size, hash});
    if (found != ids_.end()) {
        return found->second;
    }
    const int id = static_cast<int>(values_.size());
    values_.push_back(Key{Keep(value), size, hash});
    ids_.emplace(values_.back(), id);
    return id;
}

const char* DistinctValues::Keep(std::string_view value) {
    constexpr std::size_t kBlockBytes = 1 << 20;
    if (value.size() > blockLeft_) {
        const std::size_t size = std::max(kBlockBytes, value.size());
        blocks_.push_back(std::make_unique<char[]>(size));
        blockEnd_ = blocks_.back().get();
        blockLeft_ = size;
    }
    char* kept = blockEnd_;
    std::memcpy(kept, value.data(), value.size());
    blockEnd_ += value.size();
    blockLeft_ -= value.size();
    return kept;
}

TableScan ScanTable(const std::string& path, char delimiter, const PassProgress& progress) {
    std::ifstream in = OpenFile(path);
    FileFraction fraction(in);
    TableScan scan;
    scan.fileSize = fraction.Size();
    scan.ids.reset(std::tmpfile());
    if (!scan.ids) {
        throw std::runtime_error(std::string("cannot make a temporary file: ") +
                                 std::strerror(errno));
    }
    std::vector<std::int32_t> rowIds;
    bool header = true;
    ParseCsvStream(in, delimiter, [&](const CsvRecord& record) {
        if (header) {
            scan.columns = ColumnsOfHeader(record);
            rowIds.resize(scan.columns.size());
            header = false;
            return;
        }
        CheckFieldCount(record, scan.columns.size());
        if (scan.rows == INT_MAX) {
            throw MalformedCsv(record.line, "more rows than a table can hold");
        }
        for (std::size_t c = 0; c < scan.columns.size(); ++c) {
            scan.columns[c].type.See(record.fields[c]);
            rowIds[c] = scan.columns[c].values.Add(record.fields[c]);
        }
        WriteIds(scan.ids.get(), rowIds);
        if (++scan.rows % kProgressEveryRows == 0) {
            progress(scan.rows, fraction());
        }
    });
    if (header) {
        throw MalformedCsv(1, "the file has no header line");
    }
    if (std::fflush(scan.ids.get()) != 0) {
        throw std::runtime_error(std::string("cannot write a temporary file: ") +
                                 std::strerror(errno));
    }
    progress(scan.rows, 1.0);
    return scan;
}

void StreamValueIds(const std::string& path, const TableScan& scan, long chunkRows,
                    const ValueIdChunkHandler& handler, const PassProgress& progress) {
    std::error_code error;
    const auto size = std::filesystem::file_size(path, error);
    if (error || static_cast<long long>(size) != scan.fileSize) {
        throw std::runtime_error("the file changed while it was imported");
    }
    std::FILE* file = scan.ids.get();
    std::rewind(file);
    const std::size_t width = scan.columns.size();
    std::vector<std::int32_t> block;
    std::vector<std::vector<int>> ids(width);
    for (long first = 0; first < scan.rows; first += chunkRows) {
        const long count = std::min(chunkRows, scan.rows - first);
        const std::size_t cells = static_cast<std::size_t>(count) * width;
        block.resize(cells);
        if (std::fread(block.data(), sizeof(std::int32_t), cells, file) != cells) {
            throw std::runtime_error("the temporary file of value ids could not be read back");
        }
        for (std::size_t c = 0; c < width; ++c) {
            ids[c].resize(static_cast<std::size_t>(count));
            for (std::size_t r = 0; r < static_cast<std::size_t>(count); ++r) {
                ids[c][r] = block[r * width + c];
            }
        }
        handler(first, ids);
        progress(first + count,
                 static_cast<double>(first + count) / static_cast<double>(scan.rows));
    }
}

} // namespace lxrepo
