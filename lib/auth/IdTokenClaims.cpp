#include "auth/IdTokenClaims.h"
#include "auth/IdentityServerCalls.h"

#include <cpprest/asyncrt_utils.h>
#include <cpprest/json.h>

#include <algorithm>
#include <chrono>
#include <vector>

namespace {

// The user's computer and the identity server may disagree on the time by this much.
constexpr double kClockSkewSeconds = 300;

// The claims are the JSON object in the second of the token's three base64url parts (RFC 7519
// section 7.2); cpprestsdk decodes only padded base64 of the standard alphabet.
web::json::value Claims(const utility::string_t& idToken) {
    const auto begin = idToken.find(U('.'));
    const auto end = begin == idToken.npos ? begin : idToken.find(U('.'), begin + 1);
    if (end != idToken.npos) {
        utility::string_t base64 = idToken.substr(begin + 1, end - begin - 1);
        std::replace(base64.begin(), base64.end(), U('-'), U('+'));
        std::replace(base64.begin(), base64.end(), U('_'), U('/'));
        base64.append((4 - base64.size() % 4) % 4, U('='));
        try {
            const std::vector<unsigned char> json = utility::conversions::from_base64(base64);
            std::error_code notJson;
            auto claims = web::json::value::parse(
                utility::conversions::to_string_t(std::string(json.begin(), json.end())), notJson);
            if (claims.is_object()) {
                return claims;
            }
        } catch (const std::exception&) {
            // Not base64, or not UTF-8: unreadable all the same.
        }
    }
    throw IdentityServerRefusal(L"The identity server's ID token cannot be read.");
}

bool TextClaimIs(const web::json::value& claims, const utility::char_t* name,
                 const utility::string_t& expected) {
    return claims.has_string_field(name) && claims.at(name).as_string() == expected;
}

// "aud" is the one audience's text or a list of them (RFC 7519 section 4.1.3).
bool NamesAudience(const web::json::value& claims, const utility::string_t& clientId) {
    if (claims.has_array_field(U("aud"))) {
        const auto& audiences = claims.at(U("aud")).as_array();
        return std::any_of(audiences.begin(), audiences.end(), [&](const web::json::value& aud) {
            return aud.is_string() && aud.as_string() == clientId;
        });
    }
    return TextClaimIs(claims, U("aud"), clientId);
}

bool Unexpired(const web::json::value& claims) {
    const double now =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    return claims.has_number_field(U("exp")) &&
           claims.at(U("exp")).as_double() + kClockSkewSeconds > now;
}

void Require(bool holds, const wchar_t* sentence) {
    if (!holds) {
        throw IdentityServerRefusal(sentence);
    }
}

} // namespace

// The signature is not checked: the token came straight from the token endpoint that discovery
// named, in the answer to this login's own request, so it is as trustworthy as the connection
// that carried it (OpenID Connect Core 1.0 section 3.1.3.7, point 6; AppAuth does the same).
void CheckIdTokenClaims(const utility::string_t& idToken, const IdTokenExpectations& expected) {
    using utility::conversions::to_string_t;
    const web::json::value claims = Claims(idToken);
    Require(TextClaimIs(claims, U("iss"), expected.issuer),
            L"The identity server's ID token was issued by another identity server (iss "
            L"mismatch).");
    Require(NamesAudience(claims, to_string_t(expected.clientId)),
            L"The identity server's ID token was issued for another application (aud mismatch).");
    Require(Unexpired(claims),
            L"The identity server's ID token has expired (exp); check the computer's clock.");
    Require(TextClaimIs(claims, U("nonce"), to_string_t(expected.nonce)),
            L"The identity server's ID token was issued for another login (nonce mismatch).");
}
