#include "support/OidcProvider.h"

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <poll.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace testsupport {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;

namespace {

constexpr auto kStartLimit = std::chrono::seconds(30);

struct HttpUrl {
    std::string origin; // "http://host:port"
    std::string host;
    std::string port;
    std::string target; // "/path?query"
};

HttpUrl ParseHttpUrl(const std::string& url) {
    const std::string scheme = "http://";
    if (url.compare(0, scheme.size(), scheme) != 0) {
        throw std::invalid_argument("not an http URL: " + url);
    }
    const std::size_t slash = url.find('/', scheme.size());
    HttpUrl parsed;
    parsed.origin = url.substr(0, slash);
    parsed.target = slash == std::string::npos ? "/" : url.substr(slash);
    const std::string authority = parsed.origin.substr(scheme.size());
    const std::size_t colon = authority.rfind(':');
    parsed.host = authority.substr(0, colon);
    parsed.port = colon == std::string::npos ? "80" : authority.substr(colon + 1);
    return parsed;
}

http::response<http::string_body> HttpGet(const std::string& url,
                                          const std::vector<std::pair<std::string, std::string>>& headers) {
    const HttpUrl parsed = ParseHttpUrl(url);
    asio::io_context io;
    beast::tcp_stream stream(io);
    stream.expires_after(std::chrono::seconds(20));
    stream.connect(tcp::resolver(io).resolve(parsed.host, parsed.port));
    http::request<http::empty_body> request(http::verb::get, parsed.target, 11);
    request.set(http::field::host, parsed.origin.substr(7));
    for (const auto& [name, value] : headers) {
        request.set(name, value);
    }
    http::write(stream, request);
    beast::flat_buffer buffer;
    http::response<http::string_body> response;
    http::read(stream, buffer, response);
    beast::error_code ignored;
    stream.socket().shutdown(tcp::socket::shutdown_both, ignored);
    return response;
}

std::string Resolve(const std::string& base, const std::string& location) {
    if (location.compare(0, 7, "http://") == 0) {
        return location;
    }
    const HttpUrl parsed = ParseHttpUrl(base);
    if (!location.empty() && location[0] == '/') {
        return parsed.origin + location;
    }
    const std::string path = parsed.target.substr(0, parsed.target.find('?'));
    return parsed.origin + path.substr(0, path.rfind('/') + 1) + location;
}

int HexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::string Decode(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '+') {
            out += ' ';
        } else if (text[i] == '%' && i + 2 < text.size() && HexValue(text[i + 1]) >= 0 &&
                   HexValue(text[i + 2]) >= 0) {
            out += static_cast<char>(HexValue(text[i + 1]) * 16 + HexValue(text[i + 2]));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

std::string ReadLine(int fd, std::chrono::steady_clock::time_point deadline) {
    std::string line;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd ready{fd, POLLIN, 0};
        if (left.count() <= 0 || poll(&ready, 1, static_cast<int>(left.count())) == 0) {
            throw std::runtime_error("the OpenID provider did not start listening in time");
        }
        char c;
        const ssize_t got = read(fd, &c, 1);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            throw std::runtime_error("the OpenID provider exited before it listened (its "
                                     "output is above)");
        }
        if (c == '\n') {
            return line;
        }
        line += c;
    }
}

void RequireNodeModules(const std::filesystem::path& dir) {
    if (!std::filesystem::exists(dir / "node_modules" / "oidc-provider" / "package.json")) {
        throw std::runtime_error("the OpenID provider's npm packages are missing from " +
                                 (dir / "node_modules").string() +
                                 ": run `npm ci --prefix tests/oidc` in the source tree");
    }
}

} // namespace

