#include "volume.h"

#include <cstring>
#include <sys/mount.h>
#include <sys/param.h>

namespace {

const size_t kDeviceNameLength = 1024;

} // namespace

bool sameVolume(const std::string &a, const std::string &b)
{
    struct statfs first;
    struct statfs second;
    if (::statfs(a.c_str(), &first) != 0 || ::statfs(b.c_str(), &second) != 0)
        return false;
    return std::strncmp(first.f_mntfromname, second.f_mntfromname, kDeviceNameLength) == 0;
}

std::string spaceProbeFolder(const std::string &folder)
{
    return folder;
}
