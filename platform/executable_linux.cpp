#include "executable_os.h"

#include <unistd.h>

long osExecutablePath(char *buffer, size_t capacity)
{
    return long(readlink("/proc/self/exe", buffer, capacity));
}