OidcProvider::OidcProvider() {
    const std::filesystem::path dir = TRI_OIDC_DIR;
    RequireNodeModules(dir);
    int pipeFds[2];
    if (pipe(pipeFds) != 0) {
        throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, pipeFds[0]);
    posix_spawn_file_actions_addclose(&actions, pipeFds[1]);
    const std::string script = (dir / "provider.mjs").string();
    char* argv[] = {const_cast<char*>("node"), const_cast<char*>(script.c_str()),
                    const_cast<char*>("0"), nullptr};
    pid_t pid = -1;
    const int spawned = posix_spawnp(&pid, "node", &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    close(pipeFds[1]);
    output_ = pipeFds[0];
    if (spawned != 0) {
        close(output_);
        throw std::runtime_error(std::string("cannot run node for the OpenID provider: ") +
                                 std::strerror(spawned));
    }
    pid_ = pid;
    try {
        const auto deadline = std::chrono::steady_clock::now() + kStartLimit;
        const std::string line = ReadLine(output_, deadline);
        if (line.compare(0, 10, "listening ") != 0) {
            throw std::runtime_error("the OpenID provider said: " + line);
        }
        port_ = static_cast<unsigned short>(std::stoi(line.substr(10)));
        // Whatever else the provider prints goes to the test's log instead of filling the pipe.
        drain_ = std::thread([fd = output_] {
            char chunk[4096];
            ssize_t got;
            while ((got = read(fd, chunk, sizeof chunk)) > 0 || (got < 0 && errno == EINTR)) {
                if (got > 0) std::cerr.write(chunk, got);
            }
        });
        while (HttpGet(IdentityUrl() + "/.well-known/openid-configuration", {}).result_int() != 200) {
            if (std::chrono::steady_clock::now() > deadline) {
                throw std::runtime_error("the OpenID provider does not answer discovery");
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    } catch (...) {
        Stop();
        throw;
    }
}

OidcProvider::~OidcProvider() { Stop(); }

void OidcProvider::Stop() {
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        int status = 0;
        while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
        pid_ = -1;
    }
    if (drain_.joinable()) {
        drain_.join();
    }
    if (output_ >= 0) {
        close(output_);
        output_ = -1;
    }
}

std::string OidcProvider::BaseUrl() const { return "http://127.0.0.1:" + std::to_string(port_); }

std::string OidcProvider::IdentityUrl() const { return BaseUrl() + "/identity"; }

int OidcProvider::ConnectStatus(const std::string& accessToken) const {
    const auto response =
        HttpGet(BaseUrl() + "/Import/Connect", {{"Authorization", "Bearer " + accessToken}});
    return static_cast<int>(response.result_int());
}

TestBrowser::TestBrowser(std::string decision) { cookies_["test_decision"] = std::move(decision); }

BrowserPage TestBrowser::Get(const std::string& url) {
    std::string cookieHeader;
    for (const auto& [name, value] : cookies_) {
        cookieHeader += (cookieHeader.empty() ? "" : "; ") + name + "=" + value;
    }
    const auto response = HttpGet(url, {{"Cookie", cookieHeader}});
    for (const auto& field : response.base()) {
        if (field.name() != http::field::set_cookie) {
            continue;
        }
        const std::string cookie(field.value().substr(0, field.value().find(';')));
        const std::size_t equals = cookie.find('=');
        const std::string name = cookie.substr(0, equals);
        const std::string value = equals == std::string::npos ? "" : cookie.substr(equals + 1);
        if (value.empty()) {
            cookies_.erase(name); // how a server deletes a cookie
        } else {
            cookies_[name] = value;
        }
    }
    BrowserPage page{static_cast<int>(response.result_int()), url, std::string(), response.body()};
    const auto location = response.find(http::field::location);
    if (page.status >= 300 && page.status < 400 && location != response.end()) {
        page.location = Resolve(url, std::string(location->value()));
    }
    return page;
}

BrowserPage TestBrowser::Visit(const std::string& url) {
    BrowserPage page = Get(url);
    for (int hop = 0; hop < 20 && !page.location.empty(); ++hop) {
        page = Get(page.location);
    }
    return page;
}

std::map<std::string, std::string> QueryFields(const std::string& url) {
    std::map<std::string, std::string> fields;
    const std::size_t query = url.find('?');
    if (query == std::string::npos) {
        return fields;
    }
    std::size_t begin = query + 1;
    while (begin <= url.size()) {
        std::size_t end = url.find('&', begin);
        if (end == std::string::npos) end = url.size();
        const std::string pair = url.substr(begin, end - begin);
        const std::size_t equals = pair.find('=');
        fields.emplace(Decode(pair.substr(0, equals)),
                       equals == std::string::npos ? "" : Decode(pair.substr(equals + 1)));
        begin = end + 1;
    }
    return fields;
}

} // namespace testsupport
