#pragma once

// The redaction mark attached to a view: an associated object that owns the core's mark, so the
// view tree walk can hand core a pointer to it without copying the style per view per frame.

#import <UIKit/UIKit.h>

#import "VirelaAgentObjC/VIRRedaction.h"

#include <memory>

#include "core/ports/redaction_style.hpp"

NS_ASSUME_NONNULL_BEGIN

@interface VIRRedactionMarkBox : NSObject

- (instancetype)initWithMark:(std::shared_ptr<const virela::RedactionMark>)mark
    NS_DESIGNATED_INITIALIZER;
- (instancetype)init NS_UNAVAILABLE;
+ (instancetype)new NS_UNAVAILABLE;

// Valid for as long as the box lives.
- (const virela::RedactionMark*)mark;

@end

namespace virela::ios {

// The box attached to `view`; nil when the view is not redacted. Hold on to it while using its
// mark: the host may clear the mark from inside a callback.
VIRRedactionMarkBox* _Nullable redactionMarkBoxOf(UIView* view);

// Whether `object` takes text with secure entry on: a text field or text view, or any custom
// view that takes key input and reports the trait. An object that does not implement the
// getter is never asked.
bool isSecureTextInput(id _Nullable object);

// Makes `style` the default for marks attached from now on.
void setDefaultRedactionStyle(VIRRedaction* style);

}  // namespace virela::ios

NS_ASSUME_NONNULL_END
