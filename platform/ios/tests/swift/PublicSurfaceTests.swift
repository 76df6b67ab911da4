// The public API as a Swift app uses it. `AppSupport` below is the way an app wires the library
// in (it is compiled, never run: it would talk to the live service); the tests check the parts
// of the surface that need no backend, and the one bridge written by hand: the Swift callbacks
// turned into the binding's blocks.

import SwiftUI
import UIKit
@testable import VirelaAgent
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

    func markSensitive(_ cardNumber: UITextField, _ pin: UIView, _ photo: UIImageView) {
        cardNumber.isVirelaRedacted = true
        pin.virelaRedact(label: "PIN")
        photo.virelaRedact()
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
        XCTAssertEqual(CaptureMode.askEveryTime.rawValue, __VIRCaptureMode.askEveryTime.rawValue)
        XCTAssertEqual(CaptureMode.perSession.rawValue, __VIRCaptureMode.perSession.rawValue)
        XCTAssertEqual(CaptureMode.liveView.rawValue, __VIRCaptureMode.liveView.rawValue)
        XCTAssertNil(CaptureMode(rawValue: "askEveryTime"))
        let decoded = try JSONDecoder().decode([CaptureMode].self, from: Data(#"["PerSession"]"#.utf8))
        XCTAssertEqual(decoded, [.perSession])
    }

    // The binding calls the blocks on the main thread with its own objects; the host's closures
    // receive Swift records and errors.
    @MainActor
    func testCallbacksCrossTheBindingAsSwiftValues() {
        let received = Received()
        let blocks = VirelaCallbacks(
            onAllowed: { received.capture = $0 },
            onError: { received.error = $0 },
            onRemoteControl: { received.remoteControl.append($0) },
            onLiveEnded: { received.session = $0 }
        ).object

        // A callback the host left out is no block at all, so the binding skips it.
        XCTAssertNil(blocks.onRequestShown)
        XCTAssertNil(blocks.onDenied)
        XCTAssertNil(blocks.onExpired)

        blocks.onAllowed?(__VIRCaptureResult(captureId: "c1", imageUrl: "https://img/c1.png"))
        XCTAssertEqual(received.capture, CaptureResult(captureId: "c1", imageUrl: "https://img/c1.png"))
        blocks.onLiveEnded?(__VIRLiveSession(sessionId: "s1"))
        XCTAssertEqual(received.session, LiveSession(sessionId: "s1"))
        blocks.onRemoteControl?(true)
        blocks.onRemoteControl?(false)
        XCTAssertEqual(received.remoteControl, [true, false])

        // The binding's own failure arrives as VirelaError, any other error as the platform's.
        blocks.onError?(NSError(domain: VIRErrorDomain, code: 502, userInfo: [
            VIRErrorStatusKey: 502, VIRErrorCodeKey: "bad_gateway", VIRErrorMessageKey: "Down.",
        ]))
        XCTAssertEqual(received.error as? VirelaError,
                       VirelaError(status: 502, code: "bad_gateway", message: "Down."))
        blocks.onError?(URLError(.timedOut))
        XCTAssertNil(received.error as? VirelaError)
        XCTAssertEqual((received.error as? URLError)?.code, .timedOut)
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
        XCTAssertEqual(__VIRError(bridged)?.code, "forbidden")
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
        view.virelaRedact(label: "PIN")
        XCTAssertTrue(view.isVirelaRedacted)
        view.isVirelaRedacted = false
        XCTAssertFalse(view.isVirelaRedacted)
        view.virelaRedact()
        XCTAssertTrue(view.isVirelaRedacted)
    }

    // The capture walk passes over hidden and transparent views: the SwiftUI marker, and every
    // view above it, must be neither, and the marker must cover the content it stands behind.
    @MainActor
    func testTheSwiftUIMarkerIsAVisibleViewOverTheContentsFrame() {
        let content = Text("4242 4242 4242 4242").frame(width: 200, height: 40)
        let window = UIWindow(frame: CGRect(x: 0, y: 0, width: 320, height: 480))
        window.rootViewController = UIHostingController(rootView: content.virelaRedact(label: "CARD"))
        window.makeKeyAndVisible()
        window.layoutIfNeeded()

        let markers = views(in: window).filter { $0.isVirelaRedacted }
        XCTAssertEqual(markers.count, 1)
        guard let marker = markers.first else { return }
        var chain: UIView? = marker
        while let view = chain {
            XCTAssertFalse(view.isHidden, "\(type(of: view)) is hidden")
            XCTAssertGreaterThanOrEqual(view.alpha, 0.01, "\(type(of: view)) is transparent")
            chain = view.superview
        }
        XCTAssertEqual(marker.convert(marker.bounds, to: window).size, CGSize(width: 200, height: 40))
        window.isHidden = true
    }
}

/// What the host's callbacks received.
@MainActor
private final class Received {
    var capture: CaptureResult?
    var error: Error?
    var session: LiveSession?
    var remoteControl: [Bool] = []
}

@MainActor
private func views(in root: UIView) -> [UIView] {
    [root] + root.subviews.flatMap { views(in: $0) }
}
