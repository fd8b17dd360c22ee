// lxrepo-server's handling of import requests: target splitting, path segment and query
// decoding, and the /Import routes with their JSON bodies, against a fresh in-memory SQLite
// catalogue per input. One input is a sequence of requests separated by 0x1E, each
// "<method> <target>\n<body>"; "@" in a target stands for the id of the last table created, so
// that inputs can walk a whole import. HttpError is how a route refuses a request; any other
// exception escaping a route is a finding (the server would answer 500).
#include "Catalogue.h"
#include "ImportRoutes.h"
#include "ImportStore.h"
#include "Url.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

void Check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

void ReplaceIds(std::string& target, const std::string& id) {
    for (std::size_t at = target.find('@'); at != std::string::npos;
         at = target.find('@', at + id.size())) {
        target.replace(at, 1, id);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    lxrepo::Catalogue catalogue(":memory:");
    lxrepo::ImportStore store(catalogue, std::chrono::seconds(3600));
    lxrepo::ImportRoutes routes(store, {});
    const lxrepo::Caller caller{"fuzz", "fuzz"};
    std::string lastId = "none";

    std::size_t begin = 0;
    while (begin <= input.size()) {
        std::size_t end = input.find('\x1e', begin);
        end = end == std::string_view::npos ? input.size() : end;
        const std::string_view record = input.substr(begin, end - begin);
        begin = end + 1;

        const std::size_t lineEnd = std::min(record.find('\n'), record.size());
        const std::string_view line = record.substr(0, lineEnd);
        const std::size_t blank = std::min(line.find(' '), line.size());
        std::string target(line.substr(std::min(blank + 1, line.size())));
        ReplaceIds(target, lastId);

        const lxrepo::Target split = lxrepo::SplitTarget(target);
        lxrepo::ParseQuery(split.query);
        const auto decoded = lxrepo::PercentDecode(split.path);
        if (decoded) {
            Check(lxrepo::PercentDecode(lxrepo::PercentEncode(*decoded)) == *decoded);
        }
        auto segments = lxrepo::DecodePathSegments(split.path);
        if (!segments || segments->empty() || (*segments)[0] != "Import") {
            continue;
        }
        segments->erase(segments->begin());

        lxrepo::Request request;
        // Any method name, as Beast's parser keeps an unknown one.
        request.method_string(std::string(line.substr(0, blank)));
        request.target(target);
        request.body() = std::string(record.substr(std::min(lineEnd + 1, record.size())));
        request.prepare_payload();
        try {
            const lxrepo::Response response = routes.Handle(request, *segments, caller);
            Check(response.result() == lxrepo::http::status::ok ||
                  response.result() == lxrepo::http::status::created);
            if (response.result() == lxrepo::http::status::created) {
                lastId = nlohmann::json::parse(response.body()).at("tableID").get<std::string>();
            }
        } catch (const lxrepo::HttpError&) {
        }
    }
    return 0;
}
