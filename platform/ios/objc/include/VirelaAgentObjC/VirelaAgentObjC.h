/// @file
/// VirelaAgent for Objective-C: `@import VirelaAgentObjC;` or
/// `#import <VirelaAgentObjC/VirelaAgentObjC.h>`. Swift code imports VirelaAgent, which
/// re-exports this module under Swift's own names.

#import <VirelaAgentObjC/UIView+VirelaRedaction.h>
#import <VirelaAgentObjC/VIRCallbacks.h>
#import <VirelaAgentObjC/VIRCaptureMode.h>
#import <VirelaAgentObjC/VIRCaptureResult.h>
#import <VirelaAgentObjC/VIRDefines.h>
#import <VirelaAgentObjC/VIREnvironment.h>
#import <VirelaAgentObjC/VIRError.h>
#import <VirelaAgentObjC/VIRLiveSession.h>
#import <VirelaAgentObjC/VIRRedaction.h>
#import <VirelaAgentObjC/VIRThemedLayerView.h>
#import <VirelaAgentObjC/VIRUser.h>
#import <VirelaAgentObjC/VIRVirela.h>
