// The NTLM handshake on the wire: the library's GSSAPI initiator against lxrepo-server's acceptor
// (gss-ntlmssp on both ends), which binds the handshake to its TCP connection.
// GoogleTest comes first: cpprestsdk's function-like macro U() breaks its templates.
#include <gtest/gtest.h>

#include "Base64.h"
#include "client/RequestPipeline.h"
#include "support/NtlmAcceptor.h"
#include "support/RecordingServer.h"
#include "support/Thrown.h"

#include <cpprest/http_client.h>

#include <fstream>

#include <unistd.h>

namespace {

using testsupport::Expected;
using testsupport::NtlmAcceptor;
using testsupport::RecordingServer;
using testsupport::ScriptedResponse;

// The handshake is reached only for a service that is not on this machine by name; any address
// of 127/8 other than 127.0.0.1 stands in for one.
const std::string serviceHost = "127.0.0.2";
const std::string clientPassword = "Correct-Horse-1";

// One file per process: ctest runs the cases as parallel processes, and one that rewrote another's
// file (a case uses a wrong password on purpose) would break it mid-handshake.
std::string WriteUserFile(const std::string& name, const std::string& password) {
    const std::string path = ::testing::TempDir() + std::to_string(getpid()) + "-" + name;
    std::ofstream(path) << "TESTDOM:alice:" << password << "\n";
    return path;
}

// The current user's default NTLM credentials come from gss-ntlmssp's user file, named by its
// environment variable; it must be set before the first GSSAPI call of the process.
const int defaultCredentials =
    setenv("NTLM_USER_FILE", WriteUserFile("ntlm-client.users", clientPassword).c_str(), 1);

// Sent as every operation sends: through the pipeline, with neither token nor proxy. What came
// back ("status 401") or what was thrown.
std::string Send(const std::string& baseUrl, JsonText body, const char* method = "POST") {
    const AuthenticationSettings settings;
    web::http::client::http_client client(
        utility::conversions::to_string_t(baseUrl + "/Import/Tables"));
    web::http::http_request request(utility::conversions::to_string_t(method));
    std::string outcome;
    const auto thrown = testsupport::ThrownBy([&] {
        const auto response = ExecuteRequest(settings, client, request, std::move(body)).get();
        outcome = "status " + std::to_string(response.status_code());
    });
    return thrown == testsupport::kNothing ? outcome : ::testing::PrintToString(thrown);
}

// The acceptor behind a server on the service address; the acceptor outlives the server.
struct NtlmService {
    NtlmAcceptor acceptor;
    RecordingServer server{serviceHost};

