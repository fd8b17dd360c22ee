// TLS for lxrepo-server, both ways: the certificate it serves, and whom it trusts when it calls
// out over https (the proxy's forwards, token introspection, the identity pass-through).
#pragma once

#include <boost/asio/ssl/context.hpp>

#include <memory>
#include <string>

namespace lxrepo {

// A server context with the PEM certificate chain and key; TLS 1.2 or newer. Throws
// std::runtime_error naming the file that could not be used.
std::shared_ptr<boost::asio::ssl::context> ServerTlsContext(const std::string& certificateFile,
                                                            const std::string& keyFile);

// Outgoing https trusts the PEM certificates of caFile, or with "" OpenSSL's default store (its
// own SSL_CERT_FILE and SSL_CERT_DIR settings included). Set once at start, before serving.
void TrustForOutgoing(const std::string& caFile);

// The context an outgoing https connection verifies its peer with; held for the connection's
// life, so a later TrustForOutgoing leaves connections in flight as they are.
std::shared_ptr<boost::asio::ssl::context> OutgoingTlsContext();

} // namespace lxrepo
