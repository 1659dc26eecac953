#ifndef VELD_PLATFORM_EXECUTABLE_OS_H
#define VELD_PLATFORM_EXECUTABLE_OS_H

// The system's side of currentExecutablePath: the bound and the checks are shared.

#include <cstddef>

/** Writes the running executable's path into buffer (not necessarily terminated) and
 *  returns its length; 0 or less when the system cannot tell. */
long osExecutablePath(char *buffer, size_t capacity);

#endif
