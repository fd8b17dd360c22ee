#include "CsvReader.h"

#include <csv.h>

#include <cstring>
#include <new>
#include <utility>

namespace lxrepo {

namespace {

constexpr char kByteOrderMark[] = "\xEF\xBB\xBF";

// libcsv trims blanks around unquoted fields unless told that nothing is a blank; the values
// must arrive exactly as they stand in the file.
int NothingIsBlank(unsigned char) { return 0; }

} // namespace

MalformedCsv::MalformedCsv(long line, const std::string& what)
    : std::runtime_error(what), line_(line) {}

CsvReader::CsvReader(char delimiter, CsvRecordHandler handler)
    : parser_(new csv_parser), handler_(std::move(handler)) {
    if (csv_init(parser_, CSV_STRICT | CSV_STRICT_FINI) != 0) {
        delete parser_;
        throw std::bad_alloc();
    }
    csv_set_delim(parser_, static_cast<unsigned char>(delimiter));
    csv_set_space_func(parser_, NothingIsBlank);
}

CsvReader::~CsvReader() {
    csv_free(parser_);
    delete parser_;
}

void CsvReader::OnField(void* data, std::size_t size, void* self) {
    auto* reader = static_cast<CsvReader*>(self);
    reader->current_.fields.emplace_back(static_cast<const char*>(data), data ? size : 0);
}

// libcsv reports the end of a record at its first line-end character and skips the rest of a
// CRLF pair and blank lines, so the next record starts on a later line.
void CsvReader::OnRecordEnd(int terminator, void* self) {
    auto* reader = static_cast<CsvReader*>(self);
    reader->current_.line = reader->currentStart_;
    reader->completed_.push_back(std::move(reader->current_));
    reader->current_ = CsvRecord{};
    // Rows mostly have the header's width: one allocation per record instead of one per doubling.
    reader->current_.fields.reserve(reader->completed_.back().fields.size());
    reader->currentStart_ = terminator == -1 ? reader->line_ : reader->line_ + 1;
}

// Fed one physical line at a time so that the line count is known whenever libcsv calls back
// or stops.
void CsvReader::ParseLine(const char* data, std::size_t size) {
    const std::size_t parsed = csv_parse(parser_, data, size, OnField, OnRecordEnd, this);
    if (parsed != size) {
        // Records that ended before the fault (at a bare CR, say) are passed on first, as they
        // would have been had the bytes come in smaller blocks.
        Deliver();
        const int error = csv_error(parser_);
        throw MalformedCsv(line_, error == CSV_EPARSE
                                      ? "a quote inside an unquoted field, or text after a "
                                        "closing quote"
                                      : csv_strerror(error));
    }
}

void CsvReader::Deliver() {
    std::vector<CsvRecord> records = std::move(completed_);
    completed_.clear();
    for (const CsvRecord& record : records) {
        handler_(record);
    }
}

// The byte-order mark may arrive split over several Feed calls: bytes that could still be the
// start of one are held back until it is clear whether they are.
void CsvReader::Feed(const char* data, std::size_t size) {
    while (!started_ && size > 0) {
        heldBack_ += *data++;
        --size;
        const bool couldBeMark =
            std::memcmp(heldBack_.data(), kByteOrderMark, heldBack_.size()) == 0;
        if (!couldBeMark || heldBack_.size() == 3) {
            ReleaseHeldBack(couldBeMark);
        }
    }
    ParseBytes(data, size);
}

void CsvReader::ReleaseHeldBack(bool isMark) {
    started_ = true;
    const std::string bytes = isMark ? std::string() : std::move(heldBack_);
    heldBack_.clear();
    ParseBytes(bytes.data(), bytes.size());
}

void CsvReader::ParseBytes(const char* data, std::size_t size) {
    const char* end = data + size;
    while (data < end) {
        const void* lineEnd = std::memchr(data, '\n', static_cast<std::size_t>(end - data));
        const char* next = lineEnd ? static_cast<const char*>(lineEnd) + 1 : end;
        // The record that ends at this LF is complete before the line count moves on.
        ParseLine(data, static_cast<std::size_t>(next - data));
        Deliver();
        if (lineEnd) {
            ++line_;
        }
        data = next;
    }
}

void CsvReader::Finish() {
    if (!started_) {
        ReleaseHeldBack(false); // shorter than a mark: ordinary bytes
    }
    if (csv_fini(parser_, OnField, OnRecordEnd, this) != 0) {
        throw MalformedCsv(currentStart_, "a quoted field is not closed");
    }
    Deliver();
}

void ParseCsvBuffer(const char* data, std::size_t size, char delimiter,
                    const CsvRecordHandler& handler) {
    CsvReader reader(delimiter, handler);
    reader.Feed(data, size);
    reader.Finish();
}

void ParseCsvStream(std::istream& in, char delimiter, const CsvRecordHandler& handler) {
    CsvReader reader(delimiter, handler);
    std::vector<char> block(1 << 16);
    while (in) {
        in.read(block.data(), static_cast<std::streamsize>(block.size()));
        reader.Feed(block.data(), static_cast<std::size_t>(in.gcount()));
    }
    if (in.bad()) {
        throw std::runtime_error("the file could not be read to the end");
    }
    reader.Finish();
}

} // namespace lxrepo
