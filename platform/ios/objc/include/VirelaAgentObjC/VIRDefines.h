/// @file
/// Macros the public headers share. Pure Objective-C: no C++ appears in a public header.

#import <Foundation/Foundation.h>

/// Marks a public class: it stays visible when the library is built with hidden symbols.
#define VIR_EXPORT __attribute__((visibility("default")))

/// Declares a public constant or function with C linkage, from C, Objective-C and C++ alike.
#if defined(__cplusplus)
#define VIR_EXTERN extern "C" __attribute__((visibility("default")))
#else
#define VIR_EXTERN extern __attribute__((visibility("default")))
#endif

/// Immutable records, and blocks that run on another thread than their caller's, cross threads
/// safely; older SDKs lack the annotation.
#if defined(NS_SWIFT_SENDABLE)
#define VIR_SENDABLE NS_SWIFT_SENDABLE
#else
#define VIR_SENDABLE
#endif
