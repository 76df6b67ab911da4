#include "tools/devserver/multipart.hpp"

#include <algorithm>
#include <cctype>

namespace virela::devserver {

namespace {

// RFC 2046 caps a boundary at 70 characters.
constexpr std::size_t kMaxBoundary = 70;

bool isSpace(char c) {
    return c == ' ' || c == '\t';
}

bool isTokenChar(char c) {
    const auto u = static_cast<unsigned char>(c);
    if (u <= 0x20 || u >= 0x7f) return false;
    return std::string_view("()<>@,;:\\\"/[]?={}").find(c) == std::string_view::npos;
}

std::string_view trim(std::string_view text) {
    const std::size_t first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

std::string lower(std::string_view text) {
    std::string result(text);
    for (char& c : result) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return result;
}

// Where a delimiter line "--boundary" starting at `at` ends: past its CRLF, or past the "--"
// of the closing one, which needs no CRLF after it. nullopt when `at` starts no such line.
struct Delimiter {
    std::size_t end = 0;
    bool closing = false;
};

std::optional<Delimiter> delimiterAt(std::string_view body, std::string_view dashBoundary,
                                     std::size_t at) {
    if (at > body.size() || body.substr(at, dashBoundary.size()) != dashBoundary) {
        return std::nullopt;
    }
    std::size_t i = at + dashBoundary.size();
    if (body.substr(i, 2) == "--") return Delimiter{i + 2, true};
    while (i < body.size() && isSpace(body[i])) ++i;  // transport padding
    if (body.substr(i, 2) != "\r\n") return std::nullopt;
    return Delimiter{i + 2, false};
}

// The next "CRLF--boundary" line at or after `from`: its start (the CRLF) and where it ends.
// Occurrences followed by anything but padding, CRLF or "--" are content, not delimiters.
std::optional<std::pair<std::size_t, Delimiter>> nextDelimiter(std::string_view body,
                                                               std::string_view dashBoundary,
                                                               std::size_t from) {
    while (from < body.size()) {
        const std::size_t crlf = body.find("\r\n", from);
        if (crlf == std::string_view::npos) return std::nullopt;
        if (auto delimiter = delimiterAt(body, dashBoundary, crlf + 2)) {
            return std::make_pair(crlf, *delimiter);
        }
        from = crlf + 1;
    }
    return std::nullopt;
}

struct PartHeaders {
    std::vector<std::pair<std::string, std::string>> fields;  // names lowercased
    std::size_t blankLine = 0;  // index of the CRLF of the empty line that ends them

    const std::string* find(std::string_view name) const {
        for (const auto& [key, value] : fields) {
            if (key == name) return &value;
        }
        return nullptr;
    }
};

// The header lines of a part starting at `at`, up to an empty line. Obsolete folded lines are
// joined to the one before.
std::optional<PartHeaders> parsePartHeaders(std::string_view body, std::size_t at) {
    PartHeaders headers;
    for (;;) {
        const std::size_t end = body.find("\r\n", at);
        if (end == std::string_view::npos) return std::nullopt;
        const std::string_view line = body.substr(at, end - at);
        if (line.empty()) {
            headers.blankLine = end;
            return headers;
        }
        if (isSpace(line.front())) {
            if (headers.fields.empty()) return std::nullopt;
            std::string& value = headers.fields.back().second;
            value += ' ';
            value += trim(line);
        } else {
            const std::size_t colon = line.find(':');
            if (colon == std::string_view::npos || colon == 0) return std::nullopt;
            const std::string_view name = line.substr(0, colon);
            if (!std::all_of(name.begin(), name.end(), isTokenChar)) return std::nullopt;
            headers.fields.emplace_back(lower(name), std::string(trim(line.substr(colon + 1))));
        }
        at = end + 2;
    }
}

}  // namespace

std::optional<std::string> HeaderValue::parameter(std::string_view name) const {
    for (const auto& [key, value] : parameters) {
        if (key == name) return value;
    }
    return std::nullopt;
}

std::optional<HeaderValue> parseHeaderValue(std::string_view value) {
    HeaderValue parsed;
    const std::size_t n = value.size();
    std::size_t i = value.find(';');
    if (i == std::string_view::npos) i = n;
    parsed.type = trim(value.substr(0, i));
    if (parsed.type.empty()) return std::nullopt;
    auto skipSpace = [&] {
        while (i < n && isSpace(value[i])) ++i;
    };
    // Here and after every parameter, `i` is at a ';' or at the end.
    while (i < n) {
        ++i;
        skipSpace();
        if (i == n) break;
        if (value[i] == ';') continue;
        const std::size_t nameStart = i;
        while (i < n && isTokenChar(value[i])) ++i;
        std::string name = lower(value.substr(nameStart, i - nameStart));
        skipSpace();
        if (name.empty() || i == n || value[i] != '=') return std::nullopt;
        ++i;
        skipSpace();
        std::string text;
        if (i < n && value[i] == '"') {
            bool closed = false;
            for (++i; i < n && !closed;) {
                char c = value[i++];
                if (c == '"') {
                    closed = true;
                } else {
                    if (c == '\\' && i < n) c = value[i++];
                    text += c;
                }
            }
            if (!closed) return std::nullopt;
        } else {
            const std::size_t start = i;
            while (i < n && value[i] != ';' && !isSpace(value[i])) ++i;
            text = value.substr(start, i - start);
        }
        skipSpace();
        if (i < n && value[i] != ';') return std::nullopt;
        parsed.parameters.emplace_back(std::move(name), std::move(text));
    }
    return parsed;
}

std::optional<std::string> formDataBoundary(std::string_view contentType) {
    std::optional<HeaderValue> parsed = parseHeaderValue(contentType);
    if (!parsed || lower(parsed->type) != "multipart/form-data") return std::nullopt;
    std::optional<std::string> boundary = parsed->parameter("boundary");
    if (!boundary || boundary->empty() || boundary->size() > kMaxBoundary) return std::nullopt;
    return boundary;
}

std::optional<std::vector<FormPart>> parseFormData(std::string_view body,
                                                   std::string_view boundary) {
    if (boundary.empty()) return std::nullopt;
    const std::string dashBoundary = "--" + std::string(boundary);

    // The first delimiter opens the body or follows a preamble on a line of its own.
    std::optional<Delimiter> delimiter = delimiterAt(body, dashBoundary, 0);
    if (!delimiter) {
        auto found = nextDelimiter(body, dashBoundary, 0);
        if (!found) return std::nullopt;
        delimiter = found->second;
    }

    std::vector<FormPart> parts;
    while (!delimiter->closing) {
        std::optional<PartHeaders> headers = parsePartHeaders(body, delimiter->end);
        if (!headers) return std::nullopt;
        // The empty line's CRLF doubles as the delimiter's when the part has no content.
        auto next = nextDelimiter(body, dashBoundary, headers->blankLine);
        if (!next) return std::nullopt;

        const std::string* disposition = headers->find("content-disposition");
        if (disposition == nullptr) return std::nullopt;
        std::optional<HeaderValue> parsed = parseHeaderValue(*disposition);
        if (!parsed || lower(parsed->type) != "form-data") return std::nullopt;
        std::optional<std::string> name = parsed->parameter("name");
        if (!name) return std::nullopt;

        FormPart part;
        part.name = std::move(*name);
        part.fileName = parsed->parameter("filename");
        if (const std::string* type = headers->find("content-type")) part.contentType = *type;
        const std::size_t contentStart = headers->blankLine + 2;
        if (next->first > headers->blankLine) {
            part.data = body.substr(contentStart, next->first - contentStart);
        }
        parts.push_back(std::move(part));
        delimiter = next->second;
    }
    return parts;
}

}  // namespace virela::devserver
