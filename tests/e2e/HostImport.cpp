#include "e2e/HostImport.h"

#include <algorithm>

namespace e2e {

namespace {

constexpr long kChunk = 4; // rows or distinct values per request

using testsupport::Wide;

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

Imported ImportThroughLibrary(const Endpoint& endpoint, const Table& table, bool end) {
    Imported result;
    result.client.reset(dynamic_cast<CTableRepositoryImport*>(new_TableRepositoryImport()));
    CTableRepositoryImport& client = *result.client;
    testsupport::HostTable host(table.columns);
    testsupport::HostDefinitions definitions;
    for (const auto& column : table.columns) {
        definitions.Add(Wide(column.name)).Type = column.type;
    }
    result.failure = [&]() -> std::string {
        client.RegisterWithAuthenticationProxy(endpoint.proxy);
        result.connection = client.TestConnection(Wide(endpoint.serviceUrl));
        if (result.connection.status != endpoint.connectionStatus) {
            return "TestConnection: " + std::to_string(result.connection.status);
        }
        if (client.IsAuthorized(Wide(table.tableClass)) != 1) {
            return "IsAuthorized";
        }
        auto [status, id] = client.CreateTable(Wide(table.name), Wide(table.tableClass),
                                               Wide(table.description), 0, table.rows);
        result.id = id;
        if (status != 201) {
            return "CreateTable: " + std::to_string(status);
        }
        if (client.CreateAttributeDefinitions(id, definitions.List()) != 1) {
            return "CreateAttributeDefinitions";
        }
        for (std::size_t c = 0; c < table.columns.size(); ++c) {
            const CString name = Wide(table.columns[c].name);
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

} // namespace e2e