    explicit NtlmService(const std::string& acceptorPassword)
        : acceptor(WriteUserFile("ntlm-acceptor.users", acceptorPassword), serviceHost) {
        server.SetHandler(acceptor.Handler());
    }
};

// A value-id column's text, longer than one read of the transport.
const std::string& LargeBody() {
    static const std::string text = [] {
        std::string t = "[";
        for (int i = 0; i < 150000; ++i) {
            t += std::to_string(i * 7919 % 1000003) + ",";
        }
        t.back() = ']';
        return t;
    }();
    return text;
}

TEST(NtlmHandshake, NegotiateThenAuthenticateOnOneConnectionWithTheRequestWholeOnBoth) {
    struct Case {
        const char* name;
        std::string acceptorPassword;
        const char* method;
        std::string body; // "0": none
        bool borrowed;    // the text stays in the caller's buffer, as a value-id chunk's does
        std::string challengePrefix;
        std::string outcome;
    };
    const std::string json = R"({"tableName":"T"})";
    const Case cases[] = {
        {"right password", clientPassword, "POST", json, false, "NTLM ", "status 200"},
        // The service's refusal is an ordinary response for the caller.
        {"wrong password", "Another-Password", "POST", json, false, "NTLM ", "status 401"},
        {"no body", clientPassword, "GET", "0", false, "NTLM ", "status 200"},
        {"owned body larger than one read", clientPassword, "POST", LargeBody(), false, "NTLM ",
         "status 200"},
        // The negotiate leg reads the borrowed text to its end; the final leg must read it again.
        {"borrowed body larger than one read", clientPassword, "POST", LargeBody(), true, "NTLM ",
         "status 200"},
        // Only the length of the challenge's scheme prefix counts, never its text.
        {"challenge scheme in lower case", clientPassword, "POST", json, false, "ntlm ",
         "status 200"},
        {"any five characters before the challenge", clientPassword, "POST", json, false, "12345",
         "status 200"},
    };
    for (const Case& c : cases) {
        NtlmService service(c.acceptorPassword);
        const auto accept = service.acceptor.Handler();
        service.server.SetHandler([&](const auto& request, auto& connection) {
            ScriptedResponse answer = accept(request, connection);
            for (auto& header : answer.headers) {
                header.value.replace(0, std::min<std::size_t>(5, header.value.size()),
                                     c.challengePrefix);
            }
            return answer;
        });
        const JsonText body =
            c.borrowed ? JsonText::Borrowing(c.body.data(), c.body.size()) : JsonText{c.body};

        EXPECT_EQ(Send(service.server.BaseUrl(), body, c.method), c.outcome) << "case: " << c.name;
        const auto legs = service.acceptor.Legs();
        const auto requests = service.server.Requests();
        ASSERT_EQ(legs.size(), 2u) << "case: " << c.name;
        EXPECT_EQ(legs[0].message, 1) << "case: " << c.name;
        EXPECT_EQ(legs[1].message, 3) << "case: " << c.name;
        EXPECT_EQ(legs[1].connectionId, legs[0].connectionId) << "case: " << c.name;
        for (const auto& leg : requests) {
            EXPECT_EQ(leg.HeaderCount("Authorization"), 1u) << "case: " << c.name;
            EXPECT_EQ(leg.method, c.method) << "case: " << c.name;
            EXPECT_EQ(leg.path, "/Import/Tables") << "case: " << c.name;
            EXPECT_TRUE(leg.body == (c.body == "0" ? "" : c.body))
                << "case: " << c.name << ", " << leg.body.size() << " bytes";
            EXPECT_EQ(leg.HeaderValue("Content-Type").value_or("none"),
                      c.body == "0" ? "none" : "application/json")
                << "case: " << c.name;
        }
        EXPECT_EQ(service.acceptor.AuthenticatedUsers(),
                  c.outcome == "status 200" ? std::vector<std::string>{"TESTDOM\\alice"}
                                            : std::vector<std::string>{})
            << "case: " << c.name;
    }
}

std::string NtlmMessage(unsigned char type, std::size_t size, std::uint32_t flags = 0) {
    std::string bytes = {'N', 'T', 'L', 'M', 'S', 'S', 'P', '\0', char(type), 0, 0, 0};
    bytes.resize(size, '\0');
    for (int i = 0; i < 4 && size >= 24; ++i) {
        bytes[20 + i] = static_cast<char>(flags >> (8 * i));
    }
    return "NTLM " + lxrepo::EncodeBase64(bytes);
}

TEST(NtlmHandshake, TheNegotiateAnswerDecidesWhetherAndWhatTheFinalLegIs) {
    struct Case {
        const char* name;
        ScriptedResponse answer;
        std::string outcome;
        std::size_t legs;                 // how many requests reached the server
        std::optional<std::string> final; // Authorization of the final leg, where it is fixed
    };
    const std::string noChallenge =
        ::testing::PrintToString(Expected<std::out_of_range>("invalid string position"));
    const std::string refused = "CResourceException \"\"";
    const auto answer = [](int status, std::optional<std::string> challenge) {
        ScriptedResponse response{status, {}, "negotiate answer", false, std::nullopt};
        if (challenge) {
            response.headers.push_back({"WWW-Authenticate", *challenge});
        }
        return response;
    };
    const Case cases[] = {
        {"200 without challenge", answer(200, std::nullopt), noChallenge, 1, {}},
        // Only a 401 is read for a challenge, whatever else the answer carries.
        {"200 with a challenge header", answer(200, "NTLM TlRMTVNTUAACAAAA"), noChallenge, 1, {}},
        {"500", answer(500, std::nullopt), noChallenge, 1, {}},
        {"401 without WWW-Authenticate", answer(401, std::nullopt), noChallenge, 1, {}},
        {"401 with a bare scheme", answer(401, "NTLM"), noChallenge, 1, {}},
        // Garbage that is valid base64: GSSAPI calls it a defective token, like SSPI's
        // SEC_E_INVALID_TOKEN, and the handshake stops.
        {"challenge of random bytes",
         answer(401, "NTLM " + lxrepo::EncodeBase64("\x13\x37\xde\xad\xbe\xef\x00\x01\x02\x03")),
         refused,
         1,
         {}},
        {"AUTHENTICATE message as challenge", answer(401, NtlmMessage(3, 64)), refused, 1, {}},
        // Unicode, target type domain, no target name: this crashed gss-ntlmssp 1.2 (found by
        // fuzz_ntlm_challenge); it is refused like any defective token.
        {"CHALLENGE naming a target type without a target name",
         answer(401, NtlmMessage(2, 32, 0x00010001)),
         refused,
         1,
         {}},
        // A well-formed but empty CHALLENGE is "another failure" (no target information while
        // sealing is asked for): accepted as it stands, and the empty output goes out as
        // "NTLM " (the server drops the trailing blank, as HTTP lets it).
        {"empty CHALLENGE message", answer(401, NtlmMessage(2, 32)), "status 401", 2,
         std::string("NTLM")},
        {"connection closed without answer",
         ScriptedResponse{200, {}, "", false, std::string()},
         ::testing::PrintToString(
             Expected<web::http::http_exception>("Failed to read HTTP status line")),
         1,
         {}},
    };
    for (const Case& c : cases) {
        RecordingServer server{serviceHost};
        server.Enqueue(c.answer);
        server.SetDefault({401, {}, "", false, std::nullopt});

        EXPECT_EQ(Send(server.BaseUrl(), JsonText{"{}"}), c.outcome) << "case: " << c.name;
        const auto legs = server.Requests();
        ASSERT_EQ(legs.size(), c.legs) << "case: " << c.name;
        EXPECT_EQ(legs[0].HeaderValue("Authorization").value_or("").rfind("NTLM TlRMTVNTUAAB", 0),
                  0u)
            << "case: " << c.name;
        if (c.final) {
            EXPECT_EQ(legs.back().HeaderValue("Authorization"), c.final) << "case: " << c.name;
        }
    }
}

// Each handshake comes from a fresh client and request, as operations create them, against an
// acceptor that only accepts an AUTHENTICATE on the connection that carried its NEGOTIATE.
TEST(NtlmHandshake, FinalLegTravelsOnTheNegotiateConnectionEveryTime) {
    constexpr std::size_t handshakes = 1000;
    NtlmService service(clientPassword);
    std::size_t succeeded = 0;
    for (std::size_t i = 0; i < handshakes; ++i) {
        succeeded += Send(service.server.BaseUrl(), JsonText{"{}"}) == "status 200" ? 1 : 0;
    }
    EXPECT_EQ(succeeded, handshakes);

    const auto legs = service.acceptor.Legs();
    ASSERT_EQ(legs.size(), 2 * handshakes);
    std::size_t onNegotiateConnection = 0;
    for (std::size_t i = 0; i < legs.size(); i += 2) {
        onNegotiateConnection += legs[i].message == 1 && legs[i + 1].message == 3 &&
                                 legs[i + 1].connectionId == legs[i].connectionId;
    }
    EXPECT_EQ(onNegotiateConnection, handshakes);
    // Every client has its own pool: one connection per handshake, never a second one.
    EXPECT_EQ(service.server.ConnectionCount(), handshakes);
}

} // namespace
