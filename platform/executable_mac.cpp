#include "executable_os.h"

#include <cstdint>
#include <libproc.h>
#include <unistd.h>

long osExecutablePath(char *buffer, size_t capacity)
{
    return proc_pidpath(getpid(), buffer, uint32_t(capacity));
}
