/* Declarations for the macOS compile check, from Apple's Foundation documentation (NSObjCRuntime,
 * NSObject, NSProcessInfo): only what the macOS bodies use. Objective-C++ only. */
#ifndef VELD_MACSDK_FOUNDATION_H
#define VELD_MACSDK_FOUNDATION_H

#include <objc/objc.h>

typedef long NSInteger;
typedef unsigned long NSUInteger;

@interface NSObject {
    Class isa;
}
- (BOOL)respondsToSelector:(SEL)aSelector;
@end

typedef struct {
    NSInteger majorVersion;
    NSInteger minorVersion;
    NSInteger patchVersion;
} NSOperatingSystemVersion;

@interface NSProcessInfo : NSObject
+ (NSProcessInfo *)processInfo;
- (NSOperatingSystemVersion)operatingSystemVersion;
@end

#endif
