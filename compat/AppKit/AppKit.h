// The part of AppKit that sets an application's appearance, with AppKit's names, on GNU's
// Objective-C runtime.
#pragma once

#include <objc/objc.h>

// Only for constants: the names of appearances, compared by address.
__attribute__((objc_root_class))
@interface NSString {
    Class isa;
}
@end

typedef NSString *NSAppearanceName;
extern NSAppearanceName const NSAppearanceNameAqua;

// An appearance that windows can be drawn in.
__attribute__((objc_root_class))
@interface NSAppearance {
    Class isa;
}
// Returns the appearance of that name, or nil for an unknown name. Owned by the class.
+ (NSAppearance *)appearanceNamed:(NSAppearanceName)name;
@end

__attribute__((objc_root_class))
@interface NSApplication {
    Class isa;
}
// Draws every window of the application in this appearance, whatever the user's desktop settings
// say. With nil the settings apply unchanged. wxWidgets must have been initialised.
- (void)setAppearance:(NSAppearance *)appearance;
@end

extern NSApplication *NSApp;
