#include "platform/headless/key_value_store.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "platform/headless/stderr_log.hpp"

namespace virela::headless {

namespace fs = std::filesystem;

namespace {

const char* nonEmptyEnv(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

bool writeAll(int fd, const std::string& data) {
    const char* p = data.data();
    std::size_t left = data.size();
    while (left > 0) {
        ssize_t n = ::write(fd, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        left -= static_cast<std::size_t>(n);
    }
    return true;
}

}  // namespace

fs::path defaultKeyValuePath() {
    if (const char* dir = nonEmptyEnv("VIRELA_STATE_DIR")) return fs::path(dir) / "defaults.json";
    if (const char* xdg = nonEmptyEnv("XDG_STATE_HOME")) {
        return fs::path(xdg) / "virela" / "defaults.json";
    }
    if (const char* home = nonEmptyEnv("HOME")) {
        return fs::path(home) / ".local" / "state" / "virela" / "defaults.json";
    }
    return "defaults.json";
}

JsonFileStore::JsonFileStore(fs::path path) : path_(std::move(path)) {
    load();
}

void JsonFileStore::load() {
    std::ifstream in(path_, std::ios::binary);
    if (!in) {
        std::error_code ec;
        // A first start has no file yet; anything else is worth a line.
        if (fs::exists(path_, ec)) {
            writeStderrLine(LogLevel::error,
                            "cannot read defaults file " + path_.string() + "; starting empty");
        }
        return;
    }
    std::stringstream text;
    text << in.rdbuf();
    auto document = nlohmann::json::parse(text.str(), nullptr, /*allow_exceptions=*/false);
    if (!document.is_object()) {
        writeStderrLine(LogLevel::error,
                        "ignoring unreadable defaults file " + path_.string() + "; starting empty");
        return;
    }
    for (const auto& [key, value] : document.items()) {
        if (value.is_string()) values_[key] = value.get<std::string>();
    }
}

std::optional<std::string> JsonFileStore::string(const std::string& key) const {
    std::lock_guard lock(mutex_);
    auto it = values_.find(key);
    if (it == values_.end()) return std::nullopt;
    return it->second;
}

void JsonFileStore::setString(const std::string& key, const std::string& value) {
    std::lock_guard lock(mutex_);
    values_[key] = value;
    if (save()) return;
    if (!reportedWriteFailure_) {
        reportedWriteFailure_ = true;
        writeStderrLine(LogLevel::error, "cannot write defaults file " + path_.string() +
                                             "; values are kept in memory only");
    }
}

bool JsonFileStore::save() const {
    nlohmann::json document = nlohmann::json::object();
    for (const auto& [key, value] : values_) document[key] = value;
    // Bytes that are not UTF-8 cannot go into JSON text; they are replaced on disk only.
    std::string text =
        document.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";

    std::error_code ec;
    if (path_.has_parent_path()) fs::create_directories(path_.parent_path(), ec);

    // Unique per process and write, so concurrent stores on one file never share a temp file.
    static std::atomic<unsigned> counter{0};
    fs::path temp = path_;
    temp += ".tmp." + std::to_string(::getpid()) + "." + std::to_string(counter.fetch_add(1));
    int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    bool ok = writeAll(fd, text) && ::fsync(fd) == 0;
    ok = (::close(fd) == 0) && ok;
    if (ok) ok = ::rename(temp.c_str(), path_.c_str()) == 0;
    if (!ok) ::unlink(temp.c_str());
    return ok;
}

}  // namespace virela::headless
