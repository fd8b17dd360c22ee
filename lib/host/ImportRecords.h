#pragma once

#include "TableRepositoryImportExport.h"
#include "host/Framework.h"

// Host-implemented readers of the table's data. The library only calls them; it never owns or
// deletes one, which is why they declare no virtual destructor.

// The distinct values of one attribute, read by index.
class TRI_API CDistinctValues {
public:
    CDistinctValues();
    CDistinctValues(const CDistinctValues&);
    CDistinctValues(CDistinctValues&&) noexcept;
    CDistinctValues& operator=(const CDistinctValues&);
    CDistinctValues& operator=(CDistinctValues&&) noexcept;

    // Called once per chunk before any value is read.
    virtual void Prepare() = 0;
    // The value at index as NUL-terminated text that the host keeps alive.
    virtual LPCWSTR GetValue(int index) = 0;
    // Writes the value at index, NUL-terminated, into a buffer of 10000 characters.
    virtual void CopyValue(int index, LPWSTR buffer) = 0;
};

// The value id of every row of one attribute.
class TRI_API CValueIds {
public:
    CValueIds();
    CValueIds(const CValueIds&);
    CValueIds(CValueIds&&) noexcept;
    CValueIds& operator=(const CValueIds&);
    CValueIds& operator=(CValueIds&&) noexcept;

    virtual int GetValueId(int row) = 0;
};

// One attribute (column) of the host's table.
class TRI_API CRepoAttribute {
public:
    CRepoAttribute();
    CRepoAttribute(const CRepoAttribute&);
    CRepoAttribute(CRepoAttribute&&) noexcept;
    CRepoAttribute& operator=(const CRepoAttribute&);
    CRepoAttribute& operator=(CRepoAttribute&&) noexcept;

    virtual CString GetName() = 0;
    // The host's own; the library never calls these two.
    virtual int GetType() = 0;
    virtual CDistinctValues* GetDistinctValues() = 0;
    virtual CValueIds* GetValueIds() = 0;
};
