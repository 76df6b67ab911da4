#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace virela {

// An absolute or relative URI reference, parsed the RFC 3986 way. Only what the library needs:
// parse, resolve a reference against a base, read the parts, change the scheme.
class Url {
  public:
    Url() = default;

    // nullopt for text that is not a valid URI reference (spaces, control characters, bad
    // percent escapes, a malformed authority).
    static std::optional<Url> parse(std::string_view text);

    // Standard relative-reference resolution (RFC 3986 section 5.2). nullopt if `reference`
    // does not parse or this URL has no scheme.
    std::optional<Url> resolve(std::string_view reference) const;

    Url withScheme(std::string_view scheme) const;

    const std::string& scheme() const noexcept { return scheme_; }
    bool hasAuthority() const noexcept { return hasAuthority_; }
    const std::string& userInfo() const noexcept { return userInfo_; }
    const std::string& host() const noexcept { return host_; }  // IPv6 literals keep brackets
    std::optional<int> port() const noexcept { return port_; }
    const std::string& path() const noexcept { return path_; }
    const std::optional<std::string>& query() const noexcept { return query_; }
    const std::optional<std::string>& fragment() const noexcept { return fragment_; }

    bool isAbsolute() const noexcept { return !scheme_.empty(); }
    // The port to connect to: the explicit one, else 443 for https/wss, 80 for http/ws.
    int effectivePort() const noexcept;
    // Path and query as sent in an HTTP request line ("/" when the path is empty).
    std::string target() const;
    std::string str() const;

    friend bool operator==(const Url& a, const Url& b) { return a.str() == b.str(); }

  private:
    std::string scheme_;
    bool hasAuthority_ = false;
    std::string userInfo_;
    std::string host_;
    std::optional<int> port_;
    std::string path_;
    std::optional<std::string> query_;
    std::optional<std::string> fragment_;
};

}  // namespace virela
