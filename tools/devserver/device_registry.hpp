#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "tools/devserver/records.hpp"

namespace virela::devserver {

// Registered devices, their tokens and support codes. Thread-safe. Lookups go through indexes,
// so that a flood of registrations (the demo key is public) does not make every request, and
// the console's list, slow down with the square of the devices.
class DeviceRegistry {
  public:
    DeviceRegistry();

    // A registration under the same key and install id is the same device again: it keeps its
    // id and support code and gets one more token.
    DeviceInfo registerDevice(const std::string& apiKey,
                              const std::optional<std::string>& installId, std::string body);

    bool knowsToken(std::string_view token) const;
    // What every token issued from now on starts with.
    void setTokenPrefix(std::string prefix);
    // Each returns false (and changes nothing) when the token is unknown.
    bool identify(std::string_view token, IdentifiedUser user);
    bool storeHealth(std::string_view token, std::string body);
    // The new support code, or nullopt for an unknown token.
    std::optional<std::string> resetSupportCode(std::string_view token);

    std::optional<DeviceInfo> find(std::string_view idTokenOrCode) const;
    std::optional<std::string> deviceIdOf(std::string_view idTokenOrCode) const;
    std::vector<DeviceInfo> all() const;

  private:
    std::string tokenPrefix_;
    const DeviceInfo* lookup(std::string_view idTokenOrCode) const;
    DeviceInfo* byToken(std::string_view token);
    const DeviceInfo* byToken(std::string_view token) const;
    std::string randomHex(std::size_t digits);
    std::string freshDeviceId();
    std::string freshSupportCode();

    mutable std::mutex mutex_;
    std::vector<DeviceInfo> devices_;
    // Positions in devices_.
    std::map<std::string, std::size_t, std::less<>> byId_;
    std::map<std::string, std::size_t, std::less<>> byCode_;
    std::map<std::string, std::size_t, std::less<>> byToken_;
    std::map<std::pair<std::string, std::string>, std::size_t> byInstall_;  // key, install id
    std::mt19937_64 random_;
};

}  // namespace virela::devserver
