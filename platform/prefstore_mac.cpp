#include "prefstore_os.h"

#include "locations.h"

#include <CoreFoundation/CoreFoundation.h>

#include <cstdlib>

bool osPrefCopyValue(PrefSearch search, const QString &domain, const QString &key, QString *value)
{
    CFStringRef domainRef = domain.toCFString();
    CFStringRef keyRef = key.toCFString();
    bool found = false;
    if (domainRef && keyRef) {
        CFPropertyListRef stored = search == PrefSearch::AllUsers
                                       ? CFPreferencesCopyValue(keyRef, domainRef, kCFPreferencesAnyUser,
                                                                kCFPreferencesCurrentHost)
                                       : CFPreferencesCopyAppValue(keyRef, domainRef);
        if (stored) {
            if (CFGetTypeID(stored) == CFStringGetTypeID()) {
                *value = QString::fromCFString(static_cast<CFStringRef>(stored));
                found = true;
            }
            CFRelease(stored);
        }
    }
    if (keyRef)
        CFRelease(keyRef);
    if (domainRef)
        CFRelease(domainRef);
    return found;
}

bool osPrefSetAppValue(const QString &domain, const QString &key, const QString *value)
{
    CFStringRef domainRef = domain.toCFString();
    CFStringRef keyRef = key.toCFString();
    CFStringRef valueRef = value ? value->toCFString() : nullptr;
    CFPreferencesSetAppValue(keyRef, valueRef, domainRef);
    const bool synchronized = CFPreferencesAppSynchronize(domainRef);
    if (valueRef)
        CFRelease(valueRef);
    CFRelease(keyRef);
    CFRelease(domainRef);
    return synchronized;
}

void osPrefAppSynchronize(const QString &domain)
{
    CFStringRef domainRef = domain.toCFString();
    CFPreferencesAppSynchronize(domainRef);
    CFRelease(domainRef);
}

std::string osUserPreferencesFolder()
{
    const char *home = getenv("HOME");
    return std::string(home ? home : "") + "/Library/Preferences";
}

std::string osSystemPreferencesFolder()
{
    return std::string(kSystemPreferencesFolder) + "/";
}

std::string osDefaultsTool()
{
    return "/usr/bin/defaults";
}
