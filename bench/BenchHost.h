// What the benchmarks share as a host: a client pointed at the sink, and an attribute record
// around any reader of value ids.
#pragma once

#include "DiscardingServer.h"

#include "TableRepositoryImport.h"

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

// A client whose connection test against the sink fixed the sink's address; requests to the
// loopback address then go out plain, as a host's would to a local service.
inline std::unique_ptr<CTableRepositoryImport> ClientOfSink(const DiscardingServer& sink) {
    std::unique_ptr<CTableRepositoryImport> client(
        static_cast<CTableRepositoryImport*>(new_TableRepositoryImport()));
    const CString url(sink.BaseUrl().c_str());
    CAuthenticationProxyConfiguration proxy;
    proxy.proxyBaseUri = url;
    proxy.registrationPath = L"/register";
    proxy.clientName = L"bench";
    client->RegisterWithAuthenticationProxy(proxy);
    if (client->TestConnection(url).status != VersionNotSupported) {
        throw std::runtime_error("the sink did not fix the service address");
    }
    return client;
}

// Attribute k, named "column k", whose ids come from Ids.
template <class Ids> class BenchColumn : public CRepoAttribute {
public:
    template <class... Args>
    explicit BenchColumn(int k, Args&&... args)
        : m_name(("column " + std::to_string(k)).c_str()), m_ids(std::forward<Args>(args)...) {}
    CString GetName() override { return m_name; }
    int GetType() override { return 0; }
    CDistinctValues* GetDistinctValues() override { return nullptr; }
    CValueIds* GetValueIds() override { return &m_ids; }

private:
    CString m_name;
    Ids m_ids;
};
