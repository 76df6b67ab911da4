#pragma once

#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "core/ports/platform.hpp"

namespace virela::headless {

// $VIRELA_STATE_DIR/defaults.json, else $XDG_STATE_HOME/virela/defaults.json, else
// ~/.local/state/virela/defaults.json (relative "defaults.json" when there is no home at all).
std::filesystem::path defaultKeyValuePath();

// The user-defaults store: string values in one JSON object on disk. Every change rewrites the
// file atomically (temporary file, then rename). A missing, unreadable or corrupt file reads as
// empty; a file that cannot be written is reported on stderr and the value stays in memory.
class JsonFileStore final : public KeyValueStore {
  public:
    explicit JsonFileStore(std::filesystem::path path = defaultKeyValuePath());

    std::optional<std::string> string(const std::string& key) const override;
    void setString(const std::string& key, const std::string& value) override;

    const std::filesystem::path& path() const noexcept { return path_; }

  private:
    void load();
    bool save() const;  // with mutex_ held

    std::filesystem::path path_;
    mutable std::mutex mutex_;
    std::map<std::string, std::string> values_;
    bool reportedWriteFailure_ = false;
};

}  // namespace virela::headless
