// A client object created through the exported factory and connected by a real connection test,
// so that operation tests drive the public API exactly as a host does.
#pragma once

#include "support/HostRecords.h"
#include "support/RecordingServer.h"

#include <memory>
#include <stdexcept>
#include <string>

namespace testsupport {

// How the connection test leaves the client.
enum class ConnectedBy {
    // The proxy reports a version that is neither proxy-served nor a "2" version: the test ends
    // with VersionNotSupported but has fixed the service address, and requests to a loopback
    // service go out plain.
    Plain,
    // The proxy reports a proxy-served version and accepts the connect call: every request is
    // forwarded through the proxy.
    Proxy,
};

class ConnectedClient {
public:
    ConnectedClient(const std::string& serviceUrl, ConnectedBy by = ConnectedBy::Plain)
        : m_client(static_cast<CTableRepositoryImport*>(new_TableRepositoryImport())) {
        m_client->RegisterWithAuthenticationProxy(
            ProxyConfiguration(m_proxy.BaseUrl(), "test-client", ""));
        const std::string version = by == ConnectedBy::Proxy ? "1.0.0-lxproxy-2.1" : "1.0.0";
        const std::string body = "{\"version\":\"" + version + "\"}";
        m_proxy.Enqueue({200, {{"Content-Type", "application/json"}}, body, false, {}});
        const int status = m_client->TestConnection(Wide(serviceUrl)).status;
        if (status != (by == ConnectedBy::Proxy ? Connected : VersionNotSupported)) {
            throw std::runtime_error("connection test ended with status " + std::to_string(status));
        }
        m_proxy.Clear();
    }

    CTableRepositoryImport* operator->() const { return m_client.get(); }
    CTableRepositoryImport& operator*() const { return *m_client; }
    // The proxy server, for tests of the proxy path; its recorded requests start empty.
    RecordingServer& Proxy() { return m_proxy; }

private:
    RecordingServer m_proxy;
    std::unique_ptr<CTableRepositoryImport> m_client;
};

} // namespace testsupport
