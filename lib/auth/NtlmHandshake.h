#pragma once

#include <cpprest/http_client.h>

/// Authenticates request as the current user with NTLM in two legs on client: a negotiate leg
/// (waited on here) and the final leg carrying the request's answer to the server's challenge,
/// whose task is returned without waiting. request must already carry its body.
/// Throws CResourceException* when the security context fails, std::out_of_range ("invalid
/// string position") when the negotiate leg brings no challenge, cpprestsdk's exceptions when
/// the negotiate leg fails in transport.
pplx::task<web::http::http_response> RunNtlmHandshake(web::http::client::http_client& client,
                                                      web::http::http_request& request);
