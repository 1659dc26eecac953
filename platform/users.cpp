#include "users.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <grp.h>
#include <optional>
#include <pwd.h>
#include <unistd.h>
#include <vector>

namespace {

const int kMaxAttempts = 10;

// Calls lookup(buffer, size) with a buffer of the system's suggested size (at
// least 1024 bytes) that doubles after each ERANGE, for at most 10 attempts.
// Returns the last result of lookup, which must copy out what it needs.
template <typename Lookup>
int withGrowingBuffer(int sysconfName, Lookup lookup)
{
    const long suggested = sysconf(sysconfName);
    std::vector<char> buffer(suggested > 1024 ? static_cast<size_t>(suggested) : 1024);
    int rc = ERANGE;
    for (int attempt = 1; rc == ERANGE; ++attempt) {
        rc = lookup(buffer.data(), buffer.size());
        if (attempt == kMaxAttempts)
            break;
        if (rc == ERANGE)
            buffer.resize(buffer.size() * 2);
    }
    return rc;
}

// The login name of uid, or nothing when it has no entry or cannot be looked up; *rc is the last
// status of getpwuid_r.
std::optional<std::string> lookUpLoginName(uid_t uid, int *rc)
{
    std::optional<std::string> name;
    *rc = withGrowingBuffer(_SC_GETPW_R_SIZE_MAX, [&](char *buffer, size_t size) {
        passwd entry;
        passwd *result = nullptr;
        const int status = getpwuid_r(uid, &entry, buffer, size, &result);
        if (status == 0 && result)
            name = result->pw_name;
        return status;
    });
    return name;
}

} // namespace

uint32_t getGroupId(const char *name)
{
    if (!name)
        return kUnknownGroupId;
    uint32_t id = kUnknownGroupId;
    withGrowingBuffer(_SC_GETGR_R_SIZE_MAX, [&](char *buffer, size_t size) {
        group entry;
        group *found = nullptr;
        const int rc = getgrnam_r(name, &entry, buffer, size, &found);
        if (rc == 0 && found)
            id = static_cast<uint32_t>(found->gr_gid);
        return rc;
    });
    return id;
}

std::string loginName(uid_t uid)
{
    int rc = 0;
    return lookUpLoginName(uid, &rc).value_or(std::string());
}

std::string getUserName(uid_t uid)
{
    int rc = 0;
    if (const std::optional<std::string> name = lookUpLoginName(uid, &rc))
        return *name;
    // The re-entrant call returns its error instead of setting errno.
    if (rc != 0)
        errno = rc;
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
