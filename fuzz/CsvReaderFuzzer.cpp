// lxrepo's CSV reader on arbitrary bytes. Besides not crashing it must (1) give the same records,
// or fail on the same line, however the bytes are split between Feed calls, since the file is
// read in blocks; and (2) read back what it read, written out again with every field quoted.
#include "CsvReader.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

struct Outcome {
    std::vector<std::vector<std::string>> records;
    long malformedLine = 0; // 0: the input was read to its end
};

template <class Feed> Outcome Read(char delimiter, Feed feed) {
    Outcome outcome;
    try {
        lxrepo::CsvReader reader(delimiter, [&](const lxrepo::CsvRecord& record) {
            outcome.records.push_back(record.fields);
        });
        feed(reader);
        reader.Finish();
    } catch (const lxrepo::MalformedCsv& e) {
        outcome.malformedLine = e.Line() > 0 ? e.Line() : -1;
    }
    return outcome;
}

std::string Quoted(const std::vector<std::vector<std::string>>& records, char delimiter) {
    std::string text;
    for (const auto& record : records) {
        for (std::size_t i = 0; i < record.size(); ++i) {
            text += i == 0 ? "\"" : std::string(1, delimiter) + '"';
            for (const char c : record[i]) {
                text += c == '"' ? std::string("\"\"") : std::string(1, c);
            }
            text += '"';
        }
        text += "\r\n";
    }
    return text;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) {
        return 0;
    }
    static const char kDelimiters[] = {',', ';', '\t', '|'};
    const char delimiter = kDelimiters[data[0] % 4];
    const std::size_t step = 1 + data[1] % 7;
    const char* text = reinterpret_cast<const char*>(data + 2);
    const std::size_t length = size - 2;

    const Outcome whole = Read(delimiter, [&](lxrepo::CsvReader& r) { r.Feed(text, length); });
    const Outcome pieces = Read(delimiter, [&](lxrepo::CsvReader& r) {
        for (std::size_t at = 0; at < length; at += step) {
            r.Feed(text + at, std::min(step, length - at));
        }
    });
    if (whole.records != pieces.records || whole.malformedLine != pieces.malformedLine) {
        std::abort();
    }
    if (whole.malformedLine == 0) {
        const std::string again = Quoted(whole.records, delimiter);
        const Outcome reread =
            Read(delimiter, [&](lxrepo::CsvReader& r) { r.Feed(again.data(), again.size()); });
        if (reread.malformedLine != 0 || reread.records != whole.records) {
            std::abort();
        }
    }
    return 0;
}
