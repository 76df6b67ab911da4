#pragma once

#include <optional>
#include <string>

namespace virela {

// The user-defaults store.
class KeyValueStore {
  public:
    virtual ~KeyValueStore() = default;
    virtual std::optional<std::string> string(const std::string& key) const = 0;
    virtual void setString(const std::string& key, const std::string& value) = 0;
};

}  // namespace virela
