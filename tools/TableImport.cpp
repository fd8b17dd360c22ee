#include "TableImport.h"

#include "CsvHostRecords.h"
#include "CsvReader.h"
#include "Failure.h"
#include "TableScan.h"

#include <chrono>
#include <filesystem>
#include <tuple>

namespace lxrepo {

namespace {

std::string Quoted(const std::string& text) { return "\"" + text + "\""; }

TableScan ScanFile(const ImportOptions& options, ProgressBar& progress) {
    progress.Begin("reading");
    try {
        return ScanTable(options.file, options.delimiter,
                         [&](long rows, double fraction) { progress.Update(rows, fraction); });
    } catch (const MalformedCsv& e) {
        throw Failure(kBadInput, "file",
                      options.file + " is not a valid CSV file at line " +
                          std::to_string(e.Line()) + ": " + e.what() + ".");
    } catch (const std::runtime_error& e) {
        throw Failure(kBadInput, "file", std::string("Cannot import: ") + e.what() + ".");
    }
}

// Runs one step of the import. A step whose request never got an answer means the service or
// proxy went away; a refusal is the service's word and ends the import with what was refused.
class Steps {
public:
    explicit Steps(const std::string& table) : table_(table) {}

    // The step's fixed name, which the failures of the requests that follow carry.
    void Enter(const std::string& step) { step_ = step; }

