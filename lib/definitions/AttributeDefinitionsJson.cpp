#include "definitions/AttributeDefinitionsJson.h"

#include "client/TextConversion.h"

#include <utility>
#include <vector>

using web::json::value;

namespace {

// Members are collected first and handed to the object in one go, which sorts them once. The
// default object keeps its members sorted in a vector, so setting them one at a time searches
// and shifts on every insertion; for the 35 members of an attribute that measured about a
// quarter slower.
using Members = std::vector<std::pair<utility::string_t, value>>;

value Text(const CString& text) { return value::string(ToStringT(text)); }
// Any non-zero BOOL is true; hosts are known to store 2 or -1 in their flags.
value Flag(BOOL flag) { return value::boolean(flag != 0); }
// The host's codes go out as they are; their meaning is shared by the host and the service.
value Code(int code) { return value::number(code); }

template <class Element, class Build>
value ArrayOf(const CList<Element>& list, Build build) {
    std::vector<value> elements;
    elements.reserve(static_cast<std::size_t>(list.GetCount()));
    for (POSITION pos = list.GetHeadPosition(); pos != nullptr;) {
        elements.push_back(build(list.GetNext(pos)));
    }
    return value::array(std::move(elements));
}

value ValueRangeJson(const DesktopValueRangeDTO& range) {
    Members members;
    members.reserve(5);
    members.emplace_back(U("Operator"), Code(range.Operator));
    members.emplace_back(U("StringThreshold"), Text(range.StringThreshold));
    members.emplace_back(U("ValueSet"), ArrayOf(range.ValueSet, Text));
    members.emplace_back(U("ClassName"), Text(range.ClassName));
    members.emplace_back(U("Unmodified"), Flag(range.Unmodified));
    return value::object(std::move(members));
}

value CaseJson(const DesktopCaseDTO& c) {
    Members members;
    members.reserve(2);
    members.emplace_back(U("Condition"), Text(c.Condition));
    members.emplace_back(U("CaseName"), Text(c.CaseName));
    return value::object(std::move(members));
}

value AttributeJson(const DesktopAttributeDTO& a) {
    Members members;
    members.reserve(35);
    members.emplace_back(U("AttributeName"), Text(a.AttributeName));
    members.emplace_back(U("Type"), Code(a.Type));
    members.emplace_back(U("Format"), Text(a.Format));
    members.emplace_back(U("LCID"), Code(a.LCID));
    members.emplace_back(U("IsGroup"), Flag(a.IsGroup));
    members.emplace_back(U("IsSummary"), Flag(a.IsSummary));
    members.emplace_back(U("IsFormula"), Flag(a.IsFormula));
    members.emplace_back(U("IsClassification"), Flag(a.IsClassification));
    members.emplace_back(U("IsCaseDiscrimination"), Flag(a.IsCaseDiscrimination));
    members.emplace_back(U("IsLink"), Flag(a.IsLink));
    members.emplace_back(U("IsPermanentlyHidden"), Flag(a.IsPermanentlyHidden));
    members.emplace_back(U("Level"), Code(a.Level));
    members.emplace_back(U("Id"), Text(a.Id));
    members.emplace_back(U("UserDefinedOrder"), Flag(a.UserDefinedOrder));
    members.emplace_back(U("EvalMode"), Code(a.EvalMode));
    members.emplace_back(U("Source"), Text(a.Source));
    members.emplace_back(U("SummaryPerAttribute"), Text(a.SummaryPerAttribute));
    members.emplace_back(U("ClassifiedAttribute"), Text(a.ClassifiedAttribute));
    members.emplace_back(U("ValueRanges"), BuildValueRangesJson(a.ValueRanges));
    members.emplace_back(U("Cases"), BuildCasesJson(a.Cases));
    members.emplace_back(U("Formula"), Text(a.Formula));
    members.emplace_back(U("ReferencedAttributes"), Text(a.ReferencedAttributes));
    members.emplace_back(U("SummaryType"), Code(a.SummaryType));
    members.emplace_back(U("MissingValuesAsZero"), Flag(a.MissingValuesAsZero));
    members.emplace_back(U("MarginalValue"), Text(a.MarginalValue));
    members.emplace_back(U("Reverse"), Flag(a.Reverse));
    members.emplace_back(U("IsExpanded"), Flag(a.IsExpanded));
    members.emplace_back(U("IsCoupled"), Flag(a.IsCoupled));
    members.emplace_back(U("IsFirstCoupledAttribute"), Flag(a.IsFirstCoupledAttribute));
    members.emplace_back(U("IsLastCoupledAttributeLeads"), Flag(a.IsLastCoupledAttributeLeads));
    members.emplace_back(U("IsCoupledAttributeSortedReverse"),
                         Flag(a.IsCoupledAttributeSortedReverse));
    members.emplace_back(U("CoupledAttributes"), Text(a.CoupledAttributes));
    members.emplace_back(U("Parent"), Text(a.Parent));
    members.emplace_back(U("IsDrillDownGroup"), Flag(a.IsDrillDownGroup));
    members.emplace_back(U("ReferencedDrillDownGroup"), Text(a.ReferencedDrillDownGroup));
    return value::object(std::move(members));
}

} // namespace

value BuildAttributeDefinitionsJson(const CList<DesktopAttributeDTO*>* attributes) {
    return ArrayOf(*attributes, [](const DesktopAttributeDTO* a) { return AttributeJson(*a); });
}

value BuildValueRangesJson(const CList<DesktopValueRangeDTO*>& ranges) {
    return ArrayOf(ranges, [](const DesktopValueRangeDTO* r) { return ValueRangeJson(*r); });
}

value BuildCasesJson(const CList<DesktopCaseDTO*>& cases) {
    return ArrayOf(cases, [](const DesktopCaseDTO* c) { return CaseJson(*c); });
}
