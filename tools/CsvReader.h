// RFC 4180 records from bytes, on top of libcsv: quoted fields with separators, quotes and line
// breaks inside, CRLF or LF line ends, a UTF-8 byte-order mark at the start.
#pragma once

#include <cstddef>
#include <functional>
#include <istream>
#include <stdexcept>
#include <string>
#include <vector>

struct csv_parser;

namespace lxrepo {

struct CsvRecord {
    std::vector<std::string> fields;
    long line = 0; // the line the record starts on, 1-based
};

// Input that is not CSV; line is where the parser gave up.
class MalformedCsv : public std::runtime_error {
public:
    MalformedCsv(long line, const std::string& what);
    long Line() const { return line_; }

private:
    long line_;
};

using CsvRecordHandler = std::function<void(const CsvRecord&)>;

// A push parser: bytes go in by Feed in pieces of any size, each complete record comes out
// through the handler. Fields are passed on byte for byte: no blanks are trimmed and an empty
// field stays an empty string. Lines are counted at LF.
class CsvReader {
public:
    CsvReader(char delimiter, CsvRecordHandler handler);
    ~CsvReader();
    CsvReader(const CsvReader&) = delete;
    CsvReader& operator=(const CsvReader&) = delete;

    // Throws MalformedCsv; the handler's exceptions pass through.
    void Feed(const char* data, std::size_t size);
    // Ends the input: delivers a last record without a line end, or throws MalformedCsv for a
    // quoted field left open.
    void Finish();

private:
    static void OnField(void* data, std::size_t size, void* self);
    static void OnRecordEnd(int terminator, void* self);
    void ReleaseHeldBack(bool isMark);
    void ParseBytes(const char* data, std::size_t size);
    void ParseLine(const char* data, std::size_t size);
    void Deliver();

    csv_parser* parser_;
    CsvRecordHandler handler_;
    bool started_ = false;
    std::string heldBack_; // the first bytes, until they are known to be a byte-order mark or not
    long line_ = 1;
    CsvRecord current_;
    long currentStart_ = 1;
    // Records completed inside libcsv wait here, so no exception ever unwinds through C code.
    std::vector<CsvRecord> completed_;
};

// Every record of a whole buffer (one Feed and Finish).
void ParseCsvBuffer(const char* data, std::size_t size, char delimiter,
                    const CsvRecordHandler& handler);
// Every record of a stream, read in blocks.
void ParseCsvStream(std::istream& in, char delimiter, const CsvRecordHandler& handler);

} // namespace lxrepo
