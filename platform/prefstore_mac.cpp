#include "prefstore.h"

#include <CoreFoundation/CoreFoundation.h>

std::string prefReadAppValue(const char *domain, const char *key)
{
    if (!domain || !*domain || !key || !*key)
        return std::string();
    char buffer[4096] = "";
    CFStringRef domainRef = CFStringCreateWithCString(kCFAllocatorDefault, domain, kCFStringEncodingUTF8);
    CFStringRef keyRef = CFStringCreateWithCString(kCFAllocatorDefault, key, kCFStringEncodingUTF8);
    if (domainRef && keyRef) {
        CFPropertyListRef value = CFPreferencesCopyAppValue(keyRef, domainRef);
        if (value) {
            if (CFGetTypeID(value) == CFStringGetTypeID()
                && !CFStringGetCString(static_cast<CFStringRef>(value), buffer, sizeof(buffer), kCFStringEncodingUTF8))
                buffer[0] = '\0';
            CFRelease(value);
        }
    }
    if (keyRef)
        CFRelease(keyRef);
    if (domainRef)
        CFRelease(domainRef);
    return std::string(buffer);
}
