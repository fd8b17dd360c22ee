// GoogleTest comes first: cpprestsdk's function-like macro U() breaks its templates.
#include <gtest/gtest.h>

#include "e2e/Deployment.h"

#include "support/ConnectedClient.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include <unistd.h>

namespace e2e {

using namespace servertest;

namespace {

constexpr long kChunk = 4; // rows or distinct values per request

const char kClientName[] = "Desk \xC3\xBC 7";

// The current user's NTLM credentials, which the library's handshake (and a proxy without
// credentials of its own) uses, come from gss-ntlmssp's user file named by NTLM_USER_FILE; it
// is read at the process's first GSSAPI call, and parallel test processes must not share it.
const bool kDefaultNtlmUser = [] {
    const std::string path =
        ::testing::TempDir() + "e2e-" + std::to_string(getpid()) + "-client.users";
    WriteNtlmUsers(path); // alice first
    return setenv("NTLM_USER_FILE", path.c_str(), 1) == 0;
}();

} // namespace

Table GenerateTable(const std::string& name, int variant) {
    Table table{
        name,
        {{"Kunde, \xC3\xB6rtlich",
          {"M\xC3\xBCller, \"Max\"", "\xE6\x9D\xB1\xE4\xBA\xAC", "clef \xF0\x9D\x84\x9E", "",
           " leading and trailing ", "line\nbreak\tand tab", "back\\slash 'single' %41 & +"},
          {},
          1},
         {"Quantity", {"-500", "5\xE2\x80\x89kg", "007", "2147483647"}, {}, 3},
         {"Price in \xE2\x82\xAC (%)", {"-13.07", "0.50", "1e3"}, {}, 4},
         {"Order date", {"2024-02-29", "1999-12-31"}, {}, 7}}};
    for (std::size_t c = 0; c < table.columns.size(); ++c) {
        auto& column = table.columns[c];
        // Every value, and a missing one every seventh row, shifted per column.
        for (int row = 0; row < table.rows; ++row) {
            column.ids.push_back((row + c + variant) % 7 == 0
                                     ? -1
                                     : (row + variant) % static_cast<int>(column.values.size()));
        }
    }
    return table;
}

std::vector<Row> ExpectedRows(const Table& table) {
    std::vector<Row> rows(static_cast<std::size_t>(table.rows));
    for (std::size_t row = 0; row < rows.size(); ++row) {
        for (const auto& column : table.columns) {
            const int id = column.ids[row];
            rows[row].push_back(id < 0 ? std::nullopt
                                       : std::optional<std::string>(column.values[id]));
        }
    }
    return rows;
}

Imported ImportThroughLibrary(const Endpoint& endpoint, const Table& table, bool end) {
    Imported result;
    result.client.reset(dynamic_cast<CTableRepositoryImport*>(new_TableRepositoryImport()));
    CTableRepositoryImport& client = *result.client;
    testsupport::HostTable host(table.columns);
    testsupport::HostDefinitions definitions;
    for (const auto& column : table.columns) {
        definitions.Add(ToCString(column.name)).Type = column.type;
    }
    result.failure = [&]() -> std::string {
        client.RegisterWithAuthenticationProxy(endpoint.proxy);
        result.connection = client.TestConnection(ToCString(endpoint.serviceUrl));
        if (result.connection.status != endpoint.connectionStatus) {
            return "TestConnection: " + std::to_string(result.connection.status) + " " +
                   ToStringT(result.connection.errorText);
        }
        if (client.IsAuthorized(ToCString(table.tableClass)) != 1) {
            return "IsAuthorized";
        }
        auto [status, id] = client.CreateTable(ToCString(table.name), ToCString(table.tableClass),
                                               ToCString(table.description), 0, table.rows);
        result.id = ToStringT(id);
        if (status != 201) {
            return "CreateTable: " + std::to_string(status);
        }
        if (client.CreateAttributeDefinitions(id, definitions.List()) != 1) {
            return "CreateAttributeDefinitions";
        }
        for (std::size_t c = 0; c < table.columns.size(); ++c) {
            const CString name = ToCString(table.columns[c].name);
            const auto count = static_cast<long>(table.columns[c].values.size());
            bool ok = client.BeginDistinctValues(id, name) == 1;
            // The texts are read by pointer for two columns and copied for the others.
            for (long first = 0; ok && first < count; first += kChunk) {
                ok = client.ImportDistinctValuesChunk(
                         id, name, first, std::min(count, first + kChunk), host.DistinctValues(c),
                         c % 2 == 0 ? 1 : 0) == 1;
            }
            if (!ok || client.EndDistinctValues(id, name) != 1) {
                return "distinct values of " + table.columns[c].name;
            }
        }
        const long rows = table.rows;
        bool ok = client.BeginImportValueIds(id, host.Attributes()) == 1;
        for (long first = 0; ok && first < rows; first += kChunk) {
            ok = client.ImportValueIdsChunk(id, first, std::min(rows, first + kChunk),
                                            host.Attributes(), 0) == 1;
        }
        if (!ok || client.EndImportValueIds(id, host.Attributes()) != 1) {
            return "value ids";
        }
        return !end || client.EndImport(id) == 1 ? "" : "EndImport";
    }();
    return result;
}

Endpoint NtlmSelfProxy(unsigned short port) {
    const std::string url = std::string("http://") + kNtlmServiceHost + ":" + std::to_string(port);
    return {testsupport::ProxyConfiguration(url, kClientName, url, 0), url, Connected};
}

bool Deployment::Available(Way way) {
    return way != Way::Login || (std::string(E2E_NODE).find("NOTFOUND") == std::string::npos &&
                                 std::filesystem::exists(E2E_OIDC_PROVIDER_ENTRY));
}

Deployment::Deployment(Way way, const std::string& database,
                       const std::vector<std::string>& classes) {
    auto service = DefaultOptions(database, lxrepo::Role::Service);
    auto proxy = DefaultOptions(files_.File("proxy.sqlite"), lxrepo::Role::Proxy);
    if (way == Way::Login) {
        // The provider's issuer is the service's /identity, so the service's port comes first.
        service.http.port = testsupport::FreePort();
        const std::string serviceUrl = "http://127.0.0.1:" + std::to_string(service.http.port);
        provider_ = std::make_unique<testsupport::ChildProcess>(
            std::vector<std::string>{E2E_NODE, E2E_LOGIN_PROVIDER, "0", serviceUrl + "/identity"});
        const std::string providerUrl =
            "http://127.0.0.1:" + std::to_string(provider_->Port()) + "/identity";
        service.auth = lxrepo::AuthKind::Bearer;
        service.introspection = {providerUrl + "/token/introspection", "lxrepo-service",
                                 "service-secret-for-introspection"};
        service.identityUpstream = providerUrl;
        service.trustedProxies = {"lxrepo-proxy"};
        proxy.proxyOAuth = {serviceUrl + "/identity/token", "lxrepo-proxy",
                            "proxy-secret-for-tokens", "", ""};
        // A major version 2 tells the library to log in and talk to the service itself.
        proxy.proxy.version = "2.0.0";
        importedBy = client = "alice";
        // A login that goes wrong shows in the connection test.
        browser_ = std::make_unique<testsupport::LaunchedBrowser>(
            [](const std::string& url) { testsupport::TestBrowser("allow").Visit(url); });
        TableRepositorySetBrowserLauncher(&testsupport::LaunchedBrowser::Launch, browser_.get());
        TableRepositorySetLoginTimeout(20000);
    } else {
        WriteNtlmUsers(files_.File("service.users"));
        service.http.address = kNtlmServiceHost;
        service.auth = lxrepo::AuthKind::Ntlm;
        service.ntlmUsersFile = files_.File("service.users");
        service.trustedProxies = {"TESTDOM\\proxy"};
        proxy.proxy.ntlmCredentials = kProxyAccount;
        if (way == Way::Proxy) {
            importedBy = "TESTDOM\\proxy";
            client = kClientName;
        } else {
            // Neither served by the proxy nor major version 2: the connection test gives up
            // with "version not supported", but has fixed the service address, and every later
            // call goes straight to the service with the library's own NTLM handshake.
            proxy.proxy.version = "1.0.0";
        }
    }
    service.allowedClasses = classes;
    service_ = std::make_unique<RunningServer>(service);
    proxy.proxy.allowedServers = {service_->Url()};
    proxyServer = std::make_unique<RunningServer>(proxy);
    host = {testsupport::ProxyConfiguration(proxyServer->Url(), kClientName, service_->Url(),
                                            provider_ ? 1 : 0),
            service_->Url(), way == Way::Ntlm ? VersionNotSupported : Connected};
}

Deployment::~Deployment() {
    if (browser_) {
        TableRepositorySetBrowserLauncher(nullptr, nullptr);
        TableRepositorySetLoginTimeout(0);
    }
}

int Deployment::ProxyConnectStatus() const {
    const Fields query = {{"lxclient", kClientName},
                          {"lxserver", host.serviceUrl},
                          {"lxauth", provider_ ? "oauth" : "windows"}};
    return Send(proxyServer->Url(), WithQuery("/connect", query)).status;
}

} // namespace e2e
