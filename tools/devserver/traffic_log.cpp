#include "tools/devserver/traffic_log.hpp"

#include <array>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "tools/devserver/exchange.hpp"
#include "tools/devserver/multipart.hpp"

namespace virela::devserver {

namespace {

using nlohmann::ordered_json;

// Bodies past this are cut: devices send small JSON, and images are recorded as their framing.
constexpr std::size_t kKeptBody = 64 * 1024;
// Framing text (preamble, part headers, epilogue) past this is cut; the documented framing is
// far shorter.
constexpr std::size_t kKeptFraming = 512;
constexpr std::size_t kMagicBytes = 8;

// By the lowercase names the log gives them; matched whatever their case on the wire.
constexpr std::array<std::string_view, 3> kHeadersThatMatter = {"x-virela-key", "x-virela-device",
                                                                "content-type"};

// At most `limit` bytes of text; invalid UTF-8, a character cut here included, is replaced when
// the line is written rather than failing it.
ordered_json text(std::string_view bytes, std::size_t limit) {
    return std::string(bytes.substr(0, limit));
}

std::string hex(std::string_view bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : bytes) {
        out += kDigits[c >> 4];
        out += kDigits[c & 0xf];
    }
    return out;
}

// Every value of the headers a device route reads, duplicates kept.
ordered_json headersThatMatter(const std::vector<Header>& headers) {
    ordered_json out = ordered_json::object();
    for (std::string_view name : kHeadersThatMatter) {
        ordered_json values = ordered_json::array();
        for (const Header& header : headers) {
            if (equalsIgnoringCase(header.name, name)) values.push_back(text(header.value, 1024));
        }
        if (!values.empty()) out[std::string(name)] = std::move(values);
    }
    return out;
}

// The framing of a multipart body, cut at its delimiters as written, so that the checker can
// compare it with the documented layout byte for byte: no part is interpreted here.
ordered_json framing(std::string_view body, std::string_view boundary) {
    ordered_json out;
    out["boundary"] = std::string(boundary);
    const std::string delimiter = "--" + std::string(boundary);
    std::size_t at = body.find(delimiter);
    if (at == std::string_view::npos) {
        out["preamble"] = text(body, kKeptFraming);
        out["parts"] = ordered_json::array();
        out["closed"] = false;
        return out;
    }
    out["preamble"] = text(body.substr(0, at), kKeptFraming);
    ordered_json parts = ordered_json::array();
    bool closed = false;
    std::size_t pos = at + delimiter.size();
    for (;;) {
        if (body.substr(pos, 2) == "--") {
            closed = true;
            out["epilogue"] = text(body.substr(pos + 2), kKeptFraming);
            break;
        }
        if (body.substr(pos, 2) != "\r\n") {
            out["afterDelimiter"] = text(body.substr(pos), kKeptFraming);
            break;
        }
        pos += 2;
        const std::size_t headEnd = body.find("\r\n\r\n", pos);
        if (headEnd == std::string_view::npos) {
            parts.push_back({{"head", text(body.substr(pos), kKeptFraming)}});
            break;
        }
        const std::size_t dataAt = headEnd + 4;
        const std::size_t next = body.find("\r\n" + delimiter, dataAt);
        const std::size_t dataEnd = next == std::string_view::npos ? body.size() : next;
        const std::string_view data = body.substr(dataAt, dataEnd - dataAt);
        parts.push_back({{"head", text(body.substr(pos, headEnd - pos), kKeptFraming)},
                         {"size", data.size()},
                         {"magic", hex(data.substr(0, kMagicBytes))}});
        if (next == std::string_view::npos) break;
        pos = next + 2 + delimiter.size();
    }
    out["parts"] = std::move(parts);
    out["closed"] = closed;
    return out;
}

void putBody(ordered_json& line, std::string_view body, std::string_view contentType) {
    if (std::optional<std::string> boundary = formDataBoundary(contentType)) {
        line["multipart"] = framing(body, *boundary);
        line["size"] = body.size();
        return;
    }
    line["body"] = text(body, kKeptBody);
    if (body.size() > kKeptBody) line["size"] = body.size();
}

}  // namespace

