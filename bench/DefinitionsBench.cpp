// Build time of the attribute definition document. The whole document is built in memory before
// the request starts, so the time per attribute must stay flat as a host table grows wide:
// 2,000 attributes of 20 value ranges each is the upper end measured here.
#include <benchmark/benchmark.h>

#include <cwchar>

#include "definitions/AttributeDefinitionsJson.h"

#include <memory>
#include <string>
#include <vector>

namespace {

constexpr int kRangesPerAttribute = 20;

// A host table of `attributes` columns, each a classification with kRangesPerAttribute classes
// of three values and two cases; every text differs, as it would in a real table.
class HostTable {
public:
    explicit HostTable(int attributes) {
        for (int a = 0; a < attributes; ++a) {
            auto* attribute = Own(new DesktopAttributeDTO);
            const std::string name = "Attribute " + std::to_string(a);
            attribute->AttributeName = name.c_str();
            attribute->Format = L"#,##0.00";
            attribute->Id = CString(("id-" + std::to_string(a)).c_str());
            attribute->Parent = L"Group";
            attribute->IsClassification = 1;
            attribute->ClassifiedAttribute = L"Revenue";
            for (int r = 0; r < kRangesPerAttribute; ++r) {
                auto* range = Own(new DesktopValueRangeDTO);
                range->Operator = r % 6;
                range->StringThreshold = CString(std::to_string(r * 100).c_str());
                for (int v = 0; v < 3; ++v) {
                    range->ValueSet.AddTail(CString(("v" + std::to_string(r * 3 + v)).c_str()));
                }
                range->ClassName = CString(("Class " + std::to_string(r)).c_str());
                attribute->ValueRanges.AddTail(range);
            }
            for (int c = 0; c < 2; ++c) {
                auto* condition = Own(new DesktopCaseDTO);
                condition->Condition = L"[Region]=\"North\"";
                condition->CaseName = CString(("Case " + std::to_string(c)).c_str());
                attribute->Cases.AddTail(condition);
            }
            m_list.AddTail(attribute);
        }
    }
    const CList<DesktopAttributeDTO*>* List() const { return &m_list; }

private:
    template <class Record> Record* Own(Record* record) {
        m_records.emplace_back(record);
        return record;
    }

    CList<DesktopAttributeDTO*> m_list;
    std::vector<std::unique_ptr<CObject>> m_records;
};

// Time per attribute: flat across the range means no quadratic step hides in the builders.
void ReportPerAttribute(benchmark::State& state, int attributes) {
    state.counters["per_attribute"] =
        benchmark::Counter(attributes, benchmark::Counter::kIsIterationInvariantRate |
                                           benchmark::Counter::kInvert);
}

void BM_BuildAttributeDefinitions(benchmark::State& state) {
    const int attributes = static_cast<int>(state.range(0));
    const HostTable table(attributes);
    for (auto _ : state) {
        web::json::value document = BuildAttributeDefinitionsJson(table.List());
        benchmark::DoNotOptimize(document);
        // Freeing some hundred thousand small blocks at once is the allocator's cost, not the
        // builders'; it is left out here and included in the serialising benchmark below.
        state.PauseTiming();
        document = web::json::value();
        state.ResumeTiming();
    }
    ReportPerAttribute(state, attributes);
}

// The document as it leaves for the wire: built, then serialised to text.
void BM_BuildAndSerializeAttributeDefinitions(benchmark::State& state) {
    const int attributes = static_cast<int>(state.range(0));
    const HostTable table(attributes);
    std::size_t bytes = 0;
    for (auto _ : state) {
        const utility::string_t text = BuildAttributeDefinitionsJson(table.List()).serialize();
        bytes = text.size();
        benchmark::DoNotOptimize(text.data());
    }
    ReportPerAttribute(state, attributes);
    state.counters["document_bytes"] = static_cast<double>(bytes);
}

// The floor under any builder: every text of the host's records read once, nothing written. Its
// time per attribute shows what reading a larger table costs by itself (caches, not the builder).
void BM_ReadHostRecords(benchmark::State& state) {
    const int attributes = static_cast<int>(state.range(0));
    const HostTable table(attributes);
    const auto length = [](const CString& text) { return std::wcslen(text.GetString()); };
    for (auto _ : state) {
        std::size_t characters = 0;
        const CList<DesktopAttributeDTO*>& list = *table.List();
        for (POSITION pos = list.GetHeadPosition(); pos != nullptr;) {
            const DesktopAttributeDTO* a = list.GetNext(pos);
            characters += length(a->AttributeName) + length(a->Format) + length(a->Id) +
                          length(a->Source) + length(a->Formula) + length(a->Parent);
            for (POSITION r = a->ValueRanges.GetHeadPosition(); r != nullptr;) {
                const DesktopValueRangeDTO* range = a->ValueRanges.GetNext(r);
                characters += length(range->StringThreshold) + length(range->ClassName);
                for (POSITION v = range->ValueSet.GetHeadPosition(); v != nullptr;) {
                    characters += length(range->ValueSet.GetNext(v));
                }
            }
        }
        benchmark::DoNotOptimize(characters);
    }
    ReportPerAttribute(state, attributes);
}

BENCHMARK(BM_ReadHostRecords)->RangeMultiplier(2)->Range(200, 2000)->Unit(benchmark::kMillisecond);

// The document as the upload builds it: written straight to the request's text.
void BM_WriteAttributeDefinitions(benchmark::State& state) {
    const int attributes = static_cast<int>(state.range(0));
    const HostTable table(attributes);
    std::size_t bytes = 0;
    for (auto _ : state) {
        const JsonText text = WriteAttributeDefinitionsJson(table.List());
        bytes = text.utf8.size();
        benchmark::DoNotOptimize(text.utf8.data());
    }
    ReportPerAttribute(state, attributes);
    state.counters["document_bytes"] = static_cast<double>(bytes);
}

BENCHMARK(BM_WriteAttributeDefinitions)
    ->RangeMultiplier(2)
    ->Range(200, 2000)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BuildAttributeDefinitions)
    ->RangeMultiplier(2)
    ->Range(200, 2000)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BuildAndSerializeAttributeDefinitions)
    ->RangeMultiplier(2)
    ->Range(200, 2000)
    ->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
