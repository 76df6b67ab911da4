// Device facts from UIDevice, the main bundle, the file system and the process.

#import <Foundation/Foundation.h>
#import <UIKit/UIKit.h>

#include <os/proc.h>
#include <sys/utsname.h>

#include <cstdint>
#include <optional>
#include <string>

#include "platform/ios/objc/src/ports.hpp"
#include "platform/ios/objc/src/strings.hpp"
#include "platform/ios/objc/src/theme.hpp"

namespace virela::ios {
namespace {

// UIDevice belongs to the main thread, where the core asks for these facts. Should a caller ask
// from elsewhere, wait for main rather than touch UIDevice off it (never do so while main waits
// for that caller).
template <typename Read>
auto readOnMain(Read read) -> decltype(read()) {
    if (NSThread.isMainThread) return read();
    __block decltype(read()) value;
    dispatch_sync(dispatch_get_main_queue(), ^{
      value = read();
    });
    return value;
}

ContentSizeCategory contentSizeCategory(UIContentSizeCategory category) {
    static const struct {
        UIContentSizeCategory uikit;
        ContentSizeCategory ours;
    } kCategories[] = {
        {UIContentSizeCategoryExtraSmall, ContentSizeCategory::extraSmall},
        {UIContentSizeCategorySmall, ContentSizeCategory::small},
        {UIContentSizeCategoryMedium, ContentSizeCategory::medium},
        {UIContentSizeCategoryLarge, ContentSizeCategory::large},
        {UIContentSizeCategoryExtraLarge, ContentSizeCategory::extraLarge},
        {UIContentSizeCategoryExtraExtraLarge, ContentSizeCategory::extraExtraLarge},
        {UIContentSizeCategoryExtraExtraExtraLarge, ContentSizeCategory::extraExtraExtraLarge},
        {UIContentSizeCategoryAccessibilityMedium, ContentSizeCategory::accessibilityMedium},
        {UIContentSizeCategoryAccessibilityLarge, ContentSizeCategory::accessibilityLarge},
        {UIContentSizeCategoryAccessibilityExtraLarge,
         ContentSizeCategory::accessibilityExtraLarge},
        {UIContentSizeCategoryAccessibilityExtraExtraLarge,
         ContentSizeCategory::accessibilityExtraExtraLarge},
        {UIContentSizeCategoryAccessibilityExtraExtraExtraLarge,
         ContentSizeCategory::accessibilityExtraExtraExtraLarge},
    };
    for (const auto& entry : kCategories) {
        if ([category isEqualToString:entry.uikit]) return entry.ours;
    }
    return ContentSizeCategory::unspecified;
}

class UIKitDeviceFacts final : public DeviceFacts {
  public:
    std::string model() const override {
        return readOnMain([] { return toStdString(UIDevice.currentDevice.model); });
    }

    std::string systemName() const override { return "iOS"; }

    std::string systemVersion() const override {
        return readOnMain([] { return toStdString(UIDevice.currentDevice.systemVersion); });
    }

    std::string localeIdentifier() const override {
        return toStdString(NSLocale.currentLocale.localeIdentifier);
    }

    std::optional<std::string> appVersion() const override {
        id version = [NSBundle.mainBundle objectForInfoDictionaryKey:@"CFBundleShortVersionString"];
        if (![version isKindOfClass:[NSString class]]) return std::nullopt;
        return toStdString(version);
    }

    std::optional<std::string> appId() const override {
        return toOptionalString(NSBundle.mainBundle.bundleIdentifier);
    }

    std::optional<std::string> vendorId() const override {
        // nil until the device is first unlocked after a restart.
        return readOnMain(
            [] { return toOptionalString(UIDevice.currentDevice.identifierForVendor.UUIDString); });
    }

    std::string machine() const override {
        struct utsname name {};
        if (uname(&name) != 0) return {};
        return name.machine;
    }

    std::optional<std::int64_t> availableStorageBytes() const override {
        NSURL* home = [NSURL fileURLWithPath:NSHomeDirectory() isDirectory:YES];
        id bytes = nil;
        if (![home getResourceValue:&bytes
                             forKey:NSURLVolumeAvailableCapacityForImportantUsageKey
                              error:nil] ||
            ![bytes isKindOfClass:[NSNumber class]]) {
            return std::nullopt;
        }
        return static_cast<std::int64_t>([bytes longLongValue]);
    }

    std::int64_t availableMemoryBytes() const override {
        return static_cast<std::int64_t>(os_proc_available_memory());
    }

    MainThreadFacts readMainThreadFacts() const override {
        MainThreadFacts facts;
        UIDevice* device = UIDevice.currentDevice;
        // The level and state read as unknown while monitoring is off; leave the host's setting
        // as we found it.
        const BOOL wasMonitoring = device.batteryMonitoringEnabled;
        device.batteryMonitoringEnabled = YES;
        facts.batteryLevel = device.batteryLevel;
        facts.batteryState = static_cast<int>(device.batteryState);
        device.batteryMonitoringEnabled = wasMonitoring;

        facts.appearance =
            appearanceOf(UITraitCollection.currentTraitCollection.userInterfaceStyle);
        facts.textSize =
            contentSizeCategory(UIApplication.sharedApplication.preferredContentSizeCategory);
        facts.assistive.voiceOver = UIAccessibilityIsVoiceOverRunning();
        facts.assistive.switchControl = UIAccessibilityIsSwitchControlRunning();
        facts.assistive.assistiveTouch = UIAccessibilityIsAssistiveTouchRunning();

        const CGRect screen = UIScreen.mainScreen.nativeBounds;
        facts.screenWidthPixels = screen.size.width;
        facts.screenHeightPixels = screen.size.height;
        return facts;
    }
};

}  // namespace

std::shared_ptr<DeviceFacts> makeDeviceFacts() { return std::make_shared<UIKitDeviceFacts>(); }

}  // namespace virela::ios
