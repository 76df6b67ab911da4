#include "platform/headless/device_facts.hpp"

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <sys/statvfs.h>
#include <sys/utsname.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <sstream>
#include <vector>

namespace virela::headless {

namespace fs = std::filesystem;

namespace {

std::string trim(std::string text) {
    auto notSpace = [](unsigned char c) { return std::isspace(c) == 0 && c != '\0'; };
    text.erase(text.begin(), std::find_if(text.begin(), text.end(), notSpace));
    text.erase(std::find_if(text.rbegin(), text.rend(), notSpace).base(), text.end());
    return text;
}

// The first line of a small text file, trimmed; nullopt when unreadable.
std::optional<std::string> readLine(const fs::path& path) {
    std::ifstream in(path);
    if (!in) return std::nullopt;
    std::string line;
    if (!std::getline(in, line) && line.empty()) return std::nullopt;
    return trim(line);
}

// "en_US.UTF-8@euro" -> "en_US"; the C locale and anything unusable -> "en_US".
std::string localeFromPosix(std::string value) {
    value = value.substr(0, value.find_first_of(".@"));
    if (value.empty() || value == "C" || value == "POSIX") return "en_US";
    bool plain = std::all_of(value.begin(), value.end(), [](unsigned char c) {
        return std::isalnum(c) != 0 || c == '_' || c == '-';
    });
    return plain ? value : "en_US";
}

std::optional<std::string> machineId(const fs::path& path) {
    auto id = readLine(path);
    // An empty or "uninitialized" file means the machine has no identity yet.
    if (!id || id->size() != 32) return std::nullopt;
    if (!std::all_of(id->begin(), id->end(), [](unsigned char c) { return std::isxdigit(c); })) {
        return std::nullopt;
    }
    return id;
}

std::string uuidText(const unsigned char* bytes) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string text;
    for (int i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        text += kHex[bytes[i] >> 4];
        text += kHex[bytes[i] & 0x0F];
    }
    return text;
}

int batteryStateFrom(const std::string& status) {
    if (status == "Discharging" || status == "Not charging") return 1;
    if (status == "Charging") return 2;
    if (status == "Full") return 3;
    return 0;
}

}  // namespace

LinuxDeviceFacts::LinuxDeviceFacts(std::shared_ptr<const HostSettings> settings, fs::path root)
    : settings_(settings ? std::move(settings) : std::make_shared<const HostSettings>()),
      root_(std::move(root)) {}

fs::path LinuxDeviceFacts::under(const char* absolute) const {
    return root_ / fs::path(absolute).relative_path();
}

std::string LinuxDeviceFacts::model() const {
    auto name = readLine(under("/sys/class/dmi/id/product_name"));
    return name && !name->empty() ? *name : "Linux";
}

std::string LinuxDeviceFacts::systemName() const {
    return "Linux";
}

std::string LinuxDeviceFacts::systemVersion() const {
    utsname info{};
    if (::uname(&info) != 0) return "";
    std::string release = info.release;
    // "6.1.0-18-amd64" -> "6.1"
    std::size_t i = 0;
    auto digits = [&] {
        std::size_t start = i;
        while (i < release.size() && std::isdigit(static_cast<unsigned char>(release[i]))) ++i;
        return i > start;
    };
    if (digits() && i < release.size() && release[i] == '.' && (++i, digits())) {
        return release.substr(0, i);
    }
    return release;
}

std::string LinuxDeviceFacts::localeIdentifier() const {
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* value = std::getenv(name);
        if (value != nullptr && *value != '\0') return localeFromPosix(value);
    }
    return "en_US";
}

std::optional<std::string> LinuxDeviceFacts::appVersion() const {
    return settings_->get().appVersion;
}

std::optional<std::string> LinuxDeviceFacts::appId() const {
    return settings_->get().appId;
}

std::optional<std::string> LinuxDeviceFacts::vendorId() const {
    auto id = machineId(under("/etc/machine-id"));
    if (!id) return std::nullopt;
    // Keyed by the machine, per app, one-way: the same app sees the same value across runs,
    // different apps see unrelated ones, and the machine id itself never leaves the host.
    std::string data = "virela-vendor-id:" + appId().value_or("");
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    if (HMAC(EVP_sha256(), id->data(), static_cast<int>(id->size()),
             reinterpret_cast<const unsigned char*>(data.data()), data.size(), digest.data(),
             &length) == nullptr ||
        length < 16) {
        return std::nullopt;
    }
    digest[6] = static_cast<unsigned char>((digest[6] & 0x0F) | 0x40);
    digest[8] = static_cast<unsigned char>((digest[8] & 0x3F) | 0x80);
    return uuidText(digest.data());
}

std::string LinuxDeviceFacts::machine() const {
    utsname info{};
    if (::uname(&info) != 0) return "";
    return info.machine;
}

std::optional<std::int64_t> LinuxDeviceFacts::availableStorageBytes() const {
    const char* home = std::getenv("HOME");
    if (home == nullptr || *home == '\0') return std::nullopt;
    struct statvfs info {};
    if (::statvfs(home, &info) != 0) return std::nullopt;
    auto bytes = static_cast<unsigned long long>(info.f_bavail) * info.f_frsize;
    constexpr auto kMax = static_cast<unsigned long long>(std::numeric_limits<std::int64_t>::max());
    return static_cast<std::int64_t>(std::min(bytes, kMax));
}

std::int64_t LinuxDeviceFacts::availableMemoryBytes() const {
    std::ifstream in(under("/proc/meminfo"));
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("MemAvailable:", 0) != 0) continue;
        std::istringstream fields(line.substr(13));
        long long kib = 0;
        if (!(fields >> kib) || kib < 0) return 0;
        if (kib > std::numeric_limits<std::int64_t>::max() / 1024) return 0;
        return static_cast<std::int64_t>(kib) * 1024;
    }
    return 0;
}

MainThreadFacts LinuxDeviceFacts::readMainThreadFacts() const {
    auto settings = settings_->get();
    MainThreadFacts facts;
    facts.appearance = settings.appearance;
    facts.textSize = settings.textSize;
    facts.assistive = settings.assistive;
    facts.screenWidthPixels = settings.screenWidthPixels;
    facts.screenHeightPixels = settings.screenHeightPixels;

    std::error_code ec;
    std::vector<fs::path> supplies;
    for (fs::directory_iterator it(under("/sys/class/power_supply"), ec), end; !ec && it != end;
         it.increment(ec)) {
        supplies.push_back(it->path());
    }
    std::sort(supplies.begin(), supplies.end());
    for (const auto& supply : supplies) {
        if (readLine(supply / "type") != "Battery") continue;
        // Peripherals (a wireless mouse, a headset) report their own batteries as "Device".
        if (readLine(supply / "scope") == "Device") continue;
        auto capacity = readLine(supply / "capacity");
        if (!capacity) continue;
        char* end = nullptr;
        long percent = std::strtol(capacity->c_str(), &end, 10);
        if (end == capacity->c_str() || *end != '\0') continue;
        facts.batteryLevel = static_cast<double>(std::clamp(percent, 0L, 100L)) / 100.0;
        facts.batteryState = batteryStateFrom(readLine(supply / "status").value_or(""));
        break;
    }
    return facts;
}

}  // namespace virela::headless
