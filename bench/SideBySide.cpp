// The library's value import next to what a user would write by hand, in one process and one
// run, on the same loopback sink:
//   library   ImportValueIdsChunk / ImportDistinctValuesChunk through the public API;
//   baseline  std::to_chars or a plain escaper into a string, libcurl on one kept-alive connection;
//   raw       the same request bytes, formatted beforehand, written to one socket.
// Prints times, MB/s, the ratios and the library's heap peak per chunk. See README.md.
#include "BaselineClient.h"
#include "BenchHost.h"
#include "DiscardingServer.h"
#include "HeapGauge.h"
#include "RawStream.h"

#include "TableRepositoryImport.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

struct Options {
    long rows = 1000000;
    int columns = 10;
    long rowChunk = 100000;
    long strings = 200000;
    long stringChunk = 20000;
    int repeat = 3;
    // Restricts the run to one client (library, baseline or raw), to profile it alone.
    std::string only;
};

Options Parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string name = argv[i];
        if (name == "--only") {
            options.only = argv[i + 1];
            continue;
        }
        const long value = std::strtol(argv[i + 1], nullptr, 10);
        if (name == "--rows") options.rows = value;
        else if (name == "--columns") options.columns = static_cast<int>(value);
        else if (name == "--row-chunk") options.rowChunk = value;
        else if (name == "--strings") options.strings = value;
        else if (name == "--string-chunk") options.stringChunk = value;
        else if (name == "--repeat") options.repeat = static_cast<int>(value);
        else throw std::invalid_argument("unknown option " + name);
    }
    return options;
}

// The host's data: integer columns and a vocabulary of wide strings, as a desktop table holds
// them. Ids spread over six digits, so a body averages about seven bytes per id.
struct HostTable {
    std::vector<std::vector<std::int32_t>> ids;
    std::vector<std::wstring> strings;
};

HostTable MakeHostTable(const Options& options) {
    HostTable table;
    std::uint32_t state = 12345;
    const auto next = [&state] { return state = state * 1664525u + 1013904223u; };
    table.ids.assign(static_cast<std::size_t>(options.columns),
                     std::vector<std::int32_t>(static_cast<std::size_t>(options.rows)));
    for (auto& column : table.ids) {
        for (std::int32_t& id : column) {
            id = static_cast<std::int32_t>((next() >> 8) % 1000000);
        }
    }
    static const wchar_t* const kWords[] = {L"Nord", L"Süd", L"Ost", L"West", L"Zentrale",
                                            L"Filiale", L"Lager", L"Café"};
    for (long i = 0; i < options.strings; ++i) {
        std::wstring text = kWords[next() % 8];
        text += L' ';
        text += std::to_wstring(i);
        table.strings.push_back(std::move(text));
    }
    return table;
}

class ColumnIds : public CValueIds {
public:
    explicit ColumnIds(const std::vector<std::int32_t>& ids) : m_ids(ids) {}
    int GetValueId(int row) override { return m_ids[static_cast<std::size_t>(row)]; }

private:
    const std::vector<std::int32_t>& m_ids;
};

using Column = BenchColumn<ColumnIds>;

class Vocabulary : public CDistinctValues {
public:
    explicit Vocabulary(const std::vector<std::wstring>& strings) : m_strings(strings) {}
    void Prepare() override {}
    const wchar_t* GetValue(int index) override {
        return m_strings[static_cast<std::size_t>(index)].c_str();
    }
    void CopyValue(int index, wchar_t* buffer) override {
        const std::wstring& text = m_strings[static_cast<std::size_t>(index)];
        std::wmemcpy(buffer, text.c_str(), text.size() + 1);
    }

private:
    const std::vector<std::wstring>& m_strings;
};

struct Measurement {
    bool ran = false;  // false for a client left out with --only
    double milliseconds = 0;
    std::uint64_t bodyBytes = 0;
    double heapPeakMiB = 0;  // library only: the largest rise of live heap within one chunk
    double chunkBodyMiB = 0; // library only: that chunk's serialised bodies
};

double Milliseconds(std::chrono::steady_clock::duration d) {
    return std::chrono::duration<double, std::milli>(d).count();
}

