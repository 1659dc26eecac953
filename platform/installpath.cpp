#include "installpath.h"

#include "log.h"
#include "texts.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>

namespace {

#ifdef __APPLE__
const char kLibrarySearchVariable[] = "DYLD_LIBRARY_PATH";
const char kLibrarySuffix[] = ".dylib";
const int kLibraryOpenMode = RTLD_LOCAL | RTLD_FIRST;
#else
const char kLibrarySearchVariable[] = "LD_LIBRARY_PATH";
const char kLibrarySuffix[] = ".so";
const int kLibraryOpenMode = RTLD_LOCAL | RTLD_NOW;
#endif

bool MacDYLDPathSet = false;

// printf of a null string, as the C libraries of both systems print it.
const char *printable(const char *text)
{
    return text ? text : "(null)";
}

} // namespace

void GETINSTALLPATH(char *buffer, int size, int *length)
{
    const std::string path = GetInstallPath();
    if (size <= 0) {
        *length = 0;
        return;
    }
    const size_t room = static_cast<size_t>(size) - 1;
    const size_t count = path.size() < room ? path.size() : room;
    memcpy(buffer, path.data(), count);
    buffer[count] = '\0';
    *length = static_cast<int>(count);
}

std::string GetHelpPath()
{
    return GetInstallPath() + "/Contents/Resources/English.lproj/" + kProgramName + " Help/help/";
}

int setMacDYLDPath()
{
    if (MacDYLDPathSet)
        return 0;
    // Set before the work so that a failing first call is not repeated.
    MacDYLDPathSet = true;

    const std::string frameworks = GetInstallPath() + "/Contents/Frameworks";
    const char *old = getenv(kLibrarySearchVariable);
    log_msg("%s was %s\n", kLibrarySearchVariable, printable(old));
    if (old && strstr(old, frameworks.c_str()))
        return 0;

    char value[4096];
    if (old)
        snprintf(value, sizeof(value), "%s:%s", old, frameworks.c_str());
    else
        snprintf(value, sizeof(value), "%s", frameworks.c_str());
    const int result = setenv(kLibrarySearchVariable, value, 1);
    log_msg("setting of %s to %s returned %d\n", kLibrarySearchVariable, value, result);
    log_msg("%s is now %s\n", kLibrarySearchVariable, printable(getenv(kLibrarySearchVariable)));
    return result;
}

void *LoadLibraryA(const char *name)
{
    dlerror();
    char shortName[2048];
    snprintf(shortName, sizeof(shortName), "%s", name ? name : "");
    ShouldStartMacLogging();

    std::string path = GetInstallPath();
    path += path.find("/Contents/SharedSupport") != std::string::npos ? "/../Frameworks/" : "/Contents/Frameworks/";

    const size_t length = strlen(shortName);
    if (length >= 4 && tolower(static_cast<unsigned char>(shortName[length - 2])) == 's'
        && tolower(static_cast<unsigned char>(shortName[length - 1])) == 'o' && shortName[length - 3] == '.')
        shortName[length - 3] = '\0';
    path += shortName;
    path += kLibrarySuffix;

    void *handle = dlopen(path.c_str(), kLibraryOpenMode);
    const char *error = dlerror();
    if (handle) {
        log_msg("Successfully loaded DLL '%s'\n", path.c_str());
        return handle;
    }
    fprintf(stderr, "DLL ERROR: loading DLL '%s' '%s'\n", shortName, printable(error));
    fflush(stderr);
    log_msg("DLL ERROR: loading DLL '%s' '%s'\n", path.c_str(), printable(error));
    return nullptr;
}

int FreeLibrary(void *handle)
{
    return dlclose(handle);
}

void *GetProcAddress(void *handle, const char *symbol)
{
    dlerror();
    void *address = dlsym(handle, symbol);
    const char *error = dlerror();
    if (address && !error)
        return address;
    log_msg("DLL ERROR: (%s): %s\n", symbol, printable(error));
    fprintf(stderr, "DLL ERROR: (%s): %s\n", symbol, printable(error));
    fflush(stderr);
    return nullptr;
}
