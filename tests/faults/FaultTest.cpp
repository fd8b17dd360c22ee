// How a server's bad answers reach the host. An outcome depends on the code path an operation
// takes, so each path meets each kind of bad answer once, and every operation meets those where
// operations differ (flattening, reading the body). Each case pins the exact outcome, that the one
// request arrived, that every connection ended and that no thread is left behind. The server is
// the recording server on lxrepo-server's HTTP core: it reads each request in full; a broken
// answer goes out as raw bytes on the connection, which then ends.
// GoogleTest comes first: cpprestsdk's function-like macro U() breaks its templates.
#include <gtest/gtest.h>

#include "client/PlainException.h"
#include "client/TextConversion.h"
#include "support/ConnectedClient.h"
#include "support/HostRecords.h"
#include "support/Process.h"
#include "support/Thrown.h"

#include <boost/asio/write.hpp>
#include <cpprest/http_client.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <regex>
#include <set>
#include <sstream>

#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using namespace testsupport;
using web::http::http_exception;
using web::json::json_exception;
using Client = CTableRepositoryImport;

// The code paths an outcome depends on; the first two never authenticate.
enum class Path { ProxyCall, Connection, JsonValue, JsonText, ValueIdTask, CreateTable };

ScriptedResponse Json(int status, std::string body) {
    return {status, {{"Content-Type", "application/json"}}, std::move(body), false, {}};
}

// Runs the operation against the server at url; arm() turns its good answers into the bad one.
using Run = std::function<std::string(const std::string& url, const std::function<void()>& arm)>;

struct Operation {
    const char* name;
    Path path;
    bool flattens; // hands every standard exception to the host as the library's plain one
    Run run;
    std::string success = "1"; // what the host sees for the good answer
    ScriptedResponse good = Json(200, "{}");
};

bool ReadsBody(const Operation& op) {
    return op.path == Path::Connection || op.path == Path::CreateTable;
}

// A new client registered with the proxy at url (or unregistered from it).
std::unique_ptr<Client> ProxyClient(const std::string& url, bool registered) {
    std::unique_ptr<Client> client(static_cast<Client*>(new_TableRepositoryImport()));
    CAuthenticationProxyConfiguration config;
    config.proxyBaseUri = Wide(url);
    registered ? client->RegisterWithAuthenticationProxy(config)
               : void(client->UnregisterFromAuthenticationProxy(config));
    return client;
}

std::string Text(int result) { return std::to_string(result); }
std::string Text(const CString& text) { return ToUtf8(text.GetString(), text.GetLength()); }
std::string Text(std::string text) { return text; }

// A service operation on a client connected the way a host connects it, with one column.
template <class Call> Run OnService(Call call) {
    return [call](const std::string& url, auto&) {
        ConnectedClient client(url);
        HostTable table{{"a", {"x", "y"}, {7, 8}}};
        return Text(call(*client, table));
    };
}

const std::vector<Operation>& Operations() {
    static const std::vector<Operation> operations = {
        {"RegisterWithAuthenticationProxy", Path::ProxyCall, false,
         [](auto& url, auto&) { return ProxyClient(url, true), "returned"; }, "returned"},
        {"UnregisterFromAuthenticationProxy", Path::ProxyCall, false,
         [](auto& url, auto&) { return ProxyClient(url, false), "returned"; }, "returned"},
        // The registration is answered well; the bad answer is the version question's.
        {"TestConnection", Path::Connection, false,
         [](auto& url, auto& arm) {
             const auto client = ProxyClient(url, true);
             arm();
             const TestConnectionResult r = client->TestConnection(L"http://repo.test:1");
             return "status " + Text(r.status) + " version " + Text(r.version);
         },
         "status 3 version 1.0.0", Json(200, R"({"version":"1.0.0"})")},
        {"IsAuthorized", Path::JsonValue, false,
         OnService([](auto& c, auto&) { return c.IsAuthorized(L"sales"); })},
        {"BeginDistinctValues", Path::JsonValue, false,
         OnService([](auto& c, auto&) { return c.BeginDistinctValues(L"T1", L"a"); })},
        {"EndDistinctValues", Path::JsonValue, false,
         OnService([](auto& c, auto&) { return c.EndDistinctValues(L"T1", L"a"); })},
        {"BeginImportValueIds", Path::JsonValue, false,
         OnService([](auto& c, auto& t) { return c.BeginImportValueIds(L"T1", t.Attributes()); })},
        {"EndImportValueIds", Path::JsonValue, false,
         OnService([](auto& c, auto& t) { return c.EndImportValueIds(L"T1", t.Attributes()); })},
        {"EndImport", Path::JsonValue, false,
         OnService([](auto& c, auto&) { return c.EndImport(L"T1"); })},
        {"ImportDistinctValuesChunk", Path::JsonText, false, OnService([](auto& c, auto& t) {
             return c.ImportDistinctValuesChunk(L"T1", L"a", 0, 2, t.DistinctValues(0), 0);
         })},
        {"CreateAttributeDefinitions", Path::JsonText, true, OnService([](auto& c, auto&) {
             return c.CreateAttributeDefinitions(L"T1", HostDefinitions().List());
         })},
        {"ImportValueIdsChunk", Path::ValueIdTask, true, OnService([](auto& c, auto& t) {
             return c.ImportValueIdsChunk(L"T1", 0, 2, t.Attributes(), 0);
         })},
        {"CreateTable", Path::CreateTable, true, OnService([](auto& c, auto&) {
             const auto [status, id] = c.CreateTable(L"Sales", L"sales", L"", 0, 1);
             return Text(status) + " " + Text(id);
         }),
         "201 T1", Json(201, R"({"tableID":"T1"})")},
    };
    return operations;
}

