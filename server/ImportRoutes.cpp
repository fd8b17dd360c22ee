#include "ImportRoutes.h"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace lxrepo {

using nlohmann::json;

namespace {

[[noreturn]] void BadRequest(const std::string& message) {
    throw HttpError(http::status::bad_request, message);
}

json ParseBody(const Request& request) {
    // A number too large for a double is refused by the parser with out_of_range rather than
    // parse_error; to the client it is as malformed as any other body.
    try {
        return json::parse(request.body());
    } catch (const json::exception& error) {
        BadRequest(std::string("malformed JSON body: ") + error.what());
    }
}

// Begin and End commands carry the JSON text null; an empty body is taken as the same.
void ExpectNullBody(const Request& request) {
    if (request.body().find_first_not_of(" \t\r\n") == std::string::npos) {
        return;
    }
    if (!ParseBody(request).is_null()) {
        BadRequest("this command takes no body other than the JSON null");
    }
}

const json& Member(const json& object, const char* key, json::value_t type, const char* typeName) {
    const auto found = object.find(key);
    if (found == object.end()) {
        BadRequest(std::string("the body lacks the member \"") + key + "\"");
    }
    const bool matches =
        type == json::value_t::number_integer ? found->is_number_integer() : found->type() == type;
    if (!matches) {
        BadRequest(std::string("\"") + key + "\" must be " + typeName);
    }
    return *found;
}

void RequireMethod(const Request& request, http::verb method) {
    if (request.method() != method) {
        throw HttpError(http::status::method_not_allowed, std::string(request.method_string()) +
                                                              " is not allowed here; use " +
                                                              std::string(http::to_string(method)));
    }
}

std::string Join(std::vector<std::string>::const_iterator begin,
                 std::vector<std::string>::const_iterator end) {
    std::string joined;
    for (auto it = begin; it != end; ++it) {
        joined += (it == begin ? "" : "/") + *it;
    }
    return joined;
}

Response Ok(const Request& request, json body = json::object()) {
    return JsonResponse(request, http::status::ok, body.dump());
}

} // namespace

ImportRoutes::ImportRoutes(ImportStore& store, std::vector<std::string> allowedClasses)
    : store_(store), allowedClasses_(std::move(allowedClasses)) {}

Response ImportRoutes::Handle(const Request& request, const std::vector<std::string>& segments,
                              const Caller& caller) {
    if (segments.size() == 1 && segments[0] == "Connect") {
        return Connect(request, caller);
    }
    if (segments.size() == 1 && segments[0] == "Authorization") {
        return Authorization(request);
    }
    if (segments.size() == 1 && segments[0] == "Tables") {
        return CreateTable(request, caller);
    }
    if (segments.size() >= 3 && segments[0] == "Tables") {
        return TableCommand(request, segments);
    }
    throw HttpError(http::status::not_found, "no such endpoint under /Import");
}

Response ImportRoutes::Connect(const Request& request, const Caller& caller) {
    RequireMethod(request, http::verb::get);
    return Ok(request, {{"user", caller.user}, {"client", caller.client}});
}

void ImportRoutes::CheckClassAllowed(const std::string& tableClass) const {
    if (!allowedClasses_.empty() && std::find(allowedClasses_.begin(), allowedClasses_.end(),
                                              tableClass) == allowedClasses_.end()) {
        throw HttpError(http::status::forbidden,
                        "tables of class \"" + tableClass + "\" may not be imported here");
    }
}

Response ImportRoutes::Authorization(const Request& request) {
    RequireMethod(request, http::verb::post);
    const json body = ParseBody(request);
    if (!body.is_object()) {
        BadRequest("the body must be a JSON object");
    }
    const auto tableClass =
        Member(body, "tableClass", json::value_t::string, "a string").get<std::string>();
    CheckClassAllowed(tableClass);
    return Ok(request, {{"tableClass", tableClass}});
}

