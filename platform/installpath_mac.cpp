#include "installpath.h"

#include <CoreFoundation/CoreFoundation.h>

std::string GetInstallPath()
{
    char buffer[4096] = "";
    CFURLRef url = CFBundleCopyBundleURL(CFBundleGetMainBundle());
    if (!url)
        return std::string();
    CFStringRef path = CFURLCopyFileSystemPath(url, kCFURLPOSIXPathStyle);
    if (path) {
        const CFIndex maxSize = CFStringGetMaximumSizeForEncoding(CFStringGetLength(path), kCFStringEncodingUTF8);
        // Bounded by the buffer, not by the path's own size: a path that does not fit reads as empty.
        if (maxSize > 0 && !CFStringGetCString(path, buffer, sizeof(buffer), kCFStringEncodingUTF8))
            buffer[0] = '\0';
        CFRelease(path);
    }
    CFRelease(url);
    return std::string(buffer);
}