TrafficLog::TrafficLog(const std::string& path) : file_(std::fopen(path.c_str(), "a")) {
    if (file_ == nullptr) throw std::runtime_error("cannot open the traffic log " + path);
}

TrafficLog::~TrafficLog() {
    std::fclose(file_);
}

void TrafficLog::request(const RecordedRequest& request, const Reply* reply, bool canned) {
    ordered_json line;
    if (!request.path.starts_with("/v1/sdk/")) {
        line["t"] = "skipped";
        line["scope"] = request.path.starts_with("/console") ? "console" : "other";
        line["method"] = text(request.method, 64);
        line["path"] = text(request.path, 1024);
        line["status"] = reply != nullptr ? reply->status : 0;
        return write(line);
    }
    line["t"] = "http";
    line["method"] = text(request.method, 64);
    line["path"] = text(request.path, 4096);
    if (request.target != request.path) line["target"] = text(request.target, 4096);
    line["headers"] = headersThatMatter(request.headers);
    putBody(line, request.body, request.header("Content-Type").value_or(""));
    line["status"] = reply != nullptr ? reply->status : 0;
    if (reply != nullptr) {
        ordered_json answered;
        if (!reply->contentType.empty()) answered["contentType"] = reply->contentType;
        answered["body"] = text(reply->body, kKeptBody);
        line["reply"] = std::move(answered);
    }
    if (canned) line["canned"] = true;
    write(line);
}

void TrafficLog::upgrade(const RecordedRequest& request, int status, std::string_view deviceId,
                         std::string_view subprotocol) {
    ordered_json offered = ordered_json::array();
    for (const Header& header : request.headers) {
        if (equalsIgnoringCase(header.name, "Sec-WebSocket-Protocol")) {
            offered.push_back(text(header.value, 4096));
        }
    }
    ordered_json line{{"t", "upgrade"},
                      {"method", text(request.method, 64)},
                      {"path", text(request.path, 1024)},
                      {"protocols", std::move(offered)},
                      {"status", status}};
    if (!deviceId.empty()) line["device"] = std::string(deviceId);
    if (!subprotocol.empty()) line["chosen"] = text(subprotocol, 4096);
    write(line);
}

void TrafficLog::opened(std::uint64_t connection, std::string_view deviceId) {
    write(ordered_json{{"t", "ws"}, {"conn", connection}, {"device", deviceId}, {"event", "open"}});
}

void TrafficLog::frame(std::uint64_t connection, std::string_view deviceId, bool fromDevice,
                       bool isText, std::string_view data, bool crafted) {
    ordered_json line{{"t", "ws"},
                      {"conn", connection},
                      {"device", deviceId},
                      {"event", isText ? "text" : "binary"},
                      {"dir", fromDevice ? "in" : "out"}};
    if (isText) {
        line["data"] = text(data, kKeptBody);
    } else {
        line["magic"] = hex(data.substr(0, kMagicBytes));
    }
    line["size"] = data.size();
    if (crafted) line["crafted"] = true;
    write(line);
}

void TrafficLog::closeSent(std::uint64_t connection, std::string_view deviceId, int code) {
    write(ordered_json{{"t", "ws"},
                       {"conn", connection},
                       {"device", deviceId},
                       {"event", "close"},
                       {"dir", "out"},
                       {"code", code}});
}

void TrafficLog::dropped(std::uint64_t connection, std::string_view deviceId) {
    write(ordered_json{{"t", "ws"}, {"conn", connection}, {"device", deviceId}, {"event", "drop"}});
}

void TrafficLog::closed(std::uint64_t connection, std::string_view deviceId, int code) {
    write(ordered_json{{"t", "ws"},
                       {"conn", connection},
                       {"device", deviceId},
                       {"event", "closed"},
                       {"code", code}});
}

void TrafficLog::write(const nlohmann::ordered_json& line) {
    const std::string dumped = line.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
    std::lock_guard lock(mutex_);
    std::fputs(dumped.c_str(), file_);
    std::fputc('\n', file_);
    // Flushed per line: a test process that dies still leaves what it saw.
    std::fflush(file_);
}

}  // namespace virela::devserver
