#include "TableRepositoryImport.h"

#include "client/ServiceRequest.h"
#include "values/ValueImport.h"

// The import's phase commands: a POST of the JSON text null to a path under /Import/Tables whose
// last segment names the command, accepted only with 200.

namespace {

int SendImportCommand(const AuthenticationSettings& settings, ServiceAddress& address) {
    return AcceptOnly(PostToService(settings, address.ToString(), web::json::value::null()),
                      web::http::status_codes::OK);
}

} // namespace

int CTableRepositoryImport::BeginDistinctValues(CString table, CString attribute) {
    ServiceAddress address = AttributeAddress(serverBaseUri, table, U("DistinctValues"), attribute);
    return SendImportCommand(*authenticationSettings, address.AppendWord(U("Begin")));
}

int CTableRepositoryImport::EndDistinctValues(CString table, CString attribute) {
    ServiceAddress address = AttributeAddress(serverBaseUri, table, U("DistinctValues"), attribute);
    return SendImportCommand(*authenticationSettings, address.AppendWord(U("End")));
}

int CTableRepositoryImport::BeginValueIds(std::wstring serviceAddress, CString table,
                                          CString attribute) {
    ServiceAddress address = AttributeAddress(serviceAddress, table, U("ValueIds"), attribute);
    return SendImportCommand(*authenticationSettings, address.AppendWord(U("Begin")));
}

int CTableRepositoryImport::EndValueIds(std::wstring serviceAddress, CString table,
                                        CString attribute) {
    ServiceAddress address = AttributeAddress(serviceAddress, table, U("ValueIds"), attribute);
    return SendImportCommand(*authenticationSettings, address.AppendWord(U("End")));
}

int CTableRepositoryImport::End(std::wstring serviceAddress, CString table) {
    ServiceAddress address(serviceAddress, U("/Import/Tables"));
    address.AppendName(table).AppendWord(U("End"));
    return SendImportCommand(*authenticationSettings, address);
}

// Phases already opened stay open when a later attribute is refused; the service decides what an
// incomplete import means.
int CTableRepositoryImport::BeginImportValueIds(CString table, CList<CRepoAttribute*>* attributes) {
    return UntilRefused(attributes, [&](CRepoAttribute* attribute) {
        return BeginValueIds(serverBaseUri, table, attribute->GetName());
    });
}

int CTableRepositoryImport::EndImportValueIds(CString table, CList<CRepoAttribute*>* attributes) {
    return UntilRefused(attributes, [&](CRepoAttribute* attribute) {
        return EndValueIds(serverBaseUri, table, attribute->GetName());
    });
}

int CTableRepositoryImport::EndImport(CString table) {
    return End(serverBaseUri, table) != 0 ? 1 : 0;
}
