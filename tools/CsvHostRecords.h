// The host's records over a scanned CSV file: what the library reads the distinct values, the
// value ids and the attribute definitions through.
#pragma once

#include "TableScan.h"

#include <TableRepositoryImport.h>

#include <deque>
#include <memory>
#include <vector>

namespace lxrepo {

// One column's distinct values as wide text. GetValue's text must outlive the call, so the
// texts of a chunk are kept until the next chunk's Prepare.
class CsvDistinctValues final : public CDistinctValues {
public:
    explicit CsvDistinctValues(const DistinctValues& values) : values_(values) {}
    void Prepare() override { chunk_.clear(); }
    LPCWSTR GetValue(int index) override;
    void CopyValue(int index, LPWSTR buffer) override;

private:
    const DistinctValues& values_;
    std::deque<CString> chunk_;
};

// The value ids of the rows of the chunk in hand; rows are table rows.
class CsvValueIds final : public CValueIds {
public:
    void Hold(long first, const std::vector<int>& ids);
    int GetValueId(int row) override;

private:
    long first_ = 0;
    const std::vector<int>* ids_ = nullptr;
};

class CsvAttribute final : public CRepoAttribute {
public:
    explicit CsvAttribute(const ColumnScan& column);
    CString GetName() override { return name_; }
    int GetType() override { return type_; }
    CDistinctValues* GetDistinctValues() override { return &distinct_; }
    CValueIds* GetValueIds() override { return &ids_; }
    CsvValueIds& ValueIds() { return ids_; }

private:
    CString name_;
    int type_;
    CsvDistinctValues distinct_;
    CsvValueIds ids_;
};

// The records of every column, owned here and listed the way the library takes them.
class CsvTableRecords {
public:
    explicit CsvTableRecords(const TableScan& scan);
    ~CsvTableRecords();
    CsvTableRecords(const CsvTableRecords&) = delete;
    CsvTableRecords& operator=(const CsvTableRecords&) = delete;

    CList<DesktopAttributeDTO*>* Definitions() { return &definitions_; }
    CList<CRepoAttribute*>* Attributes() { return &attributeList_; }
    CsvAttribute& Attribute(std::size_t column) { return *attributes_.at(column); }
    // Makes the chunk's ids what GetValueIds reads.
    void HoldChunk(long first, const std::vector<std::vector<int>>& ids);

private:
    std::vector<std::unique_ptr<CsvAttribute>> attributes_;
    std::vector<std::unique_ptr<DesktopAttributeDTO>> dtos_;
    CList<DesktopAttributeDTO*> definitions_;
    CList<CRepoAttribute*> attributeList_;
};

// UTF-8 text as the host's wide string, and back.
CString ToCString(std::string_view utf8);
std::string ToUtf8(const CString& text);

} // namespace lxrepo
