#include "client/ServiceRequest.h"

#include "client/RequestPipeline.h"
#include "client/TextConversion.h"

#include <utility>

ServiceAddress::ServiceAddress(const std::wstring& serviceAddress,
                               const utility::string_t& endpointPath)
    : m_builder(web::uri(ToStringT(serviceAddress))) {
    m_builder.set_path(endpointPath);
}

ServiceAddress& ServiceAddress::AppendName(const CString& name) {
    m_builder.append_path(ToStringT(name), true);
    return *this;
}

ServiceAddress& ServiceAddress::AppendWord(const utility::string_t& word) {
    m_builder.append_path(word);
    return *this;
}

web::http::http_response PostToService(const AuthenticationSettings& settings,
                                       const utility::string_t& address,
                                       const web::json::value& body) {
    web::http::client::http_client client{web::uri(address)};
    web::http::http_request request(web::http::methods::POST);
    return ExecuteRequest(settings, client, request, body).get();
}

web::http::http_response PostToService(const AuthenticationSettings& settings,
                                       const utility::string_t& address, JsonText body) {
    web::http::client::http_client client{web::uri(address)};
    web::http::http_request request(web::http::methods::POST);
    return ExecuteRequest(settings, client, request, std::move(body)).get();
}
