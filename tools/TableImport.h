// A whole import of one CSV file through the library, in the order a host calls it.
#pragma once

#include "ProgressBar.h"
#include "RepositorySession.h"

#include <string>

namespace lxrepo {

struct ImportOptions {
    std::string file;
    ConnectionOptions connection;
    std::string table; // empty: the file's name without extension
    std::string tableClass = "default";
    std::string description;
    bool overwrite = false;
    long chunkRows = 50000;
    char delimiter = ',';
};

struct ImportSummary {
    std::string table;
    std::string tableId;
    long rows = 0;
    long attributes = 0;
    double seconds = 0;
};

// Throws Failure: kBadInput for the file, kUnreachable for the connection, kRefused for the
// first step the service refused (nothing after it is sent).
ImportSummary ImportCsvFile(const ImportOptions& options, ProgressBar& progress);

// The table name a file gives when none is named.
std::string TableNameOfFile(const std::string& path);

} // namespace lxrepo
