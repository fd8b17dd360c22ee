#pragma once

#include "client/AuthenticationSettings.h"
#include "client/JsonText.h"
#include "host/Framework.h"

#include <cpprest/http_client.h>
#include <cpprest/json.h>

#include <string>

// The address of one service endpoint: the service address with its path replaced by a fixed
// endpoint path (scheme, user information, host, port, query and fragment stay), then further
// segments, names from the host percent-encoded and the protocol's own words as they stand.
class ServiceAddress {
public:
    ServiceAddress(const std::wstring& serviceAddress, const utility::string_t& endpointPath);

    ServiceAddress& AppendName(const CString& name);
    ServiceAddress& AppendWord(const utility::string_t& word);
    utility::string_t ToString() const { return m_builder.to_string(); }

private:
    web::uri_builder m_builder;
};

// POSTs body to address through the request pipeline with a client of its own, and waits for the
// answer. Failures below the status code arrive as exceptions.
web::http::http_response PostToService(const AuthenticationSettings& settings,
                                       const utility::string_t& address,
                                       const web::json::value& body);
web::http::http_response PostToService(const AuthenticationSettings& settings,
                                       const utility::string_t& address, JsonText body);

// The operations accept exactly one status, never a range.
inline int AcceptOnly(const web::http::http_response& response, web::http::status_code accepted) {
    return response.status_code() == accepted ? 1 : 0;
}
