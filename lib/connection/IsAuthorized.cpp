#include "TableRepositoryImport.h"

#include "client/ServiceRequest.h"
#include "client/TextConversion.h"

int CTableRepositoryImport::IsAuthorized(CString tableClass) {
    web::json::value body;
    body[U("tableClass")] = web::json::value::string(ToStringT(tableClass));
    const ServiceAddress address(serverBaseUri, U("/Import/Authorization"));
    return AcceptOnly(PostToService(*authenticationSettings, address.ToString(), body),
                      web::http::status_codes::OK);
}
