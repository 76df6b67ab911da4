#include "tools/devserver/device_registry.hpp"

#include <cstdint>
#include <utility>

namespace virela::devserver {

DeviceRegistry::DeviceRegistry() {
    std::random_device device;
    std::seed_seq seed{device(), device(), device(), device(), device(), device()};
    random_.seed(seed);
}

DeviceInfo DeviceRegistry::registerDevice(const std::string& apiKey,
                                          const std::optional<std::string>& installId,
                                          std::string body) {
    std::lock_guard lock(mutex_);
    std::size_t at = devices_.size();
    if (installId) {
        auto known = byInstall_.find({apiKey, *installId});
        if (known != byInstall_.end()) at = known->second;
    }
    if (at == devices_.size()) {
        DeviceInfo created;
        created.deviceId = freshDeviceId();
        created.apiKey = apiKey;
        created.installId = installId;
        created.supportCode = freshSupportCode();
        byId_.emplace(created.deviceId, at);
        byCode_.emplace(created.supportCode, at);
        if (installId) byInstall_.emplace(std::pair(apiKey, *installId), at);
        devices_.push_back(std::move(created));
    }
    std::string token;
    do {
        token = tokenPrefix_ + randomHex(40);
    } while (byToken_.contains(token));
    byToken_.emplace(token, at);
    DeviceInfo& device = devices_[at];
    device.token = token;
    device.tokens.push_back(std::move(token));
    device.registration = std::move(body);
    return device;
}

void DeviceRegistry::setTokenPrefix(std::string prefix) {
    std::lock_guard lock(mutex_);
    tokenPrefix_ = std::move(prefix);
}

bool DeviceRegistry::knowsToken(std::string_view token) const {
    std::lock_guard lock(mutex_);
    return byToken(token) != nullptr;
}

bool DeviceRegistry::identify(std::string_view token, IdentifiedUser user) {
    std::lock_guard lock(mutex_);
    DeviceInfo* device = byToken(token);
    if (device == nullptr) return false;
    device->user = std::move(user);
    return true;
}

bool DeviceRegistry::storeHealth(std::string_view token, std::string body) {
    std::lock_guard lock(mutex_);
    DeviceInfo* device = byToken(token);
    if (device == nullptr) return false;
    device->lastHealth = std::move(body);
    return true;
}

std::optional<std::string> DeviceRegistry::resetSupportCode(std::string_view token) {
    std::lock_guard lock(mutex_);
    DeviceInfo* device = byToken(token);
    if (device == nullptr) return std::nullopt;
    // The current code is still taken while the new one is drawn, so the two always differ.
    std::string code = freshSupportCode();
    auto indexed = byCode_.extract(device->supportCode);
    indexed.key() = code;
    byCode_.insert(std::move(indexed));
    device->supportCode = std::move(code);
    return device->supportCode;
}

std::optional<DeviceInfo> DeviceRegistry::find(std::string_view idTokenOrCode) const {
    std::lock_guard lock(mutex_);
    if (const DeviceInfo* device = lookup(idTokenOrCode)) return *device;
    return std::nullopt;
}

std::optional<std::string> DeviceRegistry::deviceIdOf(std::string_view idTokenOrCode) const {
    std::lock_guard lock(mutex_);
    if (const DeviceInfo* device = lookup(idTokenOrCode)) return device->deviceId;
    return std::nullopt;
}

std::vector<DeviceInfo> DeviceRegistry::all() const {
    std::lock_guard lock(mutex_);
    return devices_;
}

const DeviceInfo* DeviceRegistry::lookup(std::string_view idTokenOrCode) const {
    for (const auto* index : {&byId_, &byCode_}) {
        auto it = index->find(idTokenOrCode);
        if (it != index->end()) return &devices_[it->second];
    }
    return byToken(idTokenOrCode);
}

DeviceInfo* DeviceRegistry::byToken(std::string_view token) {
    return const_cast<DeviceInfo*>(std::as_const(*this).byToken(token));
}

const DeviceInfo* DeviceRegistry::byToken(std::string_view token) const {
    auto it = byToken_.find(token);
    return it != byToken_.end() ? &devices_[it->second] : nullptr;
}

std::string DeviceRegistry::randomHex(std::size_t digits) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string text;
    text.reserve(digits);
    while (text.size() < digits) {
        std::uint64_t word = random_();
        for (int i = 0; i < 16 && text.size() < digits; ++i, word >>= 4) text += kHex[word & 0xF];
    }
    return text;
}

std::string DeviceRegistry::freshDeviceId() {
    std::string id;
    do {
        id = "dev_" + randomHex(16);
    } while (byId_.contains(id));
    return id;
}

std::string DeviceRegistry::freshSupportCode() {
    std::uniform_int_distribution<int> digit(0, 9);
    std::string code(7, '-');
    do {
        for (std::size_t i : {0, 1, 2, 4, 5, 6}) code[i] = static_cast<char>('0' + digit(random_));
    } while (byCode_.contains(code));
    return code;
}

}  // namespace virela::devserver
