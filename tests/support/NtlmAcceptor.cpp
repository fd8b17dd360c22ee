#include "support/NtlmAcceptor.h"

#include "Base64.h"
// Angle brackets: the quoted name would find this directory's header of the same name first.
#include <NtlmAcceptor.h>

namespace testsupport {

NtlmAcceptor::NtlmAcceptor(const std::string& userFile, const std::string& serviceHost)
    : acceptor_(std::make_unique<lxrepo::NtlmAcceptor>(userFile, serviceHost)) {}

NtlmAcceptor::~NtlmAcceptor() = default;

RecordingServer::Handler NtlmAcceptor::Handler() {
    return [this](const RecordedRequest& recorded, ConnectionContext& connection) {
        lxrepo::Request request(lxrepo::http::verb::post, recorded.target, 11);
        const std::string authorization = recorded.HeaderValue("Authorization").value_or("");
        request.set(lxrepo::http::field::authorization, authorization);
        const lxrepo::Authentication outcome = acceptor_->Authenticate(request, connection);

        ScriptedResponse response{200, {}, "authenticated", false, {}};
        if (outcome.challenge) {
            response = {static_cast<int>(outcome.challenge->result_int()),
                        {},
                        outcome.challenge->body(),
                        false,
                        {}};
            for (const auto& field : *outcome.challenge) {
                if (field.name() == lxrepo::http::field::www_authenticate) {
                    response.headers.push_back({"WWW-Authenticate", std::string(field.value())});
                }
            }
        }
        const auto token = authorization.rfind("NTLM ", 0) == 0
                               ? lxrepo::DecodeBase64(authorization.substr(5))
                               : std::nullopt;
        const int message = token && token->size() > 8 ? (*token)[8] : 0;
        std::lock_guard<std::mutex> lock(mutex_);
        legs_.push_back({connection.id, message, response.status});
        if (outcome.user) {
            users_.push_back(*outcome.user);
        }
        return response;
    };
}

std::vector<NtlmAcceptor::Leg> NtlmAcceptor::Legs() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return legs_;
}

std::vector<std::string> NtlmAcceptor::AuthenticatedUsers() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return users_;
}

} // namespace testsupport
