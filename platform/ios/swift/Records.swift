// The public records as Swift values. The Objective-C classes behind them (VIRUser, VIREnvironment,
// ...) are what the binding passes around; Swift sees those only as __VIRUser, __VIREnvironment,
// ..., and these records convert to and from them at the facade.

import Foundation
import UIKit
@_exported import VirelaAgentObjC

/// The end user the host identifies at configure time.
public struct VirelaUser: Hashable, Sendable {
    public var id: String
    public var name: String?

    public init(id: String, name: String? = nil) {
        self.id = id
        self.name = name
    }

    var object: __VIRUser { __VIRUser(id: id, name: name) }
}

/// Where the backend lives.
public enum VirelaEnvironment: Hashable, Sendable {
    /// The production service.
    case live
    /// Any base URL (staging, tests). Request paths are resolved against it, so a path component
    /// of the URL is replaced by the library's absolute paths.
    case custom(URL)

    /// The base URL: the production origin for `live`, the given URL for `custom`.
    public var url: URL {
        switch self {
        case .live: return __VIREnvironment.live.url
        case .custom(let url): return url
        }
    }

    var object: __VIREnvironment {
        switch self {
        case .live: return __VIREnvironment.live
        case .custom(let url): return __VIREnvironment.custom(url)
        }
    }
}

/// How the backend has the customer asked for captures.
public enum CaptureMode: String, CaseIterable, Codable, Sendable {
    case askEveryTime = "AskEveryTime"
    case perSession = "PerSession"
    case liveView = "LiveView"
}

/// An allowed capture, uploaded.
public struct CaptureResult: Hashable, Codable, Sendable {
    public var captureId: String
    /// The uploaded image's URL as the backend reports it.
    public var imageUrl: String

    public init(captureId: String, imageUrl: String) {
        self.captureId = captureId
        self.imageUrl = imageUrl
    }

    init(_ object: __VIRCaptureResult) {
        self.init(captureId: object.captureId, imageUrl: object.imageUrl)
    }
}

/// A live screen-sharing session.
public struct LiveSession: Hashable, Codable, Sendable {
    public var sessionId: String

    public init(sessionId: String) {
        self.sessionId = sessionId
    }

    init(_ object: __VIRLiveSession) {
        self.init(sessionId: object.sessionId)
    }
}

/// The host's callbacks. Every one is optional and runs on the main actor.
/// `Virela.on(_:)` stores a copy: changing this value afterwards has no effect until it is
/// passed again.
public struct VirelaCallbacks: Sendable {
    /// A consent prompt for a support request is on screen.
    public var onRequestShown: (@MainActor @Sendable () -> Void)?
    /// The customer allowed a capture and the upload succeeded.
    public var onAllowed: (@MainActor @Sendable (CaptureResult) -> Void)?
    /// The customer declined, or the backend reported the request as denied.
    public var onDenied: (@MainActor @Sendable () -> Void)?
    /// The request expired before the customer answered.
    public var onExpired: (@MainActor @Sendable () -> Void)?
    /// A flow failed: a `VirelaError`, or the platform's error (a URLError, a decoding error).
    public var onError: (@MainActor @Sendable (Error) -> Void)?
    /// Remote control became active (true) or stopped (false).
    public var onRemoteControl: (@MainActor @Sendable (Bool) -> Void)?
    /// A live screen-sharing session ended.
    public var onLiveEnded: (@MainActor @Sendable (LiveSession) -> Void)?

    public init(onRequestShown: (@MainActor @Sendable () -> Void)? = nil,
                onAllowed: (@MainActor @Sendable (CaptureResult) -> Void)? = nil,
                onDenied: (@MainActor @Sendable () -> Void)? = nil,
                onExpired: (@MainActor @Sendable () -> Void)? = nil,
                onError: (@MainActor @Sendable (Error) -> Void)? = nil,
                onRemoteControl: (@MainActor @Sendable (Bool) -> Void)? = nil,
                onLiveEnded: (@MainActor @Sendable (LiveSession) -> Void)? = nil) {
        self.onRequestShown = onRequestShown
        self.onAllowed = onAllowed
        self.onDenied = onDenied
        self.onExpired = onExpired
        self.onError = onError
        self.onRemoteControl = onRemoteControl
        self.onLiveEnded = onLiveEnded
    }

    // Only the callbacks that are set become blocks: the binding skips the rest. The binding
    // calls every block on the main thread, which is what lets each enter the main actor
    // synchronously (and stop the process loudly if that ever stopped being true).
    var object: __VIRCallbacks {
        let object = __VIRCallbacks()
        if let onRequestShown {
            object.onRequestShown = { MainActor.assumeIsolated { onRequestShown() } }
        }
        if let onAllowed {
            object.onAllowed = { result in
                let value = CaptureResult(result)
                MainActor.assumeIsolated { onAllowed(value) }
            }
        }
        if let onDenied {
            object.onDenied = { MainActor.assumeIsolated { onDenied() } }
        }
        if let onExpired {
            object.onExpired = { MainActor.assumeIsolated { onExpired() } }
        }
        if let onError {
            object.onError = { error in
                let value = VirelaError.bridging(error)
                MainActor.assumeIsolated { onError(value) }
            }
        }
        if let onRemoteControl {
            object.onRemoteControl = { active in
                MainActor.assumeIsolated { onRemoteControl(active) }
            }
        }
        if let onLiveEnded {
            object.onLiveEnded = { session in
                let value = LiveSession(session)
                MainActor.assumeIsolated { onLiveEnded(value) }
            }
        }
        return object
    }
}

/// How a redacted view is painted in captures and live sessions: a fill in `color` with `label`
/// centred on it in `labelColor`. Set the default with `Virela.setRedactionStyle(_:)`.
public struct VirelaRedaction: Hashable {
    public var color: UIColor
    public var label: String
    public var labelColor: UIColor

    public init(color: UIColor, label: String, labelColor: UIColor) {
        self.color = color
        self.label = label
        self.labelColor = labelColor
    }

    var object: __VIRRedaction {
        __VIRRedaction(color: color, label: label, labelColor: labelColor)
    }
}
