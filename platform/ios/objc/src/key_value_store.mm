// The key-value store over the standard user defaults.

#import <Foundation/Foundation.h>

#include <optional>
#include <string>

#include "platform/ios/objc/src/ports.hpp"
#include "platform/ios/objc/src/strings.hpp"

namespace virela::ios {
namespace {

class UserDefaultsStore final : public KeyValueStore {
  public:
    std::optional<std::string> string(const std::string& key) const override {
        id value = [NSUserDefaults.standardUserDefaults objectForKey:toNSString(key)];
        // Someone else's value of another type under our key reads as absent, not as a crash.
        if (![value isKindOfClass:[NSString class]]) return std::nullopt;
        return toStdString(value);
    }

    void setString(const std::string& key, const std::string& value) override {
        [NSUserDefaults.standardUserDefaults setObject:toNSString(value) forKey:toNSString(key)];
    }
};

}  // namespace

std::shared_ptr<KeyValueStore> makeKeyValueStore() { return std::make_shared<UserDefaultsStore>(); }

}  // namespace virela::ios
