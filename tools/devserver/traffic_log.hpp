#pragma once

// What devices and the backend said to each other, appended to a file as one JSON object a line,
// so that a checker outside the program can hold real traffic to the protocol documents.
//
// Lines ("t" says which):
//   http     an exchange on a device route (/v1/sdk/...): method, path, the headers that matter,
//            the request body (multipart bodies as their framing, not their bytes), status and
//            reply; "canned" when a test queued the reply, "status" 0 when the connection was
//            closed without one
//   upgrade  a request for the device socket: the subprotocols offered, status, the one chosen
//   ws       the device socket: "open", "text" and "binary" frames ("dir" in or out; "crafted"
//            for frames a test wrote by hand rather than the agent), "close" sent by the
//            backend, "drop" (cut without a close frame) and "closed" with its code
//   skipped  any other request (the console, images, the logo), named so and nothing more

#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>

#include <nlohmann/json_fwd.hpp>

#include "tools/devserver/records.hpp"

namespace virela::devserver {

struct Reply;

class TrafficLog {
  public:
    // Opens `path` for appending; throws std::runtime_error when it cannot.
    explicit TrafficLog(const std::string& path);
    ~TrafficLog();
    TrafficLog(const TrafficLog&) = delete;
    TrafficLog& operator=(const TrafficLog&) = delete;

    // `reply` null: closed without a reply.
    void request(const RecordedRequest& request, const Reply* reply, bool canned);
    void upgrade(const RecordedRequest& request, int status, std::string_view deviceId,
                 std::string_view subprotocol);
    void opened(std::uint64_t connection, std::string_view deviceId);
    void frame(std::uint64_t connection, std::string_view deviceId, bool fromDevice, bool text,
               std::string_view data, bool crafted);
    void closeSent(std::uint64_t connection, std::string_view deviceId, int code);
    void dropped(std::uint64_t connection, std::string_view deviceId);
    void closed(std::uint64_t connection, std::string_view deviceId, int code);

  private:
    void write(const nlohmann::ordered_json& line);

    std::mutex mutex_;
    std::FILE* file_ = nullptr;
};

}  // namespace virela::devserver