// An answer's head as raw bytes, written by hand: Beast refuses header values over 64 KiB.
std::string Head(const ScriptedResponse& answer, std::size_t contentLength) {
    std::string head = "HTTP/1.1 " + std::to_string(answer.status) + " Status\r\n";
    for (const Header& header : answer.headers) {
        head += header.name + ": " + header.value + "\r\n";
    }
    return head + "Content-Length: " + std::to_string(contentLength) + "\r\n\r\n";
}

// Which operations meet a bad answer: all of them, or the first of each path it applies to.
enum class Meets { Every, EachPath, EachNtlmPath, EachJsonPath };

struct BadAnswer {
    const char* name;
    Meets meets;
    // Turns the good answer, with its head as raw bytes, into the bad one (a raw answer ends the
    // connection); none: nothing listens on the port.
    std::function<void(ScriptedResponse& answer, const std::string& head)> spoil;
    Thrown thrown;                // what the host sees, or kNothing for the good answer's result
    bool onlyReadersFail = false; // operations that do not read the body see the good result
};

// A TLS record header, NUL and high bytes, and a line break.
const char kGarbage[] = "\x16\x03\x01\x00\xa5\x01\x00\x00\xa1\x03\x03\xff\xfe garbage\r\n\r\n";

template <bool raw = false> auto Challenge(std::string value) {
    return [value](ScriptedResponse& a, auto&) {
        a = {401, {{"WWW-Authenticate", value}}, "", false, {}};
        a.raw = raw ? std::optional(Head(a, 0)) : std::nullopt;
    };
}

