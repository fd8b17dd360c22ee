#include "support/NtlmAcceptor.h"

#include <gssapi/gssapi.h>
#include <gssapi/gssapi_ext.h>

#include <any>
#include <array>
#include <stdexcept>
#include <utility>

namespace testsupport {

namespace {

gss_OID_desc ntlmMechanism = {10, const_cast<char*>("\x2b\x06\x01\x04\x01\x82\x37\x02\x02\x0a")};

constexpr std::string_view base64Alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

ScriptedResponse Unauthorized(std::string wwwAuthenticate) {
    ScriptedResponse response;
    response.status = 401;
    response.headers.push_back({"WWW-Authenticate", std::move(wwwAuthenticate)});
    return response;
}

// The acceptor context of the handshake in progress on one connection.
struct PendingHandshake {
    gss_ctx_id_t context = GSS_C_NO_CONTEXT;
    PendingHandshake() = default;
    PendingHandshake(const PendingHandshake&) = delete;
    PendingHandshake& operator=(const PendingHandshake&) = delete;
    ~PendingHandshake() {
        if (context != GSS_C_NO_CONTEXT) {
            OM_uint32 minor = 0;
            gss_delete_sec_context(&minor, &context, GSS_C_NO_BUFFER);
        }
    }
};

std::string DisplayName(gss_name_t name) {
    OM_uint32 minor = 0;
    gss_buffer_desc text = GSS_C_EMPTY_BUFFER;
    if (GSS_ERROR(gss_display_name(&minor, name, &text, nullptr))) {
        return {};
    }
    std::string result(static_cast<const char*>(text.value), text.length);
    gss_release_buffer(&minor, &text);
    // gss-ntlmssp counts the terminating NUL in the length.
    while (!result.empty() && result.back() == '\0') {
        result.pop_back();
    }
    return result;
}

} // namespace

std::optional<std::vector<unsigned char>> DecodeBase64(std::string_view text) {
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    std::vector<unsigned char> bytes;
    for (std::size_t group = 0; group < text.size(); group += 4) {
        const bool last = group + 4 == text.size();
        unsigned int bits = 0;
        int padding = 0;
        for (std::size_t i = 0; i < 4; ++i) {
            const char c = text[group + i];
            if (c == '=' && last && i >= 2) {
                ++padding;
                bits <<= 6;
                continue;
            }
            const auto value = base64Alphabet.find(c);
            if (value == std::string_view::npos || padding > 0) {
                return std::nullopt;
            }
            bits = (bits << 6) | static_cast<unsigned int>(value);
        }
        bytes.push_back(static_cast<unsigned char>(bits >> 16));
        if (padding < 2) {
            bytes.push_back(static_cast<unsigned char>(bits >> 8));
        }
        if (padding < 1) {
            bytes.push_back(static_cast<unsigned char>(bits));
        }
    }
    return bytes;
}

std::string EncodeBase64(const std::vector<unsigned char>& bytes) {
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t n = std::min<std::size_t>(3, bytes.size() - i);
        unsigned int bits = static_cast<unsigned int>(bytes[i]) << 16;
        if (n > 1) {
            bits |= static_cast<unsigned int>(bytes[i + 1]) << 8;
        }
        if (n > 2) {
            bits |= bytes[i + 2];
        }
        for (std::size_t k = 0; k < 4; ++k) {
            text.push_back(k <= n ? base64Alphabet[(bits >> (18 - 6 * k)) & 0x3F] : '=');
        }
    }
    return text;
}

int NtlmMessageType(const std::vector<unsigned char>& token) {
    static constexpr std::array<unsigned char, 8> signature = {'N', 'T', 'L', 'M',
                                                               'S', 'S', 'P', '\0'};
    if (token.size() < 12 || !std::equal(signature.begin(), signature.end(), token.begin())) {
        return 0;
    }
    return static_cast<int>(token[8] | token[9] << 8 | token[10] << 16 |
                            static_cast<unsigned int>(token[11]) << 24);
}

struct NtlmAcceptor::Credentials {
    gss_cred_id_t handle = GSS_C_NO_CREDENTIAL;
};

