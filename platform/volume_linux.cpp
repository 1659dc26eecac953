#include "volume.h"

#include <sys/stat.h>

bool sameVolume(const std::string &a, const std::string &b)
{
    struct stat first;
    struct stat second;
    return ::stat(a.c_str(), &first) == 0 && ::stat(b.c_str(), &second) == 0 && first.st_dev == second.st_dev;
}

std::string spaceProbeFolder(const std::string &folder)
{
    // Anything that exists counts (df reports the volume of a file as well);
    // "a/b/" becomes "a/b", then "a", and a relative name runs out at itself.
    std::string probe = folder;
    struct stat info;
    while (::stat(probe.c_str(), &info) != 0) {
        const std::string::size_type slash = probe.find_last_of('/');
        if (slash == std::string::npos)
            return folder;
        probe.erase(slash == 0 ? 1 : slash);
        if (probe == "/")
            return probe;
    }
    return probe;
}
