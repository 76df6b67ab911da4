// Redaction from Swift: UIKit views mark themselves; SwiftUI views, which have no UIView of their
// own to carry a mark, get a marker view behind the content, laid out to the same frame, that
// carries it instead.

import SwiftUI
import UIKit
@_exported import VirelaAgentObjC

public extension UIView {
    /// Paints over this view in captures and live sessions, and keeps remote input away from it.
    /// Each nil value is taken from the default style (`Virela.setRedactionStyle(_:)`) as it is
    /// now. Replaces any earlier mark.
    func virelaRedact(color: UIColor? = nil, label: String? = nil, labelColor: UIColor? = nil) {
        __virelaRedact(color: color, label: label, labelColor: labelColor)
    }
}

public extension View {
    /// Paints over this view in captures and live sessions, and keeps remote input away from it.
    /// Each nil value is taken from the default style (`Virela.setRedactionStyle(_:)`).
    func virelaRedact(color: UIColor? = nil, label: String? = nil,
                      labelColor: UIColor? = nil) -> some View {
        background(RedactionMarkerView(color: color, label: label, labelColor: labelColor))
    }
}

struct RedactionMarkerView: UIViewRepresentable {
    let color: UIColor?
    let label: String?
    let labelColor: UIColor?

    // The marker draws nothing but must stay visible: the capture walk passes over hidden and
    // transparent views, and over their marks with them. So no isHidden, no alpha of zero.
    func makeUIView(context: Context) -> UIView {
        let view = UIView()
        view.isUserInteractionEnabled = false
        view.virelaRedact(color: color, label: label, labelColor: labelColor)
        return view
    }

    // SwiftUI calls this when the arguments change; a fresh mark takes the new values.
    func updateUIView(_ uiView: UIView, context: Context) {
        uiView.virelaRedact(color: color, label: label, labelColor: labelColor)
    }
}
