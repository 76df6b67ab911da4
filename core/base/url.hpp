#pragma once

/// @file
/// URLs as the library parses and resolves them.

#include <optional>
#include <string>
#include <string_view>

namespace virela {

/// An absolute or relative URI reference, parsed the RFC 3986 way. Only what the library needs:
/// parse, resolve a reference against a base, read the parts, change the scheme.
class Url {
  public:
    /// The empty reference.
    Url() = default;

    /// nullopt for text that is not a valid URI reference (spaces, control characters, bad
    /// percent escapes, a malformed authority).
    static std::optional<Url> parse(std::string_view text);

    /// Standard relative-reference resolution (RFC 3986 section 5.2). nullopt if `reference`
    /// does not parse or this URL has no scheme.
    std::optional<Url> resolve(std::string_view reference) const;

    /// This URL with another scheme ("wss" for "https", say).
    Url withScheme(std::string_view scheme) const;

    /// The scheme, in lower case; empty for a relative reference.
    const std::string& scheme() const noexcept { return scheme_; }
    /// True when the reference has an authority ("//host...").
    bool hasAuthority() const noexcept { return hasAuthority_; }
    /// The user information before "@"; empty when there is none.
    const std::string& userInfo() const noexcept { return userInfo_; }
    /// The host; IPv6 literals keep their brackets.
    const std::string& host() const noexcept { return host_; }
    /// The explicit port, if any.
    std::optional<int> port() const noexcept { return port_; }
    /// The path; empty when there is none.
    const std::string& path() const noexcept { return path_; }
    /// The query without its "?"; nullopt when there is none.
    const std::optional<std::string>& query() const noexcept { return query_; }
    /// The fragment without its "#"; nullopt when there is none.
    const std::optional<std::string>& fragment() const noexcept { return fragment_; }

    /// True when the reference has a scheme.
    bool isAbsolute() const noexcept { return !scheme_.empty(); }
    /// The port to connect to: the explicit one, else 443 for https/wss, 80 for http/ws.
    int effectivePort() const noexcept;
    /// Path and query as sent in an HTTP request line ("/" when the path is empty).
    std::string target() const;
    /// The reference as text.
    std::string str() const;

    /// Equal when their texts are.
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
