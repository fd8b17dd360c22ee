#pragma once

// The one header a host includes to publish a table to the table repository service.

#include "IdentityLoginSettings.h"
#include "TableRepositoryImportExport.h"
#include "host/AttributeDefinitionRecords.h"
#include "host/AuthenticationProxyConfiguration.h"
#include "host/Framework.h"
#include "host/ImportRecords.h"
#include "host/TestConnectionResult.h"

#include <string>
#include <tuple>

struct AuthenticationSettings;

// The client of one table repository service. Create it with new_TableRepositoryImport (or the
// runtime class), call the operations in the order of an import, delete it when done. Every
// operation blocks until the service has answered; calls on one object must not overlap.
class TRI_API CTableRepositoryImport : public CObject {
    DECLARE_DYNCREATE(CTableRepositoryImport)

public:
    CTableRepositoryImport();
    ~CTableRepositoryImport() override;
    CTableRepositoryImport(const CTableRepositoryImport&) = delete;
    CTableRepositoryImport& operator=(const CTableRepositoryImport&) = delete;

    /// Stores the proxy configuration and announces this client to the proxy.
    virtual void RegisterWithAuthenticationProxy(CAuthenticationProxyConfiguration configuration);
    /// Withdraws the client named in configuration from its proxy.
    virtual CAuthenticationProxyResult
    UnregisterFromAuthenticationProxy(CAuthenticationProxyConfiguration configuration);
    /// Fixes the service address and the way of authenticating; must come before the rest.
    virtual TestConnectionResult TestConnection(CString serverUrl);
    /// Non-zero when the user may import tables of tableClass.
    virtual int IsAuthorized(CString tableClass);
    /// Creates the table; (201, table id) on success, otherwise (status, "").
    virtual std::tuple<int, CString> CreateTable(CString tableName, CString tableClass,
                                                 CString tableDescription, int overwrite,
                                                 int recordCount);
    /// Sends the definitions of all attributes in one request; 1 when accepted.
    virtual int CreateAttributeDefinitions(CString tableId,
                                           CList<DesktopAttributeDTO*>* attributes);
    /// Opens the distinct-value phase of one attribute; 1 when accepted.
    virtual int BeginDistinctValues(CString table, CString attribute);
    /// Closes the distinct-value phase of one attribute; 1 when accepted.
    virtual int EndDistinctValues(CString table, CString attribute);
    /// Uploads the distinct values [first, last) of one attribute; 1 when accepted.
    virtual int ImportDistinctValuesChunk(CString table, CString attribute, long first, long last,
                                          CDistinctValues* values, int copyMode);
    /// Opens the value-id phase of every attribute, stopping at the first refusal.
    virtual int BeginImportValueIds(CString table, CList<CRepoAttribute*>* attributes);
    /// Closes the value-id phase of every attribute, stopping at the first refusal.
    virtual int EndImportValueIds(CString table, CList<CRepoAttribute*>* attributes);
    /// Uploads the value ids of rows [first, last) of every attribute; 1 when all accepted.
    virtual int ImportValueIdsChunk(CString table, long first, long last,
                                    CList<CRepoAttribute*>* attributes, int reserved);
    /// Ends the import of the table; 1 when accepted.
    virtual int EndImport(CString table);

private:
    int BeginValueIds(std::wstring serviceAddress, CString table, CString attribute);
    int EndValueIds(std::wstring serviceAddress, CString table, CString attribute);
    int End(std::wstring serviceAddress, CString table);

    std::wstring serverBaseUri;
    AuthenticationSettings* authenticationSettings;
    CAuthenticationProxyConfiguration proxyConfiguration;
};

/// Creates a client object (the same routine as CTableRepositoryImport::CreateObject); null when
/// memory runs out.
extern "C" TRI_API CObject* new_TableRepositoryImport();