    template <class Call> auto Send(const std::string& what, Call call) {
        try {
            return call();
        } catch (const Failure&) {
            throw;
        } catch (const std::exception& e) {
            throw Failure(kUnreachable, step_,
                          "Lost the service while sending " + what + " of table " + Quoted(table_) +
                              " (" + e.what() + ").");
        }
    }
    void Require(int accepted, const std::string& what) const {
        if (accepted != 1) {
            throw Failure(kRefused, step_,
                          "The service refused " + what + " of table " + Quoted(table_) +
                              "; the import was stopped there.");
        }
    }

private:
    std::string table_;
    std::string step_;
};

void Connect(RepositorySession& session, const ImportOptions& options) {
    const TestConnectionResult result = session.TestConnection();
    if (result.status != Connected) {
        throw Failure(kUnreachable, "connection test",
                      "The connection test through the proxy at " + options.connection.proxy +
                          " to " + options.connection.server + " ended with " +
                          ConnectionStatusName(result.status) + ".");
    }
}

// The authorization check for the class, then the table itself; returns the service's id.
CString CreateTable(CTableRepositoryImport& client, Steps& steps, const ImportOptions& options,
                    const std::string& table, long rows) {
    steps.Enter("authorization");
    if (steps.Send("the authorization check",
                   [&] { return client.IsAuthorized(ToCString(options.tableClass)); }) == 0) {
        throw Failure(kRefused, "authorization",
                      "The service does not authorize imports of class " +
                          Quoted(options.tableClass) + " (table " + Quoted(table) + ").");
    }
    steps.Enter("table creation");
    const std::tuple<int, CString> created = steps.Send("the table creation", [&] {
        return client.CreateTable(ToCString(table), ToCString(options.tableClass),
                                  ToCString(options.description), options.overwrite ? 1 : 0,
                                  static_cast<int>(rows));
    });
    const int status = std::get<0>(created);
    if (status != 201) {
        throw Failure(kRefused, "table creation",
                      "The service refused to create table " + Quoted(table) + " (HTTP " +
                          std::to_string(status) + ")" +
                          (status == 409 ? "; it exists, --overwrite replaces it." : "."));
    }
    return std::get<1>(created);
}

void SendDistinctValues(CTableRepositoryImport& client, const CString& tableId, Steps& steps,
                        CsvAttribute& attribute, const ColumnScan& column, long chunkRows,
                        ProgressBar& progress) {
    const std::string what = "the distinct values of attribute " + Quoted(column.name);
    progress.Begin("distinct " + column.name);
    steps.Enter("distinct values");
    const CString name = ToCString(column.name);
    steps.Require(steps.Send(what, [&] { return client.BeginDistinctValues(tableId, name); }),
                  "the start of " + what);
    const long count = column.values.Count();
    for (long first = 0; first < count; first += chunkRows) {
        const long last = std::min(count, first + chunkRows);
        steps.Require(steps.Send(what,
                                 [&] {
                                     return client.ImportDistinctValuesChunk(
                                         tableId, name, first, last, attribute.GetDistinctValues(),
                                         0);
                                 }),
                      what);
        progress.Update(last, static_cast<double>(last) / static_cast<double>(count));
    }
    steps.Require(steps.Send(what, [&] { return client.EndDistinctValues(tableId, name); }),
                  "the end of " + what);
}

void SendValueIds(CTableRepositoryImport& client, const CString& tableId, Steps& steps,
                  CsvTableRecords& records, const TableScan& scan, const ImportOptions& options,
                  ProgressBar& progress) {
    progress.Begin("value ids");
    steps.Enter("value ids");
    steps.Require(
        steps.Send("the value ids",
                   [&] { return client.BeginImportValueIds(tableId, records.Attributes()); }),
        "the start of the value ids");
    const auto sendChunk = [&](long first, const std::vector<std::vector<int>>& ids) {
        const long last = first + static_cast<long>(ids.front().size());
        const std::string what =
            "the value ids of rows " + std::to_string(first + 1) + " to " + std::to_string(last);
        records.HoldChunk(first, ids);
        steps.Require(steps.Send(what,
                                 [&] {
                                     return client.ImportValueIdsChunk(tableId, first, last,
                                                                       records.Attributes(), 0);
                                 }),
                      what);
    };
    try {
        if (!scan.columns.empty()) {
            StreamValueIds(options.file, scan, options.chunkRows, sendChunk,
                           [&](long rows, double fraction) { progress.Update(rows, fraction); });
        }
    } catch (const Failure&) {
        throw;
    } catch (const std::runtime_error& e) {
        throw Failure(kBadInput, "file",
                      std::string("Cannot import ") + options.file + ": " + e.what() +
                          "; nothing was committed.");
    }
    steps.Require(
        steps.Send("the value ids",
                   [&] { return client.EndImportValueIds(tableId, records.Attributes()); }),
        "the end of the value ids");
}

} // namespace

std::string TableNameOfFile(const std::string& path) {
    return std::filesystem::path(path).stem().string();
}

ImportSummary ImportCsvFile(const ImportOptions& options, ProgressBar& progress) {
    const auto started = std::chrono::steady_clock::now();
    ImportSummary summary;
    summary.table = options.table.empty() ? TableNameOfFile(options.file) : options.table;
    const TableScan scan = ScanFile(options, progress);
    summary.rows = scan.rows;
    summary.attributes = static_cast<long>(scan.columns.size());

    RepositorySession session(options.connection);
    progress.Begin("connecting");
    Connect(session, options);
    CTableRepositoryImport& client = session.Client();
    Steps steps(summary.table);
    const CString tableId = CreateTable(client, steps, options, summary.table, scan.rows);
    summary.tableId = ToUtf8(tableId);

    CsvTableRecords records(scan);
    steps.Enter("attribute definitions");
    steps.Require(steps.Send("the attribute definitions",
                             [&] {
                                 return client.CreateAttributeDefinitions(tableId,
                                                                          records.Definitions());
                             }),
                  "the attribute definitions");
    for (std::size_t c = 0; c < scan.columns.size(); ++c) {
        SendDistinctValues(client, tableId, steps, records.Attribute(c), scan.columns[c],
                           options.chunkRows, progress);
    }
    SendValueIds(client, tableId, steps, records, scan, options, progress);
    steps.Enter("end of import");
    progress.Wait("committing",
                  "waiting for the service to commit " + std::to_string(scan.rows) + " rows");
    steps.Require(steps.Send("the end of the import", [&] { return client.EndImport(tableId); }),
                  "the end of the import");
    progress.Clear();
    summary.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    return summary;
}

} // namespace lxrepo
