#include "authority_os.h"

#include <cerrno>
#include <unistd.h>

namespace {

const char kPrompt[] = "Quorvan '14 needs to configure itself to run on your system.";

} // namespace

OSStatus osCreateAuthority(AuthorizationRef *ref)
{
    // The prompt goes with the creation only; the rights request carries none.
    AuthorizationItem prompt = {kAuthorizationEnvironmentPrompt, sizeof kPrompt - 1, const_cast<char *>(kPrompt), 0};
    AuthorizationEnvironment environment = {1, &prompt};
    return AuthorizationCreate(nullptr, &environment,
                               kAuthorizationFlagInteractionAllowed | kAuthorizationFlagExtendRights, ref);
}

OSStatus osRequestAdminRight(AuthorizationRef ref)
{
    static AuthorizationItem admin = {kAuthorizationRightExecute, 0, nullptr, 0};
    AuthorizationRights rights = {1, &admin};
    return AuthorizationCopyRights(ref, &rights, nullptr,
                                   kAuthorizationFlagInteractionAllowed | kAuthorizationFlagExtendRights
                                       | kAuthorizationFlagPreAuthorize,
                                   nullptr);
}

OSStatus osReleaseAuthority(AuthorizationRef ref)
{
    return AuthorizationFree(ref, kAuthorizationFlagDestroyRights);
}

OSStatus osExecuteWithAuthority(AuthorizationRef ref, const char *tool, char *const *argv, const ToolOutput &output,
                                bool *hadOutputPipe)
{
    FILE *pipe = nullptr;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    const OSStatus status = AuthorizationExecuteWithPrivileges(ref, tool, kAuthorizationFlagDefaults, argv, &pipe);
#pragma GCC diagnostic pop
    *hadOutputPipe = pipe != nullptr;
    if (pipe) {
        // Reading to the end is the only wait for the tool; its exit status is never seen.
        char buffer[kToolOutputPiece];
        for (;;) {
            const ssize_t got = ::read(fileno(pipe), buffer, sizeof buffer);
            if (got < 0 && errno == EINTR)
                continue;
            if (got <= 0)
                break;
            output(buffer, size_t(got));
        }
        fclose(pipe);
    }
    return status;
}
