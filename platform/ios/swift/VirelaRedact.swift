// SwiftUI's way to redact a view. SwiftUI views have no UIView of their own to carry a mark, so
// a marker view goes behind the content, laid out to the same frame, and carries it instead.

import SwiftUI
import UIKit
@_exported import VirelaAgentObjC

public extension View {
    /// Paints over this view in captures and live sessions. Each nil value is taken from the
    /// default style (`Virela.setRedactionStyle(_:)`).
    func virelaRedact(color: UIColor? = nil, label: String? = nil,
                      labelColor: UIColor? = nil) -> some View {
        background(RedactionMarkerView(color: color, label: label, labelColor: labelColor))
    }
}

struct RedactionMarkerView: UIViewRepresentable {
    let color: UIColor?
    let label: String?
    let labelColor: UIColor?

    func makeUIView(context: Context) -> UIView {
        let view = UIView()
        view.isUserInteractionEnabled = false
        mark(view)
        return view
    }

    // SwiftUI calls this when the arguments change; a fresh mark takes the new values.
    func updateUIView(_ uiView: UIView, context: Context) {
        mark(uiView)
    }

    private func mark(_ view: UIView) {
        view.virelaRedact(color: color, label: label, labelColor: labelColor)
    }
}
