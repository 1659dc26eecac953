#ifndef VELD_PLATFORM_INSTALLPATH_H
#define VELD_PLATFORM_INSTALLPATH_H

#include <string>

/**
 * The path of the application bundle itself (not its parent), without a
 * trailing "/"; empty when it cannot be had or does not fit 4095 bytes.
 *
 * macOS: the main CFBundle. Linux: the executable's folder (from /proc/self/exe);
 * when that folder ends in "/Contents/MacOS" the bundle is two levels up.
 */
std::string GetInstallPath();

/**
 * GetInstallPath into a caller's buffer. size <= 0: length 0, buffer untouched.
 * A path that does not fit is cut to size - 1 bytes; the buffer is always
 * NUL-terminated otherwise.
 */
void GETINSTALLPATH(char *buffer, int size, int *length);

/** Bundle path + "/Contents/Resources/English.lproj/VELD Installer Help/help/". */
std::string GetHelpPath();

/**
 * Adds the bundle's frameworks folder to the library search variable
 * (DYLD_LIBRARY_PATH on macOS, LD_LIBRARY_PATH on Linux) once per process.
 * Returns 0, or the result of setenv. Only the first call does anything.
 */
int setMacDYLDPath();

/**
 * Loads name from the bundle's frameworks folder. A trailing ".so" (any case)
 * is replaced by the system's library suffix (".dylib" on macOS, ".so" on
 * Linux). Returns the handle, or null after reporting on standard error and
 * in the log.
 */
void *LoadLibraryA(const char *name);

/** dlclose's result. */
int FreeLibrary(void *handle);

/** The symbol's address, or null after reporting on standard error and in the log. */
void *GetProcAddress(void *handle, const char *symbol);

#endif
