#include "TableRepositoryImport.h"

#include "client/PlainException.h"
#include "client/ServiceRequest.h"
#include "definitions/AttributeDefinitionsJson.h"

#include <utility>

int CTableRepositoryImport::CreateAttributeDefinitions(CString tableId,
                                                       CList<DesktopAttributeDTO*>* attributes) {
    try {
        // All attributes travel in this one request, however many there are.
        JsonText body = WriteAttributeDefinitionsJson(attributes);
        ServiceAddress address(serverBaseUri, U("/Import/Tables"));
        address.AppendName(tableId).AppendWord(U("Attributes"));
        // Unlike the table itself (201), the definitions count as accepted only with 200.
        return AcceptOnly(PostToService(*authenticationSettings, address.ToString(), std::move(body)),
                          web::http::status_codes::OK);
    } catch (const std::exception& e) {
        ThrowPlainException(e);
    }
}
