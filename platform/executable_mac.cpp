#include "executable.h"

#include <libproc.h>
#include <unistd.h>

std::string currentExecutablePath()
{
    char buffer[4096];
    if (proc_pidpath(getpid(), buffer, sizeof(buffer)) < 1)
        return std::string();
    return std::string(buffer);
}
