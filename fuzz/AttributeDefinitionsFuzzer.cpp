// The attribute definition document built from arbitrary host records: any wchar_t in any
// text (NUL, lone surrogates, values past U+10FFFF), any codes and flags, lists of any length.
// The document must serialise, parse back to the same value and hold one member per field.
// A lone high surrogate is the one text the conversion refuses (std::range_error).
#include "FuzzInput.h"
#include "definitions/AttributeDefinitionsJson.h"
#include "host/AttributeDefinitionRecords.h"

#include <cstdlib>
#include <stdexcept>

namespace {

void Check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

// Owns what the lists point to: the host's lists hold raw pointers.
struct Records {
    CList<DesktopAttributeDTO*> attributes;
    ~Records() {
        for (POSITION pos = attributes.GetHeadPosition(); pos != nullptr;) {
            DesktopAttributeDTO* a = attributes.GetNext(pos);
            for (POSITION r = a->ValueRanges.GetHeadPosition(); r != nullptr;) {
                delete a->ValueRanges.GetNext(r);
            }
            for (POSITION c = a->Cases.GetHeadPosition(); c != nullptr;) {
                delete a->Cases.GetNext(c);
            }
            delete a;
        }
    }
};

BOOL Flag(FuzzInput& in) {
    const std::uint8_t b = in.Byte();
    // Hosts store 2 or -1 as well as TRUE.
    return b % 4 == 0 ? FALSE : b % 4 == 1 ? TRUE : b % 4 == 2 ? 2 : -1;
}

DesktopValueRangeDTO* ValueRange(FuzzInput& in) {
    auto* r = new DesktopValueRangeDTO;
    r->Operator = in.Int();
    r->StringThreshold = in.Text();
    for (int n = in.Byte() % 4; n > 0; --n) {
        r->ValueSet.AddTail(in.Text());
    }
    r->ClassName = in.Text();
    r->Unmodified = Flag(in);
    return r;
}

DesktopAttributeDTO* Attribute(FuzzInput& in) {
    auto* a = new DesktopAttributeDTO;
    a->AttributeName = in.Text();
    a->Type = in.Int();
    a->Format = in.Text();
    a->LCID = in.Int();
    for (BOOL* flag : {&a->IsGroup, &a->IsDrillDownGroup, &a->IsSummary, &a->IsFormula,
                       &a->IsClassification, &a->IsCaseDiscrimination, &a->IsLink,
                       &a->IsPermanentlyHidden, &a->UserDefinedOrder, &a->MissingValuesAsZero,
                       &a->Reverse, &a->IsExpanded, &a->IsCoupled, &a->IsFirstCoupledAttribute,
                       &a->IsLastCoupledAttributeLeads, &a->IsCoupledAttributeSortedReverse}) {
        *flag = Flag(in);
    }
    a->Level = in.Int();
    a->EvalMode = in.Int();
    a->SummaryType = in.Int();
    for (CString* text : {&a->Id, &a->Parent, &a->Source, &a->SummaryPerAttribute,
                          &a->ClassifiedAttribute, &a->Formula, &a->ReferencedAttributes,
                          &a->ReferencedDrillDownGroup, &a->MarginalValue, &a->CoupledAttributes}) {
        *text = in.Text();
    }
    for (int n = in.Byte() % 4; n > 0; --n) {
        a->ValueRanges.AddTail(ValueRange(in));
    }
    for (int n = in.Byte() % 4; n > 0; --n) {
        auto* c = new DesktopCaseDTO;
        c->Condition = in.Text();
        c->CaseName = in.Text();
        a->Cases.AddTail(c);
    }
    return a;
}

void CheckDocument(const web::json::value& document, const Records& records) {
    Check(document.is_array() && document.size() == std::size_t(records.attributes.GetCount()));
    std::size_t i = 0;
    for (POSITION pos = records.attributes.GetHeadPosition(); pos != nullptr; ++i) {
        const DesktopAttributeDTO* a = records.attributes.GetNext(pos);
        const web::json::value& object = document.at(i);
        Check(object.is_object() && object.size() == 35);
        const web::json::value& ranges = object.at(U("ValueRanges"));
        Check(ranges.is_array() && ranges.size() == std::size_t(a->ValueRanges.GetCount()));
        std::size_t r = 0;
        for (POSITION rp = a->ValueRanges.GetHeadPosition(); rp != nullptr; ++r) {
            const DesktopValueRangeDTO* range = a->ValueRanges.GetNext(rp);
            Check(ranges.at(r).is_object() && ranges.at(r).size() == 5);
            Check(ranges.at(r).at(U("ValueSet")).size() == std::size_t(range->ValueSet.GetCount()));
        }
        const web::json::value& cases = object.at(U("Cases"));
        Check(cases.is_array() && cases.size() == std::size_t(a->Cases.GetCount()));
        for (std::size_t c = 0; c < cases.size(); ++c) {
            Check(cases.at(c).is_object() && cases.at(c).size() == 2);
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzInput in(data, size);
    Records records;
    for (int n = in.Byte() % 8; n > 0; --n) {
        records.attributes.AddTail(Attribute(in));
    }
    web::json::value document;
    try {
        document = BuildAttributeDefinitionsJson(&records.attributes);
    } catch (const std::range_error&) {
        return 0;
    }
    CheckDocument(document, records);
    const web::json::value reparsed = web::json::value::parse(document.serialize());
    Check(reparsed == document);
    CheckDocument(reparsed, records);
    return 0;
}
