#include "executable.h"

#include <unistd.h>

std::string currentExecutablePath()
{
    char buffer[4096];
    const ssize_t n = readlink("/proc/self/exe", buffer, sizeof(buffer));
    // A result that fills the buffer may have been cut: report failure rather than a wrong path.
    if (n < 1 || n >= static_cast<ssize_t>(sizeof(buffer)))
        return std::string();
    return std::string(buffer, static_cast<size_t>(n));
}
