// The attribute definition document from arbitrary host records: any wchar_t in any text (NUL,
// lone surrogates, values past U+10FFFF), any codes and flags, lists of any length. The text
// writer must give the bytes serialize() gives for the built value, or fail with the same
// message: a lone high surrogate is the one text refused (std::range_error). The value holds one
// member per field and parses back to itself.
#include "FuzzInput.h"
#include "definitions/AttributeDefinitionsJson.h"
#include "host/AttributeDefinitionRecords.h"

#include <memory>
#include <stdexcept>
#include <vector>

namespace {

// The host's lists hold raw pointers; what they point to lives here until the input is done.
std::vector<std::unique_ptr<CObject>> records;

template <class Record> Record& Append(CList<Record*>& list) {
    records.emplace_back(new Record);
    list.AddTail(static_cast<Record*>(records.back().get()));
    return *list.GetTail();
}

BOOL Flag(FuzzInput& in) {
    const BOOL kFlags[] = {FALSE, TRUE, 2, -1}; // hosts store 2 or -1 as well as TRUE
    return kFlags[in.Byte() % 4];
}

void AddAttribute(FuzzInput& in, CList<DesktopAttributeDTO*>& attributes) {
    DesktopAttributeDTO& a = Append(attributes);
    a.AttributeName = in.Text();
    a.Type = in.Int();
    a.Format = in.Text();
    a.LCID = in.Int();
    for (BOOL* flag : {&a.IsGroup, &a.IsDrillDownGroup, &a.IsSummary, &a.IsFormula,
                       &a.IsClassification, &a.IsCaseDiscrimination, &a.IsLink,
                       &a.IsPermanentlyHidden, &a.UserDefinedOrder, &a.MissingValuesAsZero,
                       &a.Reverse, &a.IsExpanded, &a.IsCoupled, &a.IsFirstCoupledAttribute,
                       &a.IsLastCoupledAttributeLeads, &a.IsCoupledAttributeSortedReverse}) {
        *flag = Flag(in);
    }
    for (int* code : {&a.Level, &a.EvalMode, &a.SummaryType}) {
        *code = in.Int();
    }
    for (CString* text : {&a.Id, &a.Parent, &a.Source, &a.SummaryPerAttribute,
                          &a.ClassifiedAttribute, &a.Formula, &a.ReferencedAttributes,
                          &a.ReferencedDrillDownGroup, &a.MarginalValue, &a.CoupledAttributes}) {
        *text = in.Text();
    }
    for (int n = in.Byte() % 4; n > 0; --n) {
        DesktopValueRangeDTO& r = Append(a.ValueRanges);
        r.Operator = in.Int();
        r.StringThreshold = in.Text();
        for (int values = in.Byte() % 4; values > 0; --values) {
            r.ValueSet.AddTail(in.Text());
        }
        r.ClassName = in.Text();
        r.Unmodified = Flag(in);
    }
    for (int n = in.Byte() % 4; n > 0; --n) {
        DesktopCaseDTO& c = Append(a.Cases);
        c.Condition = in.Text();
        c.CaseName = in.Text();
    }
}

// One element per list entry, 35 members per attribute, 5 per value range, 2 per case.
void CheckDocument(const web::json::value& document, const CList<DesktopAttributeDTO*>& list) {
    const auto count = [](const auto& entries) { return std::size_t(entries.GetCount()); };
    Check(document.size() == count(list));
    std::size_t i = 0;
    for (POSITION pos = list.GetHeadPosition(); pos != nullptr; ++i) {
        const DesktopAttributeDTO* a = list.GetNext(pos);
        const web::json::value& ranges = document.at(i).at(U("ValueRanges"));
        const web::json::value& cases = document.at(i).at(U("Cases"));
        Check(document.at(i).size() == 35 && ranges.size() == count(a->ValueRanges) &&
              cases.size() == count(a->Cases));
        std::size_t r = 0;
        for (POSITION rp = a->ValueRanges.GetHeadPosition(); rp != nullptr; ++r) {
            const std::size_t values = count(a->ValueRanges.GetNext(rp)->ValueSet);
            Check(ranges.at(r).size() == 5 && ranges.at(r).at(U("ValueSet")).size() == values);
        }
        for (std::size_t c = 0; c < cases.size(); ++c) {
            Check(cases.at(c).size() == 2);
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzInput in(data, size);
    CList<DesktopAttributeDTO*> attributes;
    for (int n = in.Byte() % 8; n > 0; --n) {
        AddAttribute(in, attributes);
    }
    web::json::value document;
    std::string built;
    try {
        document = BuildAttributeDefinitionsJson(&attributes);
        built = utility::conversions::to_utf8string(document.serialize());
    } catch (const std::range_error& e) {
        built = std::string("failure: ") + e.what();
    }
    Check(Outcome([&] { return WriteAttributeDefinitionsJson(&attributes).utf8; }) == built);
    if (!document.is_null()) {
        CheckDocument(document, attributes);
        Check(web::json::value::parse(document.serialize()) == document);
    }
    records.clear();
    return 0;
}
