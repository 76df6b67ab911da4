// The public records as Swift values. The Objective-C classes behind them (VIRUser, VIREnvironment,
// ...) are what the binding passes around; these convert at the facade.

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

    var object: VIRUser { VIRUser(id: id, name: name) }
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
        case .live: return VIREnvironment.live.url
        case .custom(let url): return url
        }
    }

    var object: VIREnvironment {
        switch self {
        case .live: return VIREnvironment.live
        case .custom(let url): return VIREnvironment.custom(url)
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

    init(_ object: VIRCaptureResult) {
        self.init(captureId: object.captureId, imageUrl: object.imageUrl)
    }
}

/// A live screen-sharing session.
public struct LiveSession: Hashable, Codable, Sendable {
    public var sessionId: String

    public init(sessionId: String) {
        self.sessionId = sessionId
    }

    init(_ object: VIRLiveSession) {
        self.init(sessionId: object.sessionId)
    }
}

/// The host's callbacks. Every one is optional and runs on the main thread.
/// `Virela.on(_:)` stores a copy: changing this value afterwards has no effect until it is
/// passed again.
public struct VirelaCallbacks {
    /// A consent prompt for a support request is on screen.
    public var onRequestShown: (() -> Void)?
    /// The customer allowed a capture and the upload succeeded.
    public var onAllowed: ((CaptureResult) -> Void)?
    /// The customer declined, or the backend reported the request as denied.
    public var onDenied: (() -> Void)?
    /// The request expired before the customer answered.
    public var onExpired: (() -> Void)?
    /// A flow failed: a `VirelaError`, or the platform's error (a URLError, a decoding error).
    public var onError: ((Error) -> Void)?
    /// Remote control became active (true) or stopped (false).
    public var onRemoteControl: ((Bool) -> Void)?
    /// A live screen-sharing session ended.
    public var onLiveEnded: ((LiveSession) -> Void)?

    public init(onRequestShown: (() -> Void)? = nil,
                onAllowed: ((CaptureResult) -> Void)? = nil,
                onDenied: (() -> Void)? = nil,
                onExpired: (() -> Void)? = nil,
                onError: ((Error) -> Void)? = nil,
                onRemoteControl: ((Bool) -> Void)? = nil,
                onLiveEnded: ((LiveSession) -> Void)? = nil) {
        self.onRequestShown = onRequestShown
        self.onAllowed = onAllowed
        self.onDenied = onDenied
        self.onExpired = onExpired
        self.onError = onError
        self.onRemoteControl = onRemoteControl
        self.onLiveEnded = onLiveEnded
    }

    // Only the callbacks that are set become blocks: the binding skips the rest.
    var object: VIRCallbacks {
        let object = VIRCallbacks()
        object.onRequestShown = onRequestShown
        object.onDenied = onDenied
        object.onExpired = onExpired
        object.onRemoteControl = onRemoteControl
        if let onAllowed = onAllowed {
            object.onAllowed = { result in onAllowed(CaptureResult(result)) }
        }
        if let onError = onError {
            object.onError = { error in onError(VirelaError.bridging(error)) }
        }
        if let onLiveEnded = onLiveEnded {
            object.onLiveEnded = { session in onLiveEnded(LiveSession(session)) }
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

    var object: VIRRedaction { VIRRedaction(color: color, label: label, labelColor: labelColor) }
}
