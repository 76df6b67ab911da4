// swift-tools-version:5.10
// VirelaAgent as a Swift package, for iOS apps. Three targets, each in its own language:
//   VirelaCore       the portable C++ core (core/), shared with the Linux build
//   VirelaAgentObjC  the Objective-C++ binding over UIKit; its public headers are pure Objective-C
//   VirelaAgent      Swift: re-exports the binding and adds what only Swift can say (the Swift
//                    records and facade, the SwiftUI modifier)
// Swift apps `import VirelaAgent`; Objective-C apps `@import VirelaAgentObjC;`.
//
// Swift 5.10 at least: the Swift records enter the main actor with MainActor.assumeIsolated,
// which compilers before it offer only from iOS 17.

import PackageDescription

let package = Package(
    name: "VirelaAgent",
    platforms: [.iOS(.v15)],
    products: [
        .library(name: "VirelaAgent", targets: ["VirelaAgent", "VirelaAgentObjC"]),
    ],
    dependencies: [
        // One release, exactly: its package names its library product "json" and exposes the
        // header as <json.hpp> (see core/base/json.hpp); a later release may change either.
        .package(url: "https://github.com/nlohmann/json.git", exact: "3.11.3"),
    ],
    targets: [
        .target(
            name: "VirelaCore",
            dependencies: [.product(name: "json", package: "json")],
            path: "core",
            exclude: ["CMakeLists.txt"],
            // The core includes its headers from the repository root ("core/base/...").
            cSettings: [.headerSearchPath("..")]
        ),
        .target(
            name: "VirelaAgentObjC",
            dependencies: ["VirelaCore", .product(name: "json", package: "json")],
            path: "platform/ios/objc",
            publicHeadersPath: "include",
            cSettings: [.headerSearchPath("../../..")],
            linkerSettings: [
                .linkedFramework("CoreGraphics"),
                .linkedFramework("Foundation"),
                .linkedFramework("Network"),
                .linkedFramework("QuartzCore"),
                .linkedFramework("UIKit"),
            ]
        ),
        .target(
            name: "VirelaAgent",
            dependencies: ["VirelaAgentObjC"],
            path: "platform/ios/swift",
            linkerSettings: [.linkedFramework("SwiftUI")]
        ),
        .testTarget(
            name: "VirelaAgentTests",
            dependencies: ["VirelaAgent"],
            path: "platform/ios/tests/swift"
        ),
    ],
    cxxLanguageStandard: .cxx20
)
