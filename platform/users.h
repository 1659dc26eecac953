#ifndef VELD_PLATFORM_USERS_H
#define VELD_PLATFORM_USERS_H

#include <cstdint>
#include <string>
#include <sys/types.h>

/** The value getGroupId returns for a group it cannot find. */
const uint32_t kUnknownGroupId = 0xFFFFFFFFu;

/**
 * The id of the named group, or kUnknownGroupId when the group does not exist
 * or cannot be looked up. The lookup buffer starts at the system's suggested
 * size (at least 1024 bytes) and doubles on ERANGE, for at most 10 attempts.
 * Writes nothing.
 */
uint32_t getGroupId(const char *name);

/**
 * The login name of uid, or an empty string when unknown. Same buffer scheme
 * as getGroupId. Writes nothing.
 */
std::string loginName(uid_t uid);

/**
 * loginName, with a failure reported on standard error (not in the log).
 */
std::string getUserName(uid_t uid);

/**
 * The name of the administrators' group: "admin" on macOS; on Linux the first
 * of "sudo", "wheel", "admin" that exists, else "admin" (which then reads as
 * unknown).
 */
const char *adminGroupName();

#endif