// Runs one whole pass and returns its figures; a refused chunk aborts the run.
template <class Pass>
Measurement Measure(const DiscardingServer& sink, bool wanted, Pass pass) {
    Measurement m;
    if (!wanted) {
        return m;
    }
    m.ran = true;
    const std::uint64_t before = sink.BodyBytes();
    const auto start = std::chrono::steady_clock::now();
    pass(m);
    m.milliseconds = Milliseconds(std::chrono::steady_clock::now() - start);
    m.bodyBytes = sink.BodyBytes() - before;
    return m;
}

Measurement Median(std::vector<Measurement> runs) {
    std::sort(runs.begin(), runs.end(), [](const Measurement& a, const Measurement& b) {
        return a.milliseconds < b.milliseconds;
    });
    Measurement median = runs[runs.size() / 2];
    for (const Measurement& run : runs) {
        median.heapPeakMiB = std::max(median.heapPeakMiB, run.heapPeakMiB);
    }
    return median;
}

void Require(bool accepted, const char* what) {
    if (!accepted) {
        throw std::runtime_error(std::string("the sink refused ") + what);
    }
}

// A chunk's peak is its rise above what was live when it began: the host's data and anything
// earlier chunks left are already in the base.
template <class Chunk> void WithHeapPeak(Measurement& m, std::uint64_t chunkBytes, Chunk chunk) {
    const std::int64_t base = heapgauge::LiveBytes();
    heapgauge::ResetPeak();
    chunk();
    const double peak = static_cast<double>(heapgauge::PeakBytes() - base) / (1 << 20);
    if (peak > m.heapPeakMiB) {
        m.heapPeakMiB = peak;
        m.chunkBodyMiB = static_cast<double>(chunkBytes) / (1 << 20);
    }
}

void PrintRow(const char* name, const Measurement& m, const Measurement& reference) {
    if (!m.ran) {
        return;
    }
    const double mb = static_cast<double>(m.bodyBytes) / 1e6;
    std::printf("  %-9s %9.1f ms %9.1f MB/s", name, m.milliseconds, mb / (m.milliseconds / 1000));
    if (reference.ran) {
        std::printf(" %8.2fx", m.milliseconds / reference.milliseconds);
    }
    if (m.heapPeakMiB > 0) {
        std::printf("   heap peak per chunk %.1f MiB = %.2f x its bodies (%.1f MiB)", m.heapPeakMiB,
                    m.heapPeakMiB / m.chunkBodyMiB, m.chunkBodyMiB);
    }
    std::printf("\n");
}

void Report(const char* title, const Measurement& library, const Measurement& baseline,
            const Measurement& raw) {
    const Measurement& any = library.ran ? library : baseline.ran ? baseline : raw;
    std::printf("%s (%.1f MB of bodies)\n", title, static_cast<double>(any.bodyBytes) / 1e6);
    std::printf("  %-9s %12s %14s %9s\n", "", "time", "throughput", "/baseline");
    PrintRow("library", library, baseline);
    PrintRow("baseline", baseline, baseline);
    PrintRow("raw", raw, baseline);
    if (library.ran && baseline.ran && raw.ran) {
        std::printf("  library/baseline %.2f, library/raw %.2f\n",
                    library.milliseconds / baseline.milliseconds,
                    library.milliseconds / raw.milliseconds);
    }
    std::printf("\n");
}

template <class Chunks> void ForEachChunk(long count, long size, Chunks chunks) {
    for (long first = 0; first < count; first += size) {
        chunks(first, std::min(count, first + size));
    }
}

} // namespace

