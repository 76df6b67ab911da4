#pragma once

// Conversions between the core's byte strings and NSString.

#import <Foundation/Foundation.h>

#include <optional>
#include <string>
#include <string_view>

namespace virela::ios {

// UTF-8 when the bytes are UTF-8, else Latin-1 (which accepts any bytes), so a malformed
// header or message still arrives as text instead of nil.
inline NSString* _Nonnull toNSString(std::string_view text) {
    NSString* utf8 = [[NSString alloc] initWithBytes:text.data()
                                              length:text.size()
                                            encoding:NSUTF8StringEncoding];
    if (utf8) return utf8;
    NSString* latin1 = [[NSString alloc] initWithBytes:text.data()
                                                length:text.size()
                                              encoding:NSISOLatin1StringEncoding];
    return latin1 ? latin1 : @"";
}

inline NSString* _Nullable toOptionalNSString(const std::optional<std::string>& text) {
    return text ? toNSString(*text) : nil;
}

inline std::string toStdString(NSString* _Nullable text) {
    if (!text) return {};
    NSData* bytes = [text dataUsingEncoding:NSUTF8StringEncoding allowLossyConversion:YES];
    return std::string(static_cast<const char*>(bytes.bytes), bytes.length);
}

inline std::optional<std::string> toOptionalString(NSString* _Nullable text) {
    if (!text) return std::nullopt;
    return toStdString(text);
}

}  // namespace virela::ios
