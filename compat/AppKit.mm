// Sets the application's appearance in GTK.
#import <AppKit/AppKit.h>

#include <gtk/gtk.h>
#include <objc/runtime.h>

NSAppearanceName const NSAppearanceNameAqua =
    static_cast<NSAppearanceName>(class_createInstance(objc_getClass("NSString"), 0));
NSApplication *NSApp =
    static_cast<NSApplication *>(class_createInstance(objc_getClass("NSApplication"), 0));

namespace {

// What the application sets overrides the user's settings file and the desktop's settings daemon.
void useLightTheme() {
    if (GtkSettings *settings = gtk_settings_get_default())
        g_object_set(settings, "gtk-application-prefer-dark-theme", FALSE, nullptr);
}

gboolean beforeFirstWindow(GSignalInvocationHint *, guint, const GValue *, gpointer) {
    useLightTheme();
    return FALSE; // removes the hook: once is enough
}

} // namespace

@implementation NSString
@end

@implementation NSAppearance
+ (NSAppearance *)appearanceNamed:(NSAppearanceName)name {
    static NSAppearance *const aqua = static_cast<NSAppearance *>(class_createInstance(self, 0));
    return name == NSAppearanceNameAqua ? aqua : nil;
}
@end

@implementation NSApplication
- (void)setAppearance:(NSAppearance *)appearance {
    if (!appearance)
        return;
    // Getting the settings makes GTK read a whole theme: not needed by an application that never
    // shows a window.
    GList *windows = gtk_window_list_toplevels();
    if (windows)
        useLightTheme();
    else
        g_signal_add_emission_hook(g_signal_lookup("realize", GTK_TYPE_WIDGET), 0,
                                   beforeFirstWindow, nullptr, nullptr);
    g_list_free(windows);
}
@end
