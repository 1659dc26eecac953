#include "users.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>
#include <vector>

namespace {

const int kMaxAttempts = 10;

size_t initialBufferSize(int sysconfName)
{
    const long suggested = sysconf(sysconfName);
    return suggested > 1024 ? static_cast<size_t>(suggested) : 1024;
}

} // namespace

uint32_t getGroupId(const char *name)
{
    if (!name)
        return kUnknownGroupId;
    std::vector<char> buffer(initialBufferSize(_SC_GETGR_R_SIZE_MAX));
    for (int attempt = 0; attempt < kMaxAttempts; ++attempt) {
        group entry;
        group *found = nullptr;
        const int rc = getgrnam_r(name, &entry, buffer.data(), buffer.size(), &found);
        if (rc == 0 && found)
            return static_cast<uint32_t>(found->gr_gid);
        if (rc != ERANGE)
            break;
        buffer.resize(buffer.size() * 2);
    }
    return kUnknownGroupId;
}

std::string getUserName(uid_t uid)
{
    std::vector<char> buffer(initialBufferSize(_SC_GETPW_R_SIZE_MAX));
    for (int attempt = 0; attempt < kMaxAttempts; ++attempt) {
        passwd entry;
        passwd *found = nullptr;
        const int rc = getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found);
        if (rc == 0 && found)
            return std::string(found->pw_name);
        if (rc != ERANGE) {
            // The re-entrant call returns its error instead of setting errno.
            if (rc != 0)
                errno = rc;
            break;
        }
        buffer.resize(buffer.size() * 2);
    }
    const int error = errno;
    fprintf(stderr, "System call 'getpwuid_r' failed with errno=%d\n    %s\n", error, strerror(error));
    fflush(stderr);
    return std::string();
}

const char *adminGroupName()
{
#ifdef __APPLE__
    return "admin";
#else
    static const char *const candidates[] = {"sudo", "wheel", "admin"};
    for (const char *candidate : candidates) {
        if (getGroupId(candidate) != kUnknownGroupId)
            return candidate;
    }
    return "admin";
#endif
}