const std::vector<BadAnswer>& BadAnswers() {
    const Thrown statusLine = Expected<http_exception>("Failed to read HTTP status line");
    const Thrown body = Expected<http_exception>("Failed to read response body");
    static const std::vector<BadAnswer> bads = {
        {"Refused", Meets::EachPath, nullptr,
         Expected<http_exception>("Failed to connect to any resolved endpoint")},
        {"CloseBeforeAnswer", Meets::Every, [](auto& a, auto&) { a.raw = ""; }, statusLine},
        {"CloseInHeaders", Meets::EachPath,
         [](auto& a, auto& head) { a.raw = head.substr(0, head.size() / 2); }, statusLine},
        // cpprestsdk completes a response once its head is in; only a reader of the body fails.
        {"CloseInBody", Meets::Every,
         [](auto& a, auto& head) { a.raw = head + a.body.substr(0, a.body.size() / 2); }, body,
         true},
        {"ContentLengthTooLarge", Meets::EachPath,
         [](auto& a, auto&) { a.raw = Head(a, a.body.size() + 1000) + a.body; }, body, true},
        {"Garbage", Meets::EachPath, [](auto& a, auto&) { a.raw.emplace(kGarbage, 25); },
         Expected<http_exception>("Invalid HTTP status line")},
        // Blanks after the good JSON: still the same document to a JSON reader.
        {"Body100MB", Meets::EachPath,
         [](auto& a, auto&) { a.body += std::string(100 << 20, ' '); }, kNothing},
        {"NtlmChallengeEmpty", Meets::EachNtlmPath, Challenge("NTLM"),
         Expected<std::out_of_range>("invalid string position")},
        {"NtlmChallengeNotBase64", Meets::EachNtlmPath, Challenge("NTLM ####****"),
         Expected<std::runtime_error>("invalid character found in base64 string")},
        {"NtlmChallengeHuge", Meets::EachNtlmPath,
         Challenge<true>(
             "NTLM " + utility::conversions::to_base64(std::vector<unsigned char>(1 << 20, 0x4e))),
         kResourceException},
        {"JsonMalformed", Meets::EachJsonPath, [](auto& a, auto&) { a.body = R"({"a": nope})"; },
         Expected<json_exception>("* Line 1, Column 8 Syntax error: Malformed literal")},
        {"JsonTruncated", Meets::EachJsonPath, [](auto& a, auto&) { a.body.resize(8); },
         Expected<json_exception>("* Line 1, Column 3 Syntax error: Malformed string literal")},
        // cpprestsdk's reader gives up at a depth of 128 rather than recursing 100,000 deep.
        {"JsonNested100000", Meets::EachJsonPath,
         [](auto& a, auto&) { a.body = std::string(100000, '[') + std::string(100000, ']'); },
         Expected<json_exception>("* Line 1, Column 130 Syntax error: Nesting too deep")},
        // The one member's string value becomes a number.
        {"JsonWrongType", Meets::EachJsonPath,
         [](auto& a, auto&) { a.body = a.body.substr(0, a.body.find(':') + 1) + "2}"; },
         Expected<json_exception>("not a string")},
    };
    return bads;
}

// Not even the head is complete before five seconds have passed; the body comes within two more.
RecordingServer::Handler Trickle(const ScriptedResponse& good) {
    const std::string all = Head(good, good.body.size()) + good.body;
    const std::size_t from = all.size() - good.body.size() - 5; // the head's last five bytes
    return [=](const RecordedRequest&, ConnectionContext& c) {
        boost::system::error_code ec;
        boost::asio::write(*c.socket, boost::asio::buffer(all.data(), from), ec);
        for (std::size_t at = from; at < all.size() && !ec; ++at) {
            std::this_thread::sleep_for(
                at < from + 5 ? 1000ms : 2000ms / static_cast<int>(good.body.size()));
            boost::asio::write(*c.socket, boost::asio::buffer(&all[at], 1), ec);
        }
        return ScriptedResponse{200, {}, "", true, ""};
    };
}

std::string Name(const Operation& op, const BadAnswer& bad) {
    return std::string(op.name) + " / " + bad.name;
}

std::vector<std::pair<const Operation*, const BadAnswer*>> Rows() {
    std::vector<std::pair<const Operation*, const BadAnswer*>> rows;
    std::set<Path> seen;
    for (const Operation& op : Operations()) {
        const bool first = seen.insert(op.path).second;
        // In the order of Meets.
        const bool meets[] = {true, first, first && op.path > Path::Connection,
                              first && ReadsBody(op)};
        for (const BadAnswer& bad : BadAnswers()) {
            if (meets[static_cast<int>(bad.meets)]) {
                rows.push_back({&op, &bad});
            }
        }
    }
    return rows;
}

// True once no loopback TCP connection with the port at either end is established: no line of
// the kernel's table has it as the local end ("...:PORT remote 01 ") or the remote one (":PORT 01
// ").
bool ConnectionsEnd(unsigned short port) {
    char hex[5];
    std::snprintf(hex, sizeof hex, "%04X", port);
    const std::regex established(std::string(":") + hex + " ([0-9A-F]{8}:[0-9A-F]{4} )?01 ");
    for (const auto until = std::chrono::steady_clock::now() + 60s;
         std::chrono::steady_clock::now() < until; std::this_thread::sleep_for(10ms)) {
        std::ostringstream table;
        table << std::ifstream("/proc/net/tcp").rdbuf();
        if (!std::regex_search(table.str(), established)) {
            return true;
        }
    }
    return false;
}

