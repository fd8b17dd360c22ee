#include "Tls.h"

#include <mutex>
#include <stdexcept>

namespace lxrepo {

namespace ssl = boost::asio::ssl;

namespace {

// No SSLv2/3, TLS 1.0 or 1.1: what every current client offers is enough.
constexpr auto kOptions = ssl::context::default_workarounds | ssl::context::no_sslv2 |
                          ssl::context::no_sslv3 | ssl::context::no_tlsv1 |
                          ssl::context::no_tlsv1_1 | ssl::context::single_dh_use;

std::shared_ptr<ssl::context> ClientContext(const std::string& caFile) {
    auto context = std::make_shared<ssl::context>(ssl::context::tls_client);
    context->set_options(kOptions);
    context->set_verify_mode(ssl::verify_peer);
    boost::system::error_code ec;
    if (caFile.empty()) {
        context->set_default_verify_paths(ec);
    } else {
        context->load_verify_file(caFile, ec);
    }
    if (ec) {
        throw std::runtime_error("cannot load the trusted certificates " +
                                 (caFile.empty() ? std::string("of the system") : caFile) + ": " +
                                 ec.message());
    }
    return context;
}

std::mutex trustMutex;
std::shared_ptr<ssl::context> outgoing;

} // namespace

std::shared_ptr<ssl::context> ServerTlsContext(const std::string& certificateFile,
                                               const std::string& keyFile) {
    auto context = std::make_shared<ssl::context>(ssl::context::tls_server);
    context->set_options(kOptions);
    boost::system::error_code ec;
    context->use_certificate_chain_file(certificateFile, ec);
    if (ec) {
        throw std::runtime_error("cannot use the certificate " + certificateFile + ": " +
                                 ec.message());
    }
    context->use_private_key_file(keyFile, ssl::context::pem, ec);
    if (ec) {
        throw std::runtime_error("cannot use the key " + keyFile + ": " + ec.message());
    }
    return context;
}

void TrustForOutgoing(const std::string& caFile) {
    auto context = ClientContext(caFile);
    std::lock_guard<std::mutex> lock(trustMutex);
    outgoing = std::move(context);
}

std::shared_ptr<ssl::context> OutgoingTlsContext() {
    std::lock_guard<std::mutex> lock(trustMutex);
    if (!outgoing) {
        outgoing = ClientContext("");
    }
    return outgoing;
}

} // namespace lxrepo
