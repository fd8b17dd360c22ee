#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>

// The redirect target of a native application's login (RFC 8252 section 7.3): an HTTP listener
// on 127.0.0.1 at a port the system picks, alive for one login. It runs on the caller's thread,
// and only while the caller waits in WaitForRedirect.
class LoopbackListener {
public:
    using Fields = std::map<std::string, std::string>;

    // Binds 127.0.0.1 port 0 and listens; throws boost::system::system_error when it cannot.
    explicit LoopbackListener(std::string callbackPath);
    // Closes the port and every connection still open, the browser's included.
    ~LoopbackListener();
    LoopbackListener(const LoopbackListener&) = delete;
    LoopbackListener& operator=(const LoopbackListener&) = delete;

    // "http://127.0.0.1:<port><callbackPath>".
    std::string RedirectUri() const;

    // Serves the browser until a request for the callback path carries `state`, and returns the
    // fields of its query. Other requests get a short page and change nothing. Empty when `limit`
    // passes first.
    std::optional<Fields> WaitForRedirect(const std::string& state, std::chrono::milliseconds limit);

    // Answers the request that WaitForRedirect returned with a page telling how the login ended.
    void AnswerBrowser(bool loggedIn);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};
