#include "authority.h"

#include "authority_os.h"
#include "log.h"

#include <vector>

AuthorizationRef gMacAuthorizationRef = nullptr;

bool createAuthority(AuthorizationRef *ref)
{
    OSStatus status = osCreateAuthority(ref);
    if (status != errAuthorizationSuccess) {
        fprintf(stderr, "AuthorizationCreate failed: status=%d\n", int(status));
        fflush(stderr);
        return false;
    }
    // The reference stays set when the right is refused: a later command asks again.
    status = osRequestAdminRight(*ref);
    if (status == errAuthorizationSuccess)
        return true;
    fprintf(stderr, "AuthorizationCopyRights failed: status=%d", int(status));
    fflush(stderr);
    return false;
}

OSStatus freeAuthority(AuthorizationRef *ref)
{
    if (!ref)
        return errAuthorizationInvalidRef;
    const OSStatus status = osReleaseAuthority(*ref);
    *ref = nullptr;
    return status;
}

bool runCommandWithAuthority(AuthorizationRef auth, const char *tool, char *const *argv)
{
    bool hadOutputPipe = false;
    const OSStatus status = osExecuteWithAuthority(
        auth, tool, argv, [](const char *data, size_t size) { fwrite(data, 1, size, stderr); }, &hadOutputPipe);
    if (status == errAuthorizationSuccess)
        return true;
    fprintf(stderr, "AuthorizationExecuteWithPrivileges failed: %s\n", tool);
    for (char *const *arg = argv; arg && *arg; ++arg)
        fprintf(stderr, " %s\n", *arg);
    fprintf(stderr, " status=%d\n", int(status));
    fflush(stderr);
    return false;
}

bool runCommandWithAuthority(AuthorizationRef auth, const char *tool, std::initializer_list<const char *> args)
{
    // The classic interface takes a mutable argument vector; nothing writes to it.
    std::vector<char *> argv;
    for (const char *arg : args)
        argv.push_back(const_cast<char *>(arg));
    argv.push_back(nullptr);
    return runCommandWithAuthority(auth, tool, argv.data());
}

bool runCommandWithAuthorityToLog(AuthorizationRef auth, const char *tool, char *const *argv, FILE *log)
{
    if (!log) {
        fputs("Requested runCommandWithAuthorityWithLog, but log is not open\n", stderr);
        return false;
    }
    char stamp[64];
    MDAC_log_datestr(stamp);
    fprintf(log, "%s: Executing AuthorizationExecuteWithPrivileges: %s", stamp, tool);
    for (char *const *arg = argv; arg && *arg; ++arg)
        fprintf(log, " \"%s\"", *arg);
    fputc('\n', log);
    fflush(log);

    size_t received = 0;
    bool hadOutputPipe = false;
    const OSStatus status = osExecuteWithAuthority(
        auth, tool, argv,
        [&](const char *data, size_t size) {
            if (received == 0) {
                fflush(log);
                MDAC_log_datestr(stamp);
                fprintf(log, "%s: STDOUT command output:\n", stamp);
            }
            fwrite(data, 1, size, log);
            received += size;
        },
        &hadOutputPipe);
    fflush(log);

    // Only tools that print something on success suit this runner: silence is an error.
    MDAC_log_datestr(stamp);
    if (received == 0) {
        fprintf(log, "%s: No STDOUT output returned from command- handling as error\n", stamp);
        fflush(log);
        return false;
    }
    if (status == errAuthorizationSuccess)
        return true;
    fprintf(log, "%s: AuthorizationExecuteWithPrivileges failed: %s status %d\n", stamp, tool, int(status));
    fprintf(log, " status=%d\n", int(status));
    fflush(log);
    return false;
}
