// The public API as a Swift app uses it. `AppSupport` below is the way an app wires the library
// in (it is compiled, never run: it would talk to the live service); the tests check the parts
// of the surface that need no backend.

import SwiftUI
import UIKit
import VirelaAgent
import XCTest

/// An app's support screen, written against every public name.
@MainActor
final class AppSupport {
    private(set) var lastCapture: CaptureResult?
    private(set) var remoteControlActive = false

    func start() async {
        Virela.setRedactionStyle(VirelaRedaction(color: .black, label: "HIDDEN", labelColor: .white))
        Virela.on(VirelaCallbacks(
            onRequestShown: { print("support asked for a screenshot") },
            onAllowed: { [weak self] result in self?.lastCapture = result },
            onDenied: { print("declined") },
            onExpired: { print("expired") },
            onError: { error in
                if let error = error as? VirelaError {
                    print("backend said \(error.status) \(error.code): \(error.message)")
                } else {
                    print("failed: \(error.localizedDescription)")
                }
            },
            onRemoteControl: { [weak self] active in self?.remoteControlActive = active },
            onLiveEnded: { session in print("live session \(session.sessionId) ended") }
        ))
        do {
            try await Virela.configure(key: "pk_live_example", environment: .live,
                                       user: VirelaUser(id: "customer-42", name: "Ada"),
                                       collectVendorId: false)
            Virela.identify(id: "customer-42", name: "Ada", phone: nil)
            if Virela.supportCode() == nil { Virela.reset() }
            Virela.showSupportCode()
        } catch let error as VirelaError {
            print("registration refused: \(error.status) \(error.code) \(error.message)")
        } catch {
            print("registration failed: \(error)")
        }
    }

    func startWithCompletion() {
        Virela.configure(key: "pk_live_example", environment: .live, user: nil,
                         collectVendorId: true) { error in
            // A background thread: hop to the main queue before touching UI.
            DispatchQueue.main.async { print(error.map { "\($0)" } ?? "configured") }
        }
    }

    func end() {
        Virela.stop()
    }

    func markSensitive(_ cardNumber: UITextField, _ pin: UIView) {
        cardNumber.isVirelaRedacted = true
        pin.virelaRedact(color: .systemRed, label: "PIN", labelColor: nil)
    }

    func themedBorder() -> ThemedLayerView {
        let view = ThemedLayerView { view in view.layer.borderColor = UIColor.separator.cgColor }
        view.layer.borderWidth = 1
        return view
    }
}

struct PaymentForm: View {
    var body: some View {
        VStack {
            Text("4242 4242 4242 4242").virelaRedact()
            Text("123").virelaRedact(color: .black, label: "CVC", labelColor: .white)
        }
    }
}

final class PublicSurfaceTests: XCTestCase {
    func testEnvironmentURLs() {
        let staging = URL(string: "https://staging.example.com/base")!
        XCTAssertEqual(VirelaEnvironment.custom(staging).url, staging)
        XCTAssertEqual(VirelaEnvironment.live.url.scheme, "https")
    }

    func testNoSupportCodeBeforeARegistration() {
        XCTAssertNil(Virela.supportCode())
    }

    func testCaptureModeRawValuesAreTheBackendsAndStrict() throws {
        XCTAssertEqual(CaptureMode.allCases.map(\.rawValue), ["AskEveryTime", "PerSession", "LiveView"])
        XCTAssertEqual(CaptureMode.askEveryTime.rawValue, VIRCaptureMode.askEveryTime.rawValue)
        XCTAssertEqual(CaptureMode.perSession.rawValue, VIRCaptureMode.perSession.rawValue)
        XCTAssertEqual(CaptureMode.liveView.rawValue, VIRCaptureMode.liveView.rawValue)
        XCTAssertNil(CaptureMode(rawValue: "askEveryTime"))
        let decoded = try JSONDecoder().decode([CaptureMode].self, from: Data(#"["PerSession"]"#.utf8))
        XCTAssertEqual(decoded, [.perSession])
    }

    func testCallbacksDefaultToNothing() {
        var allowed: CaptureResult?
        var callbacks = VirelaCallbacks(onAllowed: { allowed = $0 })
        XCTAssertNil(callbacks.onRequestShown)
        XCTAssertNil(callbacks.onError)
        callbacks.onAllowed?(CaptureResult(captureId: "c1", imageUrl: "https://img/c1.png"))
        XCTAssertEqual(allowed?.captureId, "c1")
        callbacks.onDenied = {}
        XCTAssertNotNil(callbacks.onDenied)
    }

    func testBackendErrorsArriveAsVirelaError() {
        let fromBinding = NSError(domain: VIRErrorDomain, code: 403, userInfo: [
            VIRErrorStatusKey: 403, VIRErrorCodeKey: "forbidden", VIRErrorMessageKey: "Nope.",
        ])
        let error = VirelaError(fromBinding)
        XCTAssertEqual(error?.status, 403)
        XCTAssertEqual(error?.code, "forbidden")
        XCTAssertEqual(error?.message, "Nope.")
        XCTAssertNil(VirelaError(URLError(.notConnectedToInternet)))

        // Back to Objective-C it reads as the binding's own error.
        let bridged = error! as NSError
        XCTAssertEqual(bridged.domain, VIRErrorDomain)
        XCTAssertEqual(bridged.code, 403)
        XCTAssertEqual(VIRError(bridged)?.code, "forbidden")
        XCTAssertEqual(bridged.localizedDescription, "Nope.")
    }

    // A URL that is not absolute fails before any request is made, through both forms.
    func testConfigureThrowsThePlatformErrorForARelativeURL() async {
        let relative = VirelaEnvironment.custom(URL(string: "no-scheme/path")!)
        do {
            try await Virela.configure(key: "key", environment: relative)
            XCTFail("configure succeeded")
        } catch let error as VirelaError {
            XCTFail("not a backend failure: \(error)")
        } catch let error as URLError {
            XCTAssertEqual(error.code, .badURL)
        } catch {
            XCTFail("unexpected \(error)")
        }

        let done = expectation(description: "completion")
        Virela.configure(key: "key", environment: relative, completion: { error in
            XCTAssertFalse(Thread.isMainThread)
            XCTAssertEqual((error as? URLError)?.code, .badURL)
            done.fulfill()
        })
        await fulfillment(of: [done], timeout: 5)
    }

    @MainActor
    func testMarkingAndUnmarkingAView() {
        let view = UIView()
        view.virelaRedact(color: nil, label: "PIN", labelColor: nil)
        XCTAssertTrue(view.isVirelaRedacted)
        Virela.setRedactionStyle(VirelaRedaction(color: .black, label: "HIDDEN", labelColor: .white))
        view.isVirelaRedacted = true
        XCTAssertTrue(view.isVirelaRedacted)
        view.isVirelaRedacted = false
        XCTAssertFalse(view.isVirelaRedacted)
    }
}
