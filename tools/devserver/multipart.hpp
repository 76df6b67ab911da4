#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace virela::devserver {

// A header value of the form `type; name=value; name="quoted value"`, as Content-Type and
// Content-Disposition are written. The type is kept as sent; parameter names are lowercased.
struct HeaderValue {
    std::string type;
    std::vector<std::pair<std::string, std::string>> parameters;

    // The first parameter with that name (lowercase), or nullopt.
    std::optional<std::string> parameter(std::string_view name) const;
};

// nullopt for an empty type, an unterminated quote or anything else that does not parse.
std::optional<HeaderValue> parseHeaderValue(std::string_view value);

// The boundary of a "multipart/form-data" Content-Type, or nullopt when the type is another or
// the boundary is missing, empty or longer than the 70 characters a boundary may have.
std::optional<std::string> formDataBoundary(std::string_view contentType);

// One part of a multipart/form-data body. `data` points into the parsed body.
struct FormPart {
    std::string name;
    std::optional<std::string> fileName;
    std::optional<std::string> contentType;
    std::string_view data;
};

// The parts of a multipart/form-data body, in order. nullopt when the body is malformed: no
// opening delimiter, no closing one (a truncated body), a part whose headers do not parse or
// that lacks a form-data Content-Disposition with a name. Preamble and epilogue are skipped.
std::optional<std::vector<FormPart>> parseFormData(std::string_view body,
                                                   std::string_view boundary);

}  // namespace virela::devserver
