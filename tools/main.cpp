// lxrepo: publishes a CSV file to a table repository service through the client library, the
// way a host application does (the public header, the factory, the host records).

#include "ConnectionCheck.h"
#include "Failure.h"
#include "TableImport.h"

#include <ProjectVersion.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <regex>

#include <malloc.h>
#include <unistd.h>

namespace {

using namespace lxrepo;

// A relative or schemeless address would fail only once the library sends, looking like a service
// that cannot be reached; refused here, it is a usage error before anything goes out.
const CLI::Validator kHttpUrl(
    [](const std::string& text) -> std::string {
        static const std::regex url(
            R"((https?)://([^/?#@:\s\[\]]+|\[[0-9A-Fa-f:.]+\])(:[0-9]{1,5})?([/?#]\S*)?)",
            std::regex::icase);
        return std::regex_match(text, url) ? ""
                                           : "not an absolute http:// or https:// URL: " + text;
    },
    "URL");

void AddConnectionOptions(CLI::App& command, ConnectionOptions& options, std::string& auth) {
    command.add_option("--server", options.server, "address of the repository service")
        ->required()
        ->check(kHttpUrl);
    command.add_option("--proxy", options.proxy, "address of the authentication proxy")
        ->required()
        ->check(kHttpUrl);
    command.add_option("--client", options.client, "the name this client registers under")
        ->capture_default_str();
    command.add_option("--auth", auth, "how the proxy authenticates to the service")
        ->check(CLI::IsMember({"windows", "oauth"}))
        ->capture_default_str();
    command.add_option("--proxy-register-path", options.registerPath)->capture_default_str();
    command.add_option("--proxy-unregister-path", options.unregisterPath)->capture_default_str();
    command.add_option("--proxy-connect-path", options.connectPath)->capture_default_str();
    command.add_option("--proxy-path", options.proxyPath, "the proxy's forwarding prefix")
        ->capture_default_str();
}

char DelimiterOf(const std::string& text) {
    if (text == "tab" || text == "\\t") {
        return '\t';
    }
    if (text.size() != 1 || text == "\"" || text == "\n" || text == "\r") {
        throw CLI::ValidationError("--delimiter",
                                   "must be one character other than a quote or line end, or tab");
    }
    return text[0];
}

void PrintSummary(const ImportSummary& summary, bool json) {
    const double rate = summary.seconds > 0 ? summary.rows / summary.seconds : 0;
    if (json) {
        std::cout << nlohmann::json{{"table", summary.table},
                                    {"tableId", summary.tableId},
                                    {"rows", summary.rows},
                                    {"attributes", summary.attributes},
                                    {"seconds", summary.seconds},
                                    {"rowsPerSecond", rate}}
                         .dump()
                  << "\n";
        return;
    }
    std::printf("Imported table \"%s\" as %s: %ld rows, %ld attributes in %.2f s (%.0f rows/s).\n",
                summary.table.c_str(), summary.tableId.c_str(), summary.rows, summary.attributes,
                summary.seconds, rate);
}

int PrintFindings(const CheckFindings& findings, const std::string& tableClass) {
    std::printf("connection: %s\n", ConnectionStatusName(findings.status).c_str());
    std::printf("proxy version: %s\n", findings.version.empty() ? "-" : findings.version.c_str());
    if (findings.status != Connected) {
        std::printf("class \"%s\": not checked\n", tableClass.c_str());
        return kUnreachable;
    }
    std::printf("class \"%s\": %s\n", tableClass.c_str(),
                findings.authorized ? "authorized" : "not authorized");
    return findings.authorized ? kSucceeded : kRefused;
}

// With --json a script reads the failure from standard output as one object; step is null when
// the failure came from no known step.
int Fail(const std::string& sentence, int status, const nlohmann::json& step, bool json) {
    std::fflush(stdout);
    if (json) {
        std::cout
            << nlohmann::json{{"error", sentence}, {"exitStatus", status}, {"step", step}}.dump()
            << "\n";
    } else {
        std::cerr << "lxrepo: " << sentence << "\n";
    }
    return status;
}

// A usage error may stop the parse before --json is read, so the words themselves are asked.
bool JsonAsked(int argc, char** argv) {
    return std::any_of(argv + 1, argv + argc,
                       [](const char* word) { return std::strcmp(word, "--json") == 0; });
}

} // namespace

int main(int argc, char** argv) {
    // The library builds each chunk's value ids on whichever worker thread of cpprestsdk's pool
    // runs it, and glibc gives every such thread an arena of its own that keeps the chunk's
    // freed memory. With one arena the peak of a million-row import fell from 390 to 150 MB;
    // the host's thread only waits meanwhile, so nothing contends for it.
    mallopt(M_ARENA_MAX, 1);
    CLI::App app{"Publishes a CSV file as a table of a table repository service."};
    app.require_subcommand(1);
    app.set_version_flag("--version", "lxrepo " TRI_PROJECT_VERSION);

    ImportOptions import;
    std::string importAuth = "windows";
    std::string delimiter = ",";
    bool json = false;
    CLI::App* importCommand = app.add_subcommand("import", "import a CSV file as a table");
    importCommand->add_option("FILE", import.file, "the CSV file; its first line names the columns")
        ->required();
    AddConnectionOptions(*importCommand, import.connection, importAuth);
    importCommand->add_option("--table", import.table, "table name (default: the file's name)");
    importCommand->add_option("--class", import.tableClass)->capture_default_str();
    importCommand->add_option("--description", import.description);
    importCommand->add_flag("--overwrite", import.overwrite, "replace a table of the same name");
    importCommand->add_option("--chunk-rows", import.chunkRows, "rows or values per request")
        ->check(CLI::Range(1L, 10000000L))
        ->capture_default_str();
    importCommand->add_option("--delimiter", delimiter, "field separator (a character or tab)")
        ->capture_default_str();
    importCommand->add_flag("--json", json, "print the summary as one JSON object");

    ConnectionOptions check;
    std::string checkAuth = "windows";
    std::string checkClass = "default";
    CLI::App* checkCommand =
        app.add_subcommand("check", "test the connection and the authorization for a class");
    AddConnectionOptions(*checkCommand, check, checkAuth);
    checkCommand->add_option("--class", checkClass)->capture_default_str();

    try {
        app.parse(argc, argv);
        import.delimiter = DelimiterOf(delimiter);
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() != 0 && JsonAsked(argc, argv)) {
            return Fail(e.what(), kBadInput, "command line", true);
        }
        const int status = app.exit(e);
        return status == 0 ? kSucceeded : kBadInput;
    }

    try {
        if (*checkCommand) {
            check.authenticationType = checkAuth == "oauth" ? 1 : 0;
            return PrintFindings(CheckConnection(check, checkClass), checkClass);
        }
        import.connection.authenticationType = importAuth == "oauth" ? 1 : 0;
        ProgressBar progress(isatty(STDERR_FILENO) == 1, stderr);
        try {
            PrintSummary(ImportCsvFile(import, progress), json);
        } catch (...) {
            progress.Clear();
            throw;
        }
        return kSucceeded;
    } catch (const Failure& e) {
        return Fail(e.what(), e.Status(), e.Step(), json);
    } catch (const std::exception& e) {
        return Fail(std::string("Stopped by an unexpected error: ") + e.what() + ".", kRefused,
                    nullptr, json);
    }
}
