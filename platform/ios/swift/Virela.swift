// The library's entry point for Swift: the same operations as VIRVirela (which Swift sees only as
// __VIRVirela), with Swift's records and errors.

import Foundation
@_exported import VirelaAgentObjC

/// The library's entry point. Every method may be called from any thread; state changes happen
/// on the main thread, where every callback runs.
public enum Virela {
    /// Registers the device and opens the realtime channel; starts over when called again.
    /// Throws `VirelaError` for a failed backend request, or the platform's error (a URLError,
    /// a CocoaError for a reply that cannot be decoded).
    public static func configure(key: String, environment: VirelaEnvironment,
                                 user: VirelaUser? = nil,
                                 collectVendorId: Bool = false) async throws {
        try await withCheckedThrowingContinuation { (continuation: CheckedContinuation<Void, Error>) in
            Virela.configure(key: key, environment: environment, user: user,
                             collectVendorId: collectVendorId) { error in
                if let error = error {
                    continuation.resume(throwing: error)
                } else {
                    continuation.resume()
                }
            }
        }
    }

    /// The same as the `async` form, reporting through `completion`: nil on success, else the
    /// error the `async` form throws. `completion` runs on a background thread, NOT the main
    /// thread: hop to the main queue before touching UI.
    public static func configure(key: String, environment: VirelaEnvironment,
                                 user: VirelaUser? = nil, collectVendorId: Bool = false,
                                 completion: (@Sendable (Error?) -> Void)?) {
        __VIRVirela.configure(key: key, environment: environment.object, user: user?.object,
                              collectVendorId: collectVendorId) { error in
            completion?(error.map(VirelaError.bridging))
        }
    }

    /// Replaces the whole set of callbacks; there is one set per process.
    public static func on(_ callbacks: VirelaCallbacks) {
        __VIRVirela.on(callbacks.object)
    }

    /// Replaces the default redaction style (#E23B37 with "REDACTED" in white) for views marked
    /// from now on, including views marked again; views marked earlier keep their style.
    public static func setRedactionStyle(_ style: VirelaRedaction) {
        __VIRVirela.setRedactionStyle(style.object)
    }

    /// Tells the backend who the end user is. Fire and forget: failures are not reported.
    /// Calling it before `configure` is a programming error and stops the process.
    public static func identify(id: String, name: String? = nil, phone: String? = nil) {
        __VIRVirela.identify(id: id, name: name, phone: phone)
    }

    /// Asks the backend for a fresh support code. Fire and forget; stops the process when called
    /// before `configure`.
    public static func reset() {
        __VIRVirela.reset()
    }

    /// The current registration's support code; nil before the first successful `configure` or
    /// when the backend gave none.
    public static func supportCode() -> String? {
        __VIRVirela.supportCode()
    }

    /// Shows the customer their support code in a bottom sheet over the app's window, for them
    /// to read out to the support agent.
    public static func showSupportCode() {
        __VIRVirela.showSupportCode()
    }

    /// Closes the realtime channel and takes down anything on screen. The registration is kept;
    /// `configure` starts the client again.
    public static func stop() {
        __VIRVirela.stop()
    }
}
