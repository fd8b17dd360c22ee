#include "host/ImportRecords.h"

// The record interfaces carry no data: their special members only install the vtable.

CDistinctValues::CDistinctValues() = default;
CDistinctValues::CDistinctValues(const CDistinctValues&) = default;
CDistinctValues::CDistinctValues(CDistinctValues&&) noexcept = default;
CDistinctValues& CDistinctValues::operator=(const CDistinctValues&) = default;
CDistinctValues& CDistinctValues::operator=(CDistinctValues&&) noexcept = default;

CValueIds::CValueIds() = default;
CValueIds::CValueIds(const CValueIds&) = default;
CValueIds::CValueIds(CValueIds&&) noexcept = default;
CValueIds& CValueIds::operator=(const CValueIds&) = default;
CValueIds& CValueIds::operator=(CValueIds&&) noexcept = default;

CRepoAttribute::CRepoAttribute() = default;
CRepoAttribute::CRepoAttribute(const CRepoAttribute&) = default;
CRepoAttribute::CRepoAttribute(CRepoAttribute&&) noexcept = default;
CRepoAttribute& CRepoAttribute::operator=(const CRepoAttribute&) = default;
CRepoAttribute& CRepoAttribute::operator=(CRepoAttribute&&) noexcept = default;
