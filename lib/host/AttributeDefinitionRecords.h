#pragma once

#include "host/Framework.h"

// The host's description of its columns. The library reads these members directly; the members
// it does not read (Owner, Position) belong to the host.

struct DesktopValueRangeDTO : public CObject {
    int Operator = 0;
    CString StringThreshold;
    CList<CString> ValueSet;
    CString ClassName;
    BOOL Unmodified = FALSE;
};

struct DesktopCaseDTO : public CObject {
    CString Condition;
    CString CaseName;
};

struct DesktopAttributeDTO : public CObject {
    CObject* Owner = nullptr;
    CString AttributeName;
    int Position = 0;
    int Type = 0;
    CString Format;
    int LCID = 0;
    BOOL IsGroup = FALSE;
    BOOL IsDrillDownGroup = FALSE;
    BOOL IsSummary = FALSE;
    BOOL IsFormula = FALSE;
    BOOL IsClassification = FALSE;
    BOOL IsCaseDiscrimination = FALSE;
    BOOL IsLink = FALSE;
    BOOL IsPermanentlyHidden = FALSE;
    int Level = 0;
    CString Id;
    CString Parent;
    CString Source;
    CString SummaryPerAttribute;
    CString ClassifiedAttribute;
    CList<DesktopValueRangeDTO*> ValueRanges;
    CList<DesktopCaseDTO*> Cases;
    BOOL UserDefinedOrder = FALSE;
    int EvalMode = 0;
    CString Formula;
    CString ReferencedAttributes;
    CString ReferencedDrillDownGroup;
    int SummaryType = 0;
    BOOL MissingValuesAsZero = FALSE;
    CString MarginalValue;
    BOOL Reverse = FALSE;
    BOOL IsExpanded = FALSE;
    BOOL IsCoupled = FALSE;
    BOOL IsFirstCoupledAttribute = FALSE;
    BOOL IsLastCoupledAttributeLeads = FALSE;
    BOOL IsCoupledAttributeSortedReverse = FALSE;
    CString CoupledAttributes;
};