Response ImportRoutes::CreateTable(const Request& request, const Caller& caller) {
    RequireMethod(request, http::verb::post);
    const json body = ParseBody(request);
    if (!body.is_object()) {
        BadRequest("the body must be a JSON object");
    }
    NewTable table;
    table.name = Member(body, "tableName", json::value_t::string, "a string").get<std::string>();
    table.tableClass =
        Member(body, "tableClass", json::value_t::string, "a string").get<std::string>();
    table.description =
        Member(body, "tableDescription", json::value_t::string, "a string").get<std::string>();
    table.overwrite =
        Member(body, "tableOverwrite", json::value_t::boolean, "true or false").get<bool>();
    const auto& count = Member(body, "recordCount", json::value_t::number_integer, "an integer");
    if (count.is_number_unsigned() && count.get<std::uint64_t>() > 0x7fffffffu) {
        BadRequest("\"recordCount\" is too large");
    }
    table.recordCount = count.get<std::int64_t>();
    CheckClassAllowed(table.tableClass);
    const std::string id = store_.CreateTable(table, caller);
    return JsonResponse(request, http::status::created, json{{"tableID", id}}.dump());
}

Response ImportRoutes::Attributes(const Request& request, const std::string& id) {
    const json body = ParseBody(request);
    if (!body.is_array()) {
        BadRequest("the attribute definitions must be a JSON array");
    }
    std::vector<std::string> names;
    for (std::size_t i = 0; i < body.size(); ++i) {
        if (!body[i].is_object()) {
            BadRequest("attribute definition " + std::to_string(i) + " is not a JSON object");
        }
        const auto name = body[i].find("AttributeName");
        if (name == body[i].end() || !name->is_string()) {
            BadRequest("attribute definition " + std::to_string(i) +
                       " has no string \"AttributeName\"");
        }
        names.push_back(name->get<std::string>());
    }
    store_.DefineAttributes(id, names, request.body());
    return Ok(request);
}

Response ImportRoutes::TableCommand(const Request& request,
                                    const std::vector<std::string>& segments) {
    RequireMethod(request, http::verb::post);
    const std::string& id = segments[1];
    if (segments.size() == 3 && segments[2] == "Attributes") {
        return Attributes(request, id);
    }
    if (segments.size() == 3 && segments[2] == "End") {
        ExpectNullBody(request);
        store_.EndImport(id);
        return Ok(request);
    }
    if (segments.size() >= 4 && (segments[2] == "DistinctValues" || segments[2] == "ValueIds")) {
        return Phase(request, id, segments[2], {segments.begin() + 3, segments.end()});
    }
    throw HttpError(http::status::not_found, "no such table command");
}

// rest: the attribute's name, maybe followed by "Begin" or "End". The client leaves a '/' in
// an attribute name unencoded, so a name may span several segments: the longest reading that
// names a known attribute wins.
Response ImportRoutes::Phase(const Request& request, const std::string& id, const std::string& kind,
                             std::vector<std::string> rest) {
    const bool distinct = kind == "DistinctValues";
    const std::string whole = Join(rest.begin(), rest.end());
    const bool command = rest.size() >= 2 && (rest.back() == "Begin" || rest.back() == "End") &&
                         !store_.HasAttribute(id, whole);
    if (command) {
        ExpectNullBody(request);
        const std::string attribute = Join(rest.begin(), rest.end() - 1);
        const bool begin = rest.back() == "Begin";
        if (distinct) {
            begin ? store_.BeginDistinctValues(id, attribute)
                  : store_.EndDistinctValues(id, attribute);
        } else {
            begin ? store_.BeginValueIds(id, attribute) : store_.EndValueIds(id, attribute);
        }
        return Ok(request);
    }
    const json body = ParseBody(request);
    if (!body.is_array()) {
        BadRequest(std::string(distinct ? "distinct values" : "value ids") +
                   " must come as a JSON array");
    }
    if (distinct) {
        std::vector<std::string> values;
        values.reserve(body.size());
        for (const auto& value : body) {
            if (!value.is_string()) {
                BadRequest("distinct values must be JSON strings, got " +
                           std::string(value.type_name()));
            }
            values.push_back(value.get<std::string>());
        }
        store_.AddDistinctValues(id, whole, std::move(values));
    } else {
        std::vector<std::int64_t> ids;
        ids.reserve(body.size());
        for (const auto& value : body) {
            if (!value.is_number_integer()) {
                BadRequest("value ids must be JSON integers, got " + value.dump());
            }
            ids.push_back(value.is_number_unsigned() && value.get<std::uint64_t>() > 0x7fffffffu
                              ? std::int64_t{0x7fffffff} + 1
                              : value.get<std::int64_t>());
        }
        store_.AddValueIds(id, whole, ids);
    }
    return Ok(request);
}

} // namespace lxrepo