int main(int argc, char** argv) try {
    const Options options = Parse(argc, argv);
    const HostTable host = MakeHostTable(options);
    DiscardingServer sink;
    const std::unique_ptr<CTableRepositoryImport> client = ClientOfSink(sink);
    BaselineClient baseline(sink.BaseUrl());
    RawStream raw(sink.BaseUrl());

    std::vector<std::unique_ptr<Column>> columns;
    CList<CRepoAttribute*> attributes;
    for (int k = 0; k < options.columns; ++k) {
        columns.push_back(std::make_unique<Column>(k, host.ids[static_cast<std::size_t>(k)]));
        attributes.AddTail(columns.back().get());
    }
    Vocabulary vocabulary(host.strings);
    const std::string idsPath = "/Import/Tables/bench/ValueIds/column";
    const std::string stringsPath = "/Import/Tables/bench/DistinctValues/column";

    // The raw stream sends what the baseline formats; formatting happens outside its timing.
    const auto wants = [&](const char* client) { return options.only.empty() || options.only == client; };
    std::vector<std::string> idBodies;
    ForEachChunk(options.rows, options.rowChunk, [&](long first, long last) {
        for (const auto& column : host.ids) {
            if (idBodies.size() >= static_cast<std::size_t>(options.columns) && !wants("raw")) {
                break;
            }
            idBodies.push_back(FormatIds(column.data() + first, static_cast<std::size_t>(last - first)));
        }
    });
    std::vector<std::string> stringBodies;
    ForEachChunk(options.strings, options.stringChunk, [&](long first, long last) {
        stringBodies.push_back(FormatStrings(host.strings.data() + first,
                                             static_cast<std::size_t>(last - first)));
    });
    const std::uint64_t chunkIdBytes = [&] {
        std::uint64_t bytes = 0;
        for (int k = 0; k < options.columns; ++k) bytes += idBodies[static_cast<std::size_t>(k)].size();
        return bytes;
    }();

    std::vector<Measurement> ids[3];
    std::vector<Measurement> strings[3];
    for (int run = 0; run < options.repeat; ++run) {
        ids[0].push_back(Measure(sink, wants("library"), [&](Measurement& m) {
            ForEachChunk(options.rows, options.rowChunk, [&](long first, long last) {
                WithHeapPeak(m, chunkIdBytes, [&] {
                    Require(client->ImportValueIdsChunk(L"bench", first, last, &attributes, 0) == 1,
                            "a value-id chunk");
                });
            });
        }));
        ids[1].push_back(Measure(sink, wants("baseline"), [&](Measurement&) {
            ForEachChunk(options.rows, options.rowChunk, [&](long first, long last) {
                for (const auto& column : host.ids) {
                    baseline.Post(idsPath, FormatIds(column.data() + first,
                                                     static_cast<std::size_t>(last - first)));
                }
            });
        }));
        ids[2].push_back(Measure(sink, wants("raw"), [&](Measurement&) {
            for (const std::string& body : idBodies) raw.Post(idsPath, body);
        }));
        strings[0].push_back(Measure(sink, wants("library"), [&](Measurement& m) {
            ForEachChunk(options.strings, options.stringChunk, [&](long first, long last) {
                WithHeapPeak(m, stringBodies.front().size(), [&] {
                    Require(client->ImportDistinctValuesChunk(L"bench", L"column", first, last,
                                                              &vocabulary, 0) == 1,
                            "a distinct-value chunk");
                });
            });
        }));
        strings[1].push_back(Measure(sink, wants("baseline"), [&](Measurement&) {
            ForEachChunk(options.strings, options.stringChunk, [&](long first, long last) {
                baseline.Post(stringsPath, FormatStrings(host.strings.data() + first,
                                                         static_cast<std::size_t>(last - first)));
            });
        }));
        strings[2].push_back(Measure(sink, wants("raw"), [&](Measurement&) {
            for (const std::string& body : stringBodies) raw.Post(stringsPath, body);
        }));
    }

    std::printf("medians of %d runs; heap peaks are the largest of any run\n\n", options.repeat);
    char title[160];
    std::snprintf(title, sizeof title, "value ids: %ld rows x %d integer columns, chunks of %ld rows",
                  options.rows, options.columns, options.rowChunk);
    Report(title, Median(ids[0]), Median(ids[1]), Median(ids[2]));
    std::snprintf(title, sizeof title, "distinct values: %ld strings, chunks of %ld", options.strings,
                  options.stringChunk);
    Report(title, Median(strings[0]), Median(strings[1]), Median(strings[2]));
    return 0;
} catch (const std::exception& e) {
    std::fprintf(stderr, "side_by_side: %s\n", e.what());
    return 1;
}
