// Throughput and per-chunk heap peak of the two chunk uploads, on loopback against a sink that
// reads and drops every body. Run the Release build; see README.md for this machine's figures.
#include "BenchHost.h"
#include "DiscardingServer.h"
#include "HeapGauge.h"

#include "TableRepositoryImport.h"

#include <benchmark/benchmark.h>

#include <sys/resource.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

class Environment {
public:
    Environment() : m_client(ClientOfSink(m_sink)) {}

    CTableRepositoryImport& Client() { return *m_client; }
    const DiscardingServer& Sink() const { return m_sink; }

private:
    DiscardingServer m_sink;
    std::unique_ptr<CTableRepositoryImport> m_client;
};

Environment& Shared() {
    static Environment environment;
    return environment;
}

class ComputedValueIds : public CValueIds {
public:
    explicit ComputedValueIds(int salt) : m_salt(salt) {}
    int GetValueId(int row) override { return (row * 7919 + m_salt) % 1000003; }

private:
    int m_salt;
};

using BenchAttribute = BenchColumn<ComputedValueIds>;

class StoredDistinctValues : public CDistinctValues {
public:
    StoredDistinctValues(std::size_t count, std::size_t length) {
        for (std::size_t i = 0; i < count; ++i) {
            std::wstring text = std::to_wstring(i) + L" ";
            text.resize(std::max(length, text.size()), L'x');
            text.resize(length);
            m_texts.push_back(std::move(text));
        }
    }
    void Prepare() override {}
    LPCWSTR GetValue(int index) override { return m_texts[static_cast<std::size_t>(index)].c_str(); }
    void CopyValue(int index, LPWSTR buffer) override {
        const std::wstring& text = m_texts[static_cast<std::size_t>(index)];
        std::memcpy(buffer, text.c_str(), (text.size() + 1) * sizeof(wchar_t));
    }

private:
    std::vector<std::wstring> m_texts;
};

long MaxRssKiB() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// Heap peak of one call above what was live before it, the largest over all iterations.
template <class Call> void MeasureChunks(benchmark::State& state, std::int64_t itemsPerChunk, Call call) {
    Environment& environment = Shared();
    const std::uint64_t bytesBefore = environment.Sink().BodyBytes();
    const long rssBefore = MaxRssKiB();
    std::int64_t peak = 0;
    for (auto _ : state) {
        const std::int64_t live = heapgauge::LiveBytes();
        heapgauge::ResetPeak();
        if (call(environment.Client()) != 1) {
            state.SkipWithError("the sink refused a chunk");
            break;
        }
        peak = std::max(peak, heapgauge::PeakBytes() - live);
    }
    state.SetItemsProcessed(state.iterations() * itemsPerChunk);
    state.SetBytesProcessed(static_cast<std::int64_t>(environment.Sink().BodyBytes() - bytesBefore));
    state.counters["heap_peak_MiB"] = static_cast<double>(peak) / (1024.0 * 1024.0);
    state.counters["maxrss_growth_MiB"] = static_cast<double>(MaxRssKiB() - rssBefore) / 1024.0;
}

void BM_ImportValueIdsChunk(benchmark::State& state) {
    const auto rows = static_cast<long>(state.range(0));
    const auto count = static_cast<int>(state.range(1));
    std::vector<std::unique_ptr<BenchAttribute>> records;
    CList<CRepoAttribute*> attributes;
    for (int k = 0; k < count; ++k) {
        records.push_back(std::make_unique<BenchAttribute>(k, k));
        attributes.AddTail(records.back().get());
    }
    MeasureChunks(state, rows * count, [&](CTableRepositoryImport& client) {
        return client.ImportValueIdsChunk(L"bench table", 0, rows, &attributes, 0);
    });
    state.SetLabel("value ids");
}

void BM_ImportDistinctValuesChunk(benchmark::State& state) {
    const auto count = static_cast<long>(state.range(0));
    const auto length = static_cast<std::size_t>(state.range(1));
    const auto copyMode = static_cast<int>(state.range(2));
    StoredDistinctValues values(static_cast<std::size_t>(count), length);
    MeasureChunks(state, count, [&](CTableRepositoryImport& client) {
        return client.ImportDistinctValuesChunk(L"bench table", L"column", 0, count, &values,
                                                copyMode);
    });
    state.SetLabel(copyMode != 0 ? "distinct values, copied" : "distinct values, by pointer");
}

// One whole import in the host's order, from the table to its end, every request answered by the
// sink: what a host waits for, phase commands and attribute definitions included.
void BM_WholeImport(benchmark::State& state) {
    const auto rows = static_cast<long>(state.range(0));
    const auto count = static_cast<int>(state.range(1));
    const long chunkRows = state.range(2);
    const long distinctCount = 1000;
    std::vector<std::unique_ptr<BenchAttribute>> records;
    std::vector<std::unique_ptr<DesktopAttributeDTO>> definitionRecords;
    CList<CRepoAttribute*> attributes;
    CList<DesktopAttributeDTO*> definitions;
    for (int k = 0; k < count; ++k) {
        records.push_back(std::make_unique<BenchAttribute>(k, k));
        attributes.AddTail(records.back().get());
        definitionRecords.push_back(std::make_unique<DesktopAttributeDTO>());
        definitionRecords.back()->AttributeName = records.back()->GetName();
        definitions.AddTail(definitionRecords.back().get());
    }
    StoredDistinctValues distinct(static_cast<std::size_t>(distinctCount), 12);
    const CString table = L"bench table";
    for (auto _ : state) {
        CTableRepositoryImport& client = Shared().Client();
        client.CreateTable(table, L"default", L"", 1, static_cast<int>(rows));
        int accepted = client.CreateAttributeDefinitions(table, &definitions);
        for (POSITION pos = attributes.GetHeadPosition(); pos != nullptr;) {
            const CString name = attributes.GetNext(pos)->GetName();
            accepted &= client.BeginDistinctValues(table, name);
            accepted &= client.ImportDistinctValuesChunk(table, name, 0, distinctCount, &distinct, 0);
            accepted &= client.EndDistinctValues(table, name);
        }
        accepted &= client.BeginImportValueIds(table, &attributes);
        for (long first = 0; first < rows; first += chunkRows) {
            accepted &= client.ImportValueIdsChunk(table, first, std::min(rows, first + chunkRows),
                                                   &attributes, 0);
        }
        accepted &= client.EndImportValueIds(table, &attributes);
        accepted &= client.EndImport(table);
        if (accepted != 1) {
            state.SkipWithError("the sink refused a step");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * rows);
    state.SetLabel("rows of a whole import");
}

} // namespace

BENCHMARK(BM_WholeImport)
    ->ArgNames({"rows", "attributes", "chunk"})
    ->Args({200000, 10, 50000})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(3);

BENCHMARK(BM_ImportValueIdsChunk)
    ->ArgNames({"rows", "attributes"})
    ->Args({10000, 1})
    ->Args({10000, 20})
    ->Args({100000, 1})
    ->Args({100000, 20})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

BENCHMARK(BM_ImportDistinctValuesChunk)
    ->ArgNames({"values", "length", "copy"})
    ->ArgsProduct({{10000}, {8, 1000}, {0, 1}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

BENCHMARK_MAIN();
