// The part of AppKit that sets an application's appearance, under its own names, over GNU's Objective-C runtime.
#pragma once

#include <objc/objc.h>

// Text constants only: the names of appearances, told apart by identity.
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
// Returns the appearance of that name, or nil for a name that is not known. Owned by the class.
+ (NSAppearance *)appearanceNamed:(NSAppearanceName)name;
@end

__attribute__((objc_root_class))
@interface NSApplication {
    Class isa;
}
// Draws every window of the application in this appearance, whatever the user's desktop settings ask for. With nil the
// settings apply unchanged. The toolkit must have been initialised.
- (void)setAppearance:(NSAppearance *)appearance;
@end

extern NSApplication *NSApp;
