#include "core/base/url.hpp"

#include <algorithm>
#include <cctype>
#include <vector>

namespace virela {
namespace {

bool isUnreserved(unsigned char c) {
    return std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~';
}
bool isSubDelim(unsigned char c) {
    return std::string_view("!$&'()*+,;=").find(static_cast<char>(c)) != std::string_view::npos;
}
bool isHex(unsigned char c) {
    return std::isxdigit(c) != 0;
}

// Every character is unreserved, a sub-delimiter, one of `extra`, or a valid percent escape.
bool validComponent(std::string_view s, std::string_view extra) {
    for (std::size_t i = 0; i < s.size(); ++i) {
        auto c = static_cast<unsigned char>(s[i]);
        if (c == '%') {
            if (i + 2 >= s.size() || !isHex(s[i + 1]) || !isHex(s[i + 2])) return false;
            i += 2;
            continue;
        }
        if (isUnreserved(c) || isSubDelim(c) || extra.find(static_cast<char>(c)) != extra.npos)
            continue;
        return false;
    }
    return true;
}

std::string lower(std::string_view s) {
    std::string out(s);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

std::string removeDotSegments(std::string_view input) {
    std::vector<std::string_view> out;
    std::string_view in = input;
    bool absolute = !in.empty() && in.front() == '/';
    bool trailingSlash = false;
    std::size_t pos = absolute ? 1 : 0;
    while (pos <= in.size()) {
        std::size_t next = in.find('/', pos);
        std::string_view seg =
            in.substr(pos, next == std::string_view::npos ? std::string_view::npos : next - pos);
        bool last = next == std::string_view::npos;
        if (seg == ".") {
            trailingSlash = last;
        } else if (seg == "..") {
            if (!out.empty()) out.pop_back();
            trailingSlash = last;
        } else {
            out.push_back(seg);
            trailingSlash = false;
        }
        if (last) break;
        pos = next + 1;
    }
    std::string result = absolute ? "/" : "";
    for (std::size_t i = 0; i < out.size(); ++i) {
        if (i > 0) result += '/';
        result += out[i];
    }
    if (trailingSlash && (result.empty() || result.back() != '/')) result += '/';
    return result;
}

std::string mergePaths(const Url& base, std::string_view refPath) {
    if (base.hasAuthority() && base.path().empty()) return "/" + std::string(refPath);
    auto slash = base.path().rfind('/');
    if (slash == std::string::npos) return std::string(refPath);
    return base.path().substr(0, slash + 1) + std::string(refPath);
}

}  // namespace

std::optional<Url> Url::parse(std::string_view text) {
    Url url;
    std::string_view rest = text;

    // Fragment and query first, so that '?' or '#' never end up in the authority or path.
    if (auto hash = rest.find('#'); hash != std::string_view::npos) {
        std::string_view frag = rest.substr(hash + 1);
        if (!validComponent(frag, ":@/?")) return std::nullopt;
        url.fragment_ = std::string(frag);
        rest = rest.substr(0, hash);
    }
    if (auto q = rest.find('?'); q != std::string_view::npos) {
        std::string_view query = rest.substr(q + 1);
        if (!validComponent(query, ":@/?")) return std::nullopt;
        url.query_ = std::string(query);
        rest = rest.substr(0, q);
    }

    // Scheme: ALPHA *( ALPHA / DIGIT / "+" / "-" / "." ) before the first ':' that comes
    // before any '/'.
    if (auto colon = rest.find(':'); colon != std::string_view::npos && colon > 0) {
        std::string_view candidate = rest.substr(0, colon);
        bool looksLikeScheme = candidate.find('/') == std::string_view::npos;
        if (looksLikeScheme) {
            if (!std::isalpha(static_cast<unsigned char>(candidate[0]))) return std::nullopt;
            for (char c : candidate) {
                auto u = static_cast<unsigned char>(c);
                if (!std::isalnum(u) && c != '+' && c != '-' && c != '.') return std::nullopt;
            }
            url.scheme_ = lower(candidate);
            rest = rest.substr(colon + 1);
        }
    }

    if (rest.substr(0, 2) == "//") {
        url.hasAuthority_ = true;
        rest = rest.substr(2);
        std::size_t end = rest.find('/');
        std::string_view authority = rest.substr(0, end);
        rest = end == std::string_view::npos ? std::string_view{} : rest.substr(end);

        if (auto at = authority.rfind('@'); at != std::string_view::npos) {
            std::string_view user = authority.substr(0, at);
            if (!validComponent(user, ":")) return std::nullopt;
            url.userInfo_ = std::string(user);
            authority = authority.substr(at + 1);
        }
        std::string_view hostPart = authority;
        std::string_view portPart;
        bool hasPort = false;
        if (!authority.empty() && authority.front() == '[') {
            auto close = authority.find(']');
            if (close == std::string_view::npos) return std::nullopt;
            hostPart = authority.substr(0, close + 1);
            std::string_view inside = authority.substr(1, close - 1);
            for (char c : inside) {
                auto u = static_cast<unsigned char>(c);
                if (!isHex(u) && c != ':' && c != '.') return std::nullopt;
            }
            std::string_view after = authority.substr(close + 1);
            if (!after.empty()) {
                if (after.front() != ':') return std::nullopt;
                hasPort = true;
                portPart = after.substr(1);
            }
        } else if (auto colon = authority.rfind(':'); colon != std::string_view::npos) {
            hostPart = authority.substr(0, colon);
            hasPort = true;
            portPart = authority.substr(colon + 1);
        }
        if (hostPart.empty() || hostPart.front() != '[') {
            if (!validComponent(hostPart, "")) return std::nullopt;
            url.host_ = lower(hostPart);
        } else {
            url.host_ = lower(hostPart);
        }
        if (hasPort && !portPart.empty()) {
            if (portPart.size() > 5) return std::nullopt;
            int port = 0;
            for (char c : portPart) {
                if (!std::isdigit(static_cast<unsigned char>(c))) return std::nullopt;
                port = port * 10 + (c - '0');
            }
            if (port > 65535) return std::nullopt;
            url.port_ = port;
        }
    }

    if (!validComponent(rest, ":@/")) return std::nullopt;
    url.path_ = std::string(rest);
    return url;
}

std::optional<Url> Url::resolve(std::string_view reference) const {
    auto ref = parse(reference);
    if (!ref || scheme_.empty()) return std::nullopt;
    Url target;
    if (!ref->scheme_.empty()) {
        target = *ref;
        target.path_ = removeDotSegments(ref->path_);
        return target;
    }
    target.scheme_ = scheme_;
    if (ref->hasAuthority_) {
        target.hasAuthority_ = true;
        target.userInfo_ = ref->userInfo_;
        target.host_ = ref->host_;
        target.port_ = ref->port_;
        target.path_ = removeDotSegments(ref->path_);
        target.query_ = ref->query_;
    } else {
        target.hasAuthority_ = hasAuthority_;
        target.userInfo_ = userInfo_;
        target.host_ = host_;
        target.port_ = port_;
        if (ref->path_.empty()) {
            target.path_ = path_;
            target.query_ = ref->query_ ? ref->query_ : query_;
        } else {
            if (ref->path_.front() == '/') {
                target.path_ = removeDotSegments(ref->path_);
            } else {
                target.path_ = removeDotSegments(mergePaths(*this, ref->path_));
            }
            target.query_ = ref->query_;
        }
    }
    target.fragment_ = ref->fragment_;
    return target;
}

Url Url::withScheme(std::string_view scheme) const {
    Url copy = *this;
    copy.scheme_ = lower(scheme);
    return copy;
}

int Url::effectivePort() const noexcept {
    if (port_) return *port_;
    if (scheme_ == "https" || scheme_ == "wss") return 443;
    return 80;
}

std::string Url::target() const {
    std::string out = path_.empty() ? "/" : path_;
    if (query_) out += "?" + *query_;
    return out;
}

std::string Url::str() const {
    std::string out;
    if (!scheme_.empty()) out += scheme_ + ":";
    if (hasAuthority_) {
        out += "//";
        if (!userInfo_.empty()) out += userInfo_ + "@";
        out += host_;
        if (port_) out += ":" + std::to_string(*port_);
    }
    out += path_;
    if (query_) out += "?" + *query_;
    if (fragment_) out += "#" + *fragment_;
    return out;
}

}  // namespace virela
