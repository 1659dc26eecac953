/* Declarations for the macOS compile check, from Apple's AppKit documentation (NSApplication,
 * NSEvent): only what the macOS bodies use. Objective-C++ only. */
#ifndef VELD_MACSDK_APPKIT_H
#define VELD_MACSDK_APPKIT_H

#import <Foundation/Foundation.h>

typedef double NSAppKitVersion;
extern "C" const NSAppKitVersion NSAppKitVersionNumber;

typedef NSUInteger NSEventModifierFlags;
@interface NSEvent : NSObject
+ (NSEventModifierFlags)modifierFlags;
+ (NSUInteger)pressedMouseButtons;
@end

#endif
