#include "launchdaemon.h"

#include "platform/authority.h"
#include "platform/locations.h"
#include "platform/log.h"
#include "platform/privileges.h"
#include "platform/texts.h"
#include "platform/users.h"

#include <QString>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::string sPidLockPath;

} // namespace

void writeLaunchDaemonAgent(FILE *stream, bool withUserName, const char *serviceFolder, const char *flagText)
{
    fprintf(stream, "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n");
    fprintf(stream, "<!DOCTYPE plist PUBLIC \"-//Apple Computer//DTD PLIST 1.0//EN\"\n");
    fprintf(stream, "    \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n");
    fprintf(stream, "<plist version=\"1.0\">\n");
    fprintf(stream, "<dict>\n");
    fprintf(stream, "    <key>Label</key>\n");
    fprintf(stream, "        <string>%s</string>\n", kServiceLabel);
    fprintf(stream, "    <key>ProgramArguments</key>\n");
    fprintf(stream, "        <array>\n");
    fprintf(stream, "            <string>%s/qv_computeservice</string>\n", serviceFolder ? serviceFolder : "(null)");
    fprintf(stream, "        </array>\n");
    if (withUserName) {
        fprintf(stream, "    <key>UserName</key>\n");
        fprintf(stream, "        <string>%s</string>\n", getUserName(getuid()).c_str());
    }
    fprintf(stream, "    <key>RunAtLoad</key>\n");
    fprintf(stream, "        %s\n", flagText);
    fprintf(stream, "    <key>KeepAlive</key>\n");
    // The ninth blank is the product's own.
    fprintf(stream, "         %s\n", flagText);
    fprintf(stream, "</dict>\n");
    fprintf(stream, "</plist>\n");
}

int createLaunchDaemonAgent(const char *path, bool systemWide, bool run)
{
    const char *serviceFolder = getenv("QUOR_COMPUTESERVICE");
    const char *flagText = run ? "<true/>" : "<false/>";
    if (FILE *stream = fopen(path, "w")) {
        writeLaunchDaemonAgent(stream, systemWide, serviceFolder, flagText);
        // Closed here, so that the definition is on disk even if the process ends abruptly.
        fclose(stream);
        return 0;
    }
    const int error = errno;
    if (!systemWide) {
        logFailure("Error trying to create %s, %s\n", path, strerror(error));
        return 6;
    }
    if (error != EPERM && error != EACCES) {
        logFailure("Error trying to create system %s, %s\n", path, strerror(error));
        return 5;
    }

    char temp[] = "/tmp/qv_computecontrol.XXXXXX";
    const int fd = mkstemp(temp);
    FILE *stream = fd >= 0 ? fdopen(fd, "w") : nullptr;
    if (!stream) {
        const int openError = errno;
        // The two texts differ in their indent; both are the product's own.
        fprintf(stderr, "createLaunchDaemonAgent: Error trying to open %s\n  %s\n", temp, strerror(openError));
        fflush(stderr);
        log_msg("createLaunchDaemonAgent: Error trying to open %s\n   %s\n", temp, strerror(openError));
        if (fd >= 0)
            close(fd);
        return 1;
    }
    writeLaunchDaemonAgent(stream, true, serviceFolder, flagText);
    fclose(stream);
    log_msg("createLaunchDaemonAgent: trying to cp %s to %s with trampoline\n", temp, path);
    if (!gMacAuthorizationRef && establishPrivsForSetup() != 0)
        return 2;
    if (!runCommandWithAuthority(gMacAuthorizationRef, "/bin/cp", {temp, path})) {
        logFailure("createLaunchDaemonAgent: unable to copy %s to %s\n", temp, path);
        return 3;
    }
    if (!runCommandWithAuthority(gMacAuthorizationRef, "/bin/chmod", {"0644", path})) {
        logFailure("createLaunchDaemonAgent: Unable to make %s readable by all users\n", path);
        return 4;
    }
    unlink(temp);
    return 0;
}

int rewriteLaunchDaemonAgentFile(const char *path, bool systemWide, bool run)
{
    gPrivilegeReason = QLatin1String(kProgramName) + QStringLiteral(" needs privileges to change QuorvanServer's ")
                       + QStringLiteral("state for all users.") + QStringLiteral("\n\n") + QLatin1String(kPasswordFollows);
    return createLaunchDaemonAgent(path, systemWide, run);
}

std::string getServerPlistLocation()
{
    if (gSystemScope)
        return kLaunchDaemonDefinition;
    const char *home = getenv("HOME");
    if (!home)
        return std::string();
    return std::string(home) + kLaunchAgentDefinition;
}

int verifyServerPlist()
{
    struct stat status;
    return stat(getServerPlistLocation().c_str(), &status) == 0 ? 0 : errno;
}

void createServerControlLockFile(const char *folder)
{
    sPidLockPath = std::string(folder) + "/" + "QuorvanServer" + "/Control.pid";
    // Without a name for the real user the file holds the pid alone, and nothing is said.
    const std::string login = loginName(getuid());
    FILE *lock = fopen(sPidLockPath.c_str(), "w");
    if (!lock) {
        logFailure("createPidLockFile:Unable to create/write control pid lock file, %s\n%s", sPidLockPath.c_str(),
                    strerror(errno));
        return;
    }
    fprintf(lock, "%d", int(getpid()));
    if (!login.empty())
        fprintf(lock, " %s", login.c_str());
    fclose(lock);
}

int removeServerControlLockFile()
{
    return unlink(sPidLockPath.c_str());
}
