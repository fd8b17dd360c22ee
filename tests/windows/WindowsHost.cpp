// A host program for the Windows build's tests under Wine (WineTest.cpp): the public header only,
// the library loaded as a DLL.
//   import PROXY SERVICE TABLE STATUS  the whole import of the generated table, the connection
//                                      test answering STATUS, then unregistering; prints the
//                                      first call that failed
//   flatten PROXY SERVICE              the operations that flatten their failures, failing: the
//                                      service answers malformed JSON, a definition holds text
//                                      that cannot become UTF-8, the host's reader throws;
//                                      prints what the host catches of each
#include "TableRepositoryImport.h"
#include "e2e/HostImport.h"

#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

using namespace e2e;

namespace {

void PrintCaught(const char* operation, const std::function<void()>& run) {
    try {
        run();
        std::printf("%s: nothing thrown\n", operation);
    } catch (const std::exception& e) { // plain: of no subclass a host could tell apart
        const bool derived = dynamic_cast<const std::runtime_error*>(&e) ||
                             dynamic_cast<const std::logic_error*>(&e);
        std::printf("%s: %s %s\n", operation, derived ? "derived" : "plain", e.what());
    }
}

} // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    if (args.size() == 5 && args[0] == "import") {
        // The client name the end-to-end deployment asks its proxy about.
        const Endpoint endpoint{
            testsupport::ProxyConfiguration(args[1], "Desk \xC3\xBC 7", args[2]), args[2],
            std::stoi(args[4])};
        const Imported imported = ImportThroughLibrary(endpoint, GenerateTable(args[3]));
        imported.client->UnregisterFromAuthenticationProxy(endpoint.proxy);
        std::printf("failure: %s%ls\n", imported.failure.c_str(),
                    imported.connection.errorText.GetString());
        return imported.failure.empty() ? 0 : 1;
    }
    if (args.size() == 3 && args[0] == "flatten") {
        CTableRepositoryImport client;
        client.RegisterWithAuthenticationProxy(
            testsupport::ProxyConfiguration(args[1], "wine host", args[2]));
        client.TestConnection(testsupport::Wide(args[2]));
        testsupport::HostTable table({{"a", {"x"}, {0}}});
        table.log.failOn = "GetValueId(a,0)";
        testsupport::HostDefinitions definitions;
        definitions.Add(L"a").Format = CString(L"x\xD800", 2); // a high surrogate alone
        PrintCaught("CreateTable", [&] { client.CreateTable(L"t", L"c", L"d", 0, 1); });
        PrintCaught("CreateAttributeDefinitions",
                    [&] { client.CreateAttributeDefinitions(L"t", definitions.List()); });
        PrintCaught("ImportValueIdsChunk",
                    [&] { client.ImportValueIdsChunk(L"t", 0, 1, table.Attributes(), 0); });
        return 0;
    }
    std::fprintf(stderr, "usage: windows_host import|flatten PROXY SERVICE [TABLE STATUS]\n");
    return 2;
}
