#include "TableRepositoryImport.h"

#include "client/PlainException.h"
#include "client/ServiceRequest.h"
#include "client/TextConversion.h"

namespace {

web::json::value TableBody(const CString& tableName, const CString& tableClass,
                           const CString& tableDescription, int overwrite, int recordCount) {
    web::json::value body = web::json::value::object();
    body[U("tableName")] = web::json::value::string(ToStringT(tableName));
    body[U("tableClass")] = web::json::value::string(ToStringT(tableClass));
    body[U("tableDescription")] = web::json::value::string(ToStringT(tableDescription));
    // Only exactly 1 asks for an overwrite; other non-zero values never did.
    body[U("tableOverwrite")] = web::json::value::boolean(overwrite == 1);
    body[U("recordCount")] = web::json::value::number(recordCount);
    return body;
}

} // namespace

std::tuple<int, CString> CTableRepositoryImport::CreateTable(CString tableName, CString tableClass,
                                                             CString tableDescription,
                                                             int overwrite, int recordCount) {
    try {
        const web::json::value body =
            TableBody(tableName, tableClass, tableDescription, overwrite, recordCount);
        const ServiceAddress address(serverBaseUri, U("/Import/Tables"));
        const web::http::http_response response =
            PostToService(*authenticationSettings, address.ToString(), body);
        const int status = response.status_code();
        if (status != web::http::status_codes::Created) {
            return {status, CString()};
        }
        const web::json::value answer = response.extract_json().get();
        return {status, ToCString(answer.at(U("tableID")).as_string())};
    } catch (const std::exception& e) {
        ThrowPlainException(e);
    }
}
