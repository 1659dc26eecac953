#ifndef VELD_PLATFORM_EXECUTABLE_H
#define VELD_PLATFORM_EXECUTABLE_H

#include <string>

/**
 * Full path of the running executable, as the system reports it
 * (proc_pidpath on macOS, /proc/self/exe on Linux).
 * Returns an empty string when the system cannot tell.
 */
std::string currentExecutablePath();

#endif
