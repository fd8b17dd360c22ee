#include "definitions/AttributeDefinitionsJson.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

template <class Record> struct Member {
    const char* name;
    void (*write)(std::string& out, const Record& record);
};

// The default JSON object keeps its members sorted by name, so that is the order they are written
// in. Sorting the table once, rather than listing it pre-sorted, keeps that true whatever names
// are added.
template <class Record, std::size_t N>
std::vector<Member<Record>> SortedByName(const Member<Record> (&members)[N]) {
    std::vector<Member<Record>> sorted(members, members + N);
    std::sort(sorted.begin(), sorted.end(), [](const Member<Record>& a, const Member<Record>& b) {
        return std::strcmp(a.name, b.name) < 0;
    });
    return sorted;
}

template <class Record>
void WriteObject(std::string& out, const std::vector<Member<Record>>& members,
                 const Record& record) {
    out += '{';
    bool first = true;
    for (const Member<Record>& member : members) {
        if (!first) {
            out += ',';
        }
        first = false;
        out += '"';
        out += member.name;
        out += "\":";
        member.write(out, record);
    }
    out += '}';
}

template <class Element, class Write>
void WriteArray(std::string& out, const CList<Element>& list, Write write) {
    out += '[';
    for (POSITION pos = list.GetHeadPosition(); pos != nullptr;) {
        if (pos != list.GetHeadPosition()) {
            out += ',';
        }
        write(out, list.GetNext(pos));
    }
    out += ']';
}

// Any non-zero BOOL is true; hosts are known to store 2 or -1 in their flags.
void Flag(std::string& out, BOOL flag) { AppendJsonBool(out, flag != 0); }
void Text(std::string& out, const CString& text) { AppendJsonString(out, text); }

#define TEXT_MEMBER(Record, Name) {#Name, [](std::string& o, const Record& r) { Text(o, r.Name); }}
#define CODE_MEMBER(Record, Name) {#Name, [](std::string& o, const Record& r) { AppendJsonInt(o, r.Name); }}
#define FLAG_MEMBER(Record, Name) {#Name, [](std::string& o, const Record& r) { Flag(o, r.Name); }}

void WriteValueRange(std::string& out, const DesktopValueRangeDTO* range) {
    static const Member<DesktopValueRangeDTO> kMembers[] = {
        CODE_MEMBER(DesktopValueRangeDTO, Operator),
        TEXT_MEMBER(DesktopValueRangeDTO, StringThreshold),
        {"ValueSet",
         [](std::string& o, const DesktopValueRangeDTO& r) {
             WriteArray(o, r.ValueSet, [](std::string& a, const CString& text) { Text(a, text); });
         }},
        TEXT_MEMBER(DesktopValueRangeDTO, ClassName),
        FLAG_MEMBER(DesktopValueRangeDTO, Unmodified),
    };
    static const auto sorted = SortedByName(kMembers);
    WriteObject(out, sorted, *range);
}

void WriteCase(std::string& out, const DesktopCaseDTO* c) {
    static const Member<DesktopCaseDTO> kMembers[] = {
        TEXT_MEMBER(DesktopCaseDTO, Condition),
        TEXT_MEMBER(DesktopCaseDTO, CaseName),
    };
    static const auto sorted = SortedByName(kMembers);
    WriteObject(out, sorted, *c);
}

void WriteAttribute(std::string& out, const DesktopAttributeDTO* attribute) {
    using A = DesktopAttributeDTO;
    static const Member<A> kMembers[] = {
        TEXT_MEMBER(A, AttributeName),
        CODE_MEMBER(A, Type),
        TEXT_MEMBER(A, Format),
        CODE_MEMBER(A, LCID),
        FLAG_MEMBER(A, IsGroup),
        FLAG_MEMBER(A, IsSummary),
        FLAG_MEMBER(A, IsFormula),
        FLAG_MEMBER(A, IsClassification),
        FLAG_MEMBER(A, IsCaseDiscrimination),
        FLAG_MEMBER(A, IsLink),
        FLAG_MEMBER(A, IsPermanentlyHidden),
        CODE_MEMBER(A, Level),
        TEXT_MEMBER(A, Id),
        FLAG_MEMBER(A, UserDefinedOrder),
        CODE_MEMBER(A, EvalMode),
        TEXT_MEMBER(A, Source),
        TEXT_MEMBER(A, SummaryPerAttribute),
        TEXT_MEMBER(A, ClassifiedAttribute),
        {"ValueRanges", [](std::string& o, const A& r) { WriteArray(o, r.ValueRanges, WriteValueRange); }},
        {"Cases", [](std::string& o, const A& r) { WriteArray(o, r.Cases, WriteCase); }},
        TEXT_MEMBER(A, Formula),
        TEXT_MEMBER(A, ReferencedAttributes),
        CODE_MEMBER(A, SummaryType),
        FLAG_MEMBER(A, MissingValuesAsZero),
        TEXT_MEMBER(A, MarginalValue),
        FLAG_MEMBER(A, Reverse),
        FLAG_MEMBER(A, IsExpanded),
        FLAG_MEMBER(A, IsCoupled),
        FLAG_MEMBER(A, IsFirstCoupledAttribute),
        FLAG_MEMBER(A, IsLastCoupledAttributeLeads),
        FLAG_MEMBER(A, IsCoupledAttributeSortedReverse),
        TEXT_MEMBER(A, CoupledAttributes),
        TEXT_MEMBER(A, Parent),
        FLAG_MEMBER(A, IsDrillDownGroup),
        TEXT_MEMBER(A, ReferencedDrillDownGroup),
    };
    static const auto sorted = SortedByName(kMembers);
    WriteObject(out, sorted, *attribute);
}

#undef TEXT_MEMBER
#undef CODE_MEMBER
#undef FLAG_MEMBER

// Counts what would be appended.
struct Measure {
    std::size_t bytes = 0;
    Measure& operator+=(char) { ++bytes; return *this; }
    Measure& operator+=(const std::string& text) { bytes += text.size(); return *this; }
};

// Each attribute is written into scratch, which keeps its capacity from one to the next, and
// appended from there.
template <class Out>
void WriteDocument(Out& out, std::string& scratch, const CList<DesktopAttributeDTO*>& attributes) {
    out += '[';
    for (POSITION pos = attributes.GetHeadPosition(); pos != nullptr;) {
        if (pos != attributes.GetHeadPosition()) {
            out += ',';
        }
        scratch.clear();
        WriteAttribute(scratch, attributes.GetNext(pos));
        out += scratch;
    }
    out += ']';
}

} // namespace

JsonText WriteAttributeDefinitionsJson(const CList<DesktopAttributeDTO*>* attributes) {
    // Two passes: the first only measures, so that the document is allocated once at its exact
    // size. Growing it instead copies everything at each doubling onto freshly mapped pages, and
    // the time per attribute then rises with the size of the document.
    std::string scratch;
    Measure size;
    try {
        WriteDocument(size, scratch, *attributes);
    } catch (const std::range_error&) {
        // Text that cannot be converted fails in whichever member is met first, and members are
        // written here in name order, not in the order the value is built in. Building the value
        // raises the very error the host would otherwise have seen.
        BuildAttributeDefinitionsJson(attributes);
        throw;
    }
    JsonText document;
    document.utf8.reserve(size.bytes);
    WriteDocument(document.utf8, scratch, *attributes);
    return document;
}
