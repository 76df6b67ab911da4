#pragma once

// The marks a platform attaches to the views it redacts, which the host hands back to core as it
// reads the tree, and the process-wide default style a new mark copies.

#include <memory>
#include <optional>
#include <string>

#include "core/base/records.hpp"

namespace virela {

// The process-wide default style: #E23B37 with "REDACTED" in white until the host replaces it.
VirelaRedaction defaultRedactionStyle();
void setDefaultRedactionStyle(VirelaRedaction style);

// The mark for `isVirelaRedacted = true`: a copy of the current default style.
std::shared_ptr<const RedactionMark> makeRedactionMark();
// The mark for `virelaRedact(color:label:labelColor:)`: each absent value from the default.
std::shared_ptr<const RedactionMark> makeRedactionMark(std::optional<Color> color,
                                                       std::optional<std::string> label,
                                                       std::optional<Color> labelColor);

}  // namespace virela
