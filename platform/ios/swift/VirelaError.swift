import Foundation
@_exported import VirelaAgentObjC

/// A failed backend request, or a capture that could not be made: the one error type the library
/// itself produces. `configure` throws it and `onError` receives it; other failures arrive as the
/// platform's errors (a URLError for the network, a CocoaError for a reply that cannot be decoded).
public struct VirelaError: Error, Hashable, Sendable {
    /// The HTTP status of the failed request; 0 when there was no HTTP response.
    public let status: Int
    /// The backend's machine code, "unknown" when it gave none, "no_response" without a response;
    /// "no_window" or "encode_failed" for a capture that could not be made.
    public let code: String
    /// The backend's message, or "Request failed." / "No HTTP response.", or the capture's.
    public let message: String

    init(status: Int, code: String, message: String) {
        self.status = status
        self.code = code
        self.message = message
    }

    /// The library's error inside `error`, if it is one (errors from the Objective-C API arrive
    /// as NSError in VIRErrorDomain); nil for any other error.
    public init?(_ error: Error) {
        if let error = error as? VirelaError {
            self = error
            return
        }
        guard let object = __VIRError(error as NSError) else { return nil }
        self.init(status: object.status, code: object.code, message: object.message)
    }

    // What Swift code receives for an error from the binding: ours as VirelaError, others as is.
    static func bridging(_ error: Error) -> Error {
        VirelaError(error) ?? error
    }
}

// Passed back to Objective-C (or logged as NSError), it reads as the binding's own errors do.
extension VirelaError: CustomNSError {
    public static var errorDomain: String { VIRErrorDomain }
    public var errorCode: Int { status }
    public var errorUserInfo: [String: Any] {
        [
            VIRErrorStatusKey: status,
            VIRErrorCodeKey: code,
            VIRErrorMessageKey: message,
            NSLocalizedDescriptionKey: message,
        ]
    }
}

extension VirelaError: LocalizedError {
    public var errorDescription: String? { message }
}