// Runs the case and checks all but the threads.
void Check(const Operation& op, const BadAnswer& bad, bool trickle = false) {
    const std::string name = Name(op, bad);
    auto server = std::make_unique<RecordingServer>(bad.meets == Meets::EachNtlmPath ? "127.0.0.2"
                                                                                     : "127.0.0.1");
    const unsigned short port = server->Port();
    const std::string url = server->BaseUrl();
    const auto arm = [&] {
        if (!bad.spoil) {
            server.reset(); // from now on nothing listens on the port
            return;
        }
        ScriptedResponse answer = op.good;
        bad.spoil(answer, Head(answer, answer.body.size()));
        server->Clear();
        server->SetHandler(trickle ? Trickle(answer) : [answer](auto&, auto&) { return answer; });
    };
    if (op.path != Path::Connection) {
        arm();
    }
    std::string result;
    const auto started = std::chrono::steady_clock::now();
    const Thrown thrown = ThrownBy([&] { result = op.run(url, arm); });
    // A slow answer is waited for rather than given up on.
    EXPECT_TRUE(!trickle || std::chrono::steady_clock::now() - started > 4s) << "case: " << name;
    static const std::string plain = ThrownBy([] { ThrowPlainException(std::exception()); }).type;
    Thrown documented = bad.onlyReadersFail && !ReadsBody(op) ? kNothing : bad.thrown;
    // Flattened, unless nothing was thrown or a CResourceException, which is no std::exception.
    documented.type = op.flattens && !documented.message.empty() ? plain : documented.type;
    EXPECT_EQ(thrown, documented) << "case: " << name;
    EXPECT_EQ(result, thrown == kNothing ? op.success : "") << "case: " << name;
    // The outcome came from the bad answer: the request reached the server (unless nothing
    // listened), and only once.
    EXPECT_EQ(server ? server->Requests().size() : 0u, bad.spoil ? 1u : 0u) << "case: " << name;
    // cpprestsdk reads to its end a body nobody asked for; then the library holds no connection.
    EXPECT_TRUE(ConnectionsEnd(port)) << "case: " << name;
}

std::size_t ThreadCount() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

// Before the first request of the process: cpprestsdk starts its thread pool with it and keeps
// it, so one request first makes the pool part of the baseline; and the NTLM handshake, which runs
// only for a service that is not on this machine by name (127.0.0.2 stands in for one), takes its
// default credentials from gss-ntlmssp's user file, one per process as tests run in parallel.
std::size_t Baseline() {
    const std::string users = ::testing::TempDir() + std::to_string(getpid()) + "-fault.users";
    std::ofstream(users) << "TESTDOM:alice:Correct-Horse-1\n";
    setenv("NTLM_USER_FILE", users.c_str(), 1);
    const std::string nowhere = "http://127.0.0.1:" + std::to_string(FreePort());
    web::http::client::http_client client(utility::conversions::to_string_t(nowhere));
    ThrownBy([&] { client.request(web::http::methods::GET).get(); });
    return ThreadCount();
}

// At the end of a test. When a connection breaks inside a response body, cpprestsdk closes that
// response's streams through continuations it queues on its pool, after the operation has
// returned; a process that exits before the pool has run them leaves the chain behind, and
// LeakSanitizer reports it (about one case in a hundred). A few rounds through the pool let them
// run.
void ExpectNoThreadLeft(std::size_t baseline, const std::string& name, bool last = false) {
    for (int round = 0; last && round < 5; ++round) {
        pplx::create_task([] {}).wait();
        std::this_thread::sleep_for(50ms);
    }
    // Threads that were ending when the servers closed get a moment to be gone.
    for (int i = 0; i < 50 && ThreadCount() > baseline; ++i) {
        std::this_thread::sleep_for(20ms);
    }
    EXPECT_EQ(ThreadCount(), baseline) << "case: " << name;
}

TEST(Faults, EachPathMeetsEachBadAnswer) {
    const std::size_t baseline = Baseline();
    const auto rows = Rows();
    for (const auto& row : rows) {
        Check(*row.first, *row.second);
        ExpectNoThreadLeft(baseline, Name(*row.first, *row.second), &row == &rows.back());
    }
}

// Every operation at once against a slow answer.
TEST(Faults, SlowAnswersAreWaitedForByEveryOperation) {
    const std::size_t baseline = Baseline();
    const BadAnswer slow{"Slow", Meets::Every, [](auto&, auto&) {}, kNothing};
    std::vector<std::future<void>> calls;
    for (const Operation& op : Operations()) {
        calls.push_back(std::async(std::launch::async, [&] { Check(op, slow, true); }));
    }
    calls.clear(); // waits for every call
    ExpectNoThreadLeft(baseline, "Slow", true);
}

} // namespace
