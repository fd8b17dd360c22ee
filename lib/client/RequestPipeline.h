#pragma once

#include "client/AuthenticationSettings.h"
#include "client/JsonText.h"

#include <cpprest/http_client.h>
#include <cpprest/json.h>

// Sends request through client with body attached, authenticated by whatever the connection test
// left in settings: a bearer token, the authentication proxy, or Windows logon (NTLM; no
// authentication at all for a service on this machine). Returns the response's task without
// waiting on it; only the NTLM negotiate leg is waited on inside. A body equal to the JSON number
// 0 means "no body".
pplx::task<web::http::http_response> ExecuteRequest(const AuthenticationSettings& settings,
                                                    web::http::client::http_client& client,
                                                    web::http::http_request& request,
                                                    const web::json::value& body);
// The same with the body already written as JSON text, sent as it stands; the text "0" (what the
// number 0 serialises to) means "no body" here too.
pplx::task<web::http::http_response> ExecuteRequest(const AuthenticationSettings& settings,
                                                    web::http::client::http_client& client,
                                                    web::http::http_request& request,
                                                    JsonText body);
