#pragma once

#include <cpprest/http_client.h>

#include <vector>

class NtlmSecurityContext;

/// Authenticates request as the current user with NTLM in two legs on client: a negotiate leg
/// (waited on here) and the final leg carrying the request's answer to the server's challenge,
/// whose task is returned without waiting. request must already carry its body.
/// Throws CResourceException* when the security context fails, std::out_of_range ("invalid
/// string position") when the negotiate leg brings no challenge, cpprestsdk's exceptions when
/// the negotiate leg fails in transport or the challenge is not base64.
pplx::task<web::http::http_response> RunNtlmHandshake(web::http::client::http_client& client,
                                                      web::http::http_request& request);

/// The same handshake with a security context the caller made (the Windows build's tests give
/// it an explicit account).
pplx::task<web::http::http_response> RunNtlmHandshake(web::http::client::http_client& client,
                                                      web::http::http_request& request,
                                                      NtlmSecurityContext& context);

/// The final leg's token: context's answer to the challenge in a WWW-Authenticate value, "NTLM "
/// (only its length is checked) followed by the server's CHALLENGE in base64. context must have
/// made its NEGOTIATE message. Throws std::out_of_range ("invalid string position") for a value
/// shorter than the prefix, std::runtime_error from cpprestsdk's base64 decoder for text that is
/// not base64, CResourceException* when the context rejects the challenge.
std::vector<unsigned char> AnswerNtlmChallenge(NtlmSecurityContext& context,
                                               const utility::string_t& challengeText);
