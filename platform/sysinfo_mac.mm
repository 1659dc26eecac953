#include "sysinfo_os.h"

#import <AppKit/AppKit.h>
#import <Foundation/Foundation.h>

#include <sys/sysctl.h>
#include <sys/types.h>

bool osSysctlByName(const char *name, void *buffer, size_t *size)
{
    return sysctlbyname(name, buffer, size, nullptr, 0) == 0;
}

bool osSysctlHardware(int item, void *buffer, size_t *size)
{
    int mib[2] = {CTL_HW, item};
    return sysctl(mib, 2, buffer, size, nullptr, 0) == 0;
}

MacVersionFacts osMacVersionFacts()
{
    MacVersionFacts facts;
    facts.hasAppKit = true;
    facts.appKitVersion = NSAppKitVersionNumber;
    NSProcessInfo *info = [NSProcessInfo processInfo];
    facts.answersOperatingSystemVersion = [info respondsToSelector:@selector(operatingSystemVersion)];
    if (facts.answersOperatingSystemVersion) {
        const NSOperatingSystemVersion version = [info operatingSystemVersion];
        facts.minor = int(version.minorVersion);
        facts.patch = int(version.patchVersion);
    }
    return facts;
}

Qt::KeyboardModifiers osModifierKeys()
{
    return modifiersFromEventFlags((unsigned long)[NSEvent modifierFlags]);
}

unsigned long osPressedMouseButtons()
{
    return (unsigned long)[NSEvent pressedMouseButtons];
}