NtlmAcceptor::NtlmAcceptor(const std::string& userFile, const std::string& serviceHost)
    : credentials_(std::make_unique<Credentials>()) {
    OM_uint32 minor = 0;
    // gss-ntlmssp only honours a key file for a named server credential.
    std::string service = "HTTP@" + serviceHost;
    gss_buffer_desc serviceName = {service.size(), service.data()};
    gss_name_t name = GSS_C_NO_NAME;
    if (GSS_ERROR(gss_import_name(&minor, &serviceName, GSS_C_NT_HOSTBASED_SERVICE, &name))) {
        throw std::runtime_error("gss_import_name failed for the acceptor");
    }
    gss_key_value_element_desc keyFile = {"ntlmssp_keyfile", userFile.c_str()};
    gss_key_value_set_desc store = {1, &keyFile};
    gss_OID_set_desc mechanisms = {1, &ntlmMechanism};
    const OM_uint32 major =
        gss_acquire_cred_from(&minor, name, GSS_C_INDEFINITE, &mechanisms, GSS_C_ACCEPT, &store,
                              &credentials_->handle, nullptr, nullptr);
    gss_release_name(&minor, &name);
    if (GSS_ERROR(major)) {
        throw std::runtime_error("gss_acquire_cred_from failed for the acceptor");
    }
}

NtlmAcceptor::~NtlmAcceptor() {
    OM_uint32 minor = 0;
    gss_release_cred(&minor, &credentials_->handle);
}

RecordingServer::Handler NtlmAcceptor::Handler() {
    return [this](const RecordedRequest& request, ConnectionContext& connection) {
        return Answer(request, connection);
    };
}

ScriptedResponse NtlmAcceptor::Answer(const RecordedRequest& request,
                                      ConnectionContext& connection) {
    LegKind kind = LegKind::Other;
    std::optional<std::vector<unsigned char>> token;
    const auto authorization = request.HeaderValue("Authorization");
    if (!authorization) {
        kind = LegKind::NoAuthorization;
    } else if (authorization->rfind("NTLM ", 0) == 0) {
        token = DecodeBase64(std::string_view(*authorization).substr(5));
        const int type = token ? NtlmMessageType(*token) : 0;
        kind = type == 1 ? LegKind::Negotiate : type == 3 ? LegKind::Authenticate : LegKind::Other;
    }

    ScriptedResponse response = Unauthorized("NTLM");
    std::string user;
    if (kind == LegKind::Negotiate) {
        auto pending = std::make_shared<PendingHandshake>();
        OM_uint32 minor = 0;
        gss_buffer_desc input = {token->size(), token->data()};
        gss_buffer_desc output = GSS_C_EMPTY_BUFFER;
        const OM_uint32 major = gss_accept_sec_context(
            &minor, &pending->context, credentials_->handle, &input, GSS_C_NO_CHANNEL_BINDINGS,
            nullptr, nullptr, &output, nullptr, nullptr, nullptr);
        if (major == GSS_S_CONTINUE_NEEDED) {
            const auto* bytes = static_cast<const unsigned char*>(output.value);
            response = Unauthorized("NTLM " + EncodeBase64({bytes, bytes + output.length}));
            connection.authentication = pending;
        } else {
            connection.authentication.reset();
        }
        gss_release_buffer(&minor, &output);
    } else if (kind == LegKind::Authenticate) {
        auto* slot = std::any_cast<std::shared_ptr<PendingHandshake>>(&connection.authentication);
        if (slot != nullptr && *slot) {
            auto pending = std::move(*slot);
            connection.authentication.reset();
            OM_uint32 minor = 0;
            gss_buffer_desc input = {token->size(), token->data()};
            gss_buffer_desc output = GSS_C_EMPTY_BUFFER;
            gss_name_t source = GSS_C_NO_NAME;
            const OM_uint32 major = gss_accept_sec_context(
                &minor, &pending->context, credentials_->handle, &input, GSS_C_NO_CHANNEL_BINDINGS,
                &source, nullptr, &output, nullptr, nullptr, nullptr);
            if (major == GSS_S_COMPLETE) {
                response = ScriptedResponse{};
                response.status = 200;
                response.body = "authenticated";
                user = DisplayName(source);
            }
            gss_release_buffer(&minor, &output);
            if (source != GSS_C_NO_NAME) {
                gss_release_name(&minor, &source);
            }
        }
    }

    std::lock_guard<std::mutex> lock(mutex_);
    legs_.push_back({connection.id, kind, response.status});
    if (response.status == 200) {
        users_.push_back(user);
    }
    return response;
}

std::vector<NtlmAcceptor::Leg> NtlmAcceptor::Legs() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return legs_;
}

std::vector<std::string> NtlmAcceptor::AuthenticatedUsers() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return users_;
}

} // namespace testsupport
