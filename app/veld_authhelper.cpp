// veld-authhelper: the installer's administrator authority on Linux.
//
// Started as root by a launcher (pkexec, sudo) or directly, with its standard
// input and output connected to the installer. It carries out, one at a time,
// the requests that the allow-list admits (authpolicy.h), itself and without
// following symbolic links (privops.h): no program, no shell, nothing from a
// folder that a user can write runs as root. It ends when its input ends, and
// dies with its parent: no root process outlives the installer. Its
// environment is its caller's choice, so it is cleared before anything reads it.

#include "platform/authpolicy.h"
#include "platform/authprotocol.h"
#include "platform/privops.h"
#include "platform/users.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <dirent.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const char kName[] = "veld-authhelper";
const int kRefused = -60005;   // the authorization service's "denied"
const int kInput = STDIN_FILENO;
const int kOutput = STDOUT_FILENO;

std::string ownFolder()
{
    char self[PATH_MAX];
    const ssize_t length = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (length <= 0)
        return std::string();
    const std::string path(self, size_t(length));
    return path.substr(0, path.rfind('/'));
}

// Nothing but the conversation and standard error stays open.
bool closeInherited()
{
    if (::close_range(3, ~0U, 0) == 0)
        return true;
    DIR *open = ::opendir("/proc/self/fd");
    if (!open)
        return false;
    std::vector<int> found;
    while (const dirent *entry = ::readdir(open)) {
        const int fd = std::atoi(entry->d_name);
        if (fd > 2 && fd != ::dirfd(open))
            found.push_back(fd);
    }
    ::closedir(open);
    for (const int fd : found)
        ::close(fd);
    return true;
}

// The launchers' word on who called, kept from the environment before it goes.
char sPkexecUid[16], sSudoUid[16];

void keep(const char *entry, const char *name, char (&into)[16])
{
    const size_t length = strlen(name);
    if (strncmp(entry, name, length) == 0 && entry[length] == '=' && strlen(entry + length + 1) < sizeof into)
        strcpy(into, entry + length + 1);
}

// Runs before the initialisation of every library, the toolkit's core and the
// C library among them, which takes this same array as its environment: none
// of them ever sees a variable of the caller's, nor can anything find one
// later where it lay.
void clearEnvironment(int, char **, char **envp)
{
    for (char **entry = envp; entry && *entry; ++entry) {
        keep(*entry, "PKEXEC_UID", sPkexecUid);
        keep(*entry, "SUDO_UID", sSudoUid);
        memset(*entry, 0, strlen(*entry));
    }
    if (envp)
        envp[0] = nullptr;
}

bool reportDone(int status)
{
    return authproto::writeFrame(kOutput, authproto::kDone, authproto::encodeStatus(status));
}

bool refuse(const std::string &reason, const std::string &tool)
{
    fprintf(stderr, "%s: refused: %s: %s\n", kName, reason.c_str(), tool.c_str());
    return reportDone(kRefused);
}

} // namespace

__attribute__((section(".preinit_array"), used)) static void (*const sClearEnvironment)(int, char **, char **) = clearEnvironment;

int main()
{
    // What the tools need: the helper runs none, but nothing it calls may look for one elsewhere.
    setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
    const pid_t parent = ::getppid();
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent || !closeInherited())
        return 1;
    ::signal(SIGPIPE, SIG_IGN);
    ::umask(022);
    if (::chdir("/") != 0)
        return 1;
    HelperRun run;
    run.caller = callerFromLauncher(*sPkexecUid ? sPkexecUid : nullptr, *sSudoUid ? sSudoUid : nullptr, ::getuid());
    run.callerName = loginName(run.caller);
    run.adminGroup = gid_t(getGroupId(adminGroupName()));
    run.helperFolder = ownFolder();

    if (!authproto::writeFrame(kOutput, authproto::kReady))
        return 1;
    for (;;) {
        char type = 0;
        std::string payload;
        switch (authproto::readFrame(kInput, &type, &payload)) {
        case authproto::Read::End:
            return 0;
        case authproto::Read::TooLarge:
            // The rest of the stream cannot be trusted to be framed: answer and end.
            refuse("request larger than " + std::to_string(authproto::kMaxFrame) + " bytes; ending", "-");
            return 1;
        case authproto::Read::Broken:
            fprintf(stderr, "%s: the request stream is broken; ending\n", kName);
            return 1;
        case authproto::Read::Frame:
            break;
        }
        std::string tool, why;
        std::vector<std::string> args;
        Operation op;
        bool answered;
        if (type != authproto::kRun || !authproto::decodeRun(payload, &tool, &args) || args.size() > authproto::kMaxArguments)
            answered = refuse("malformed request", "-");
        else if (!(why = admit(tool, args, run, &op)).empty() || perform(op, run, &why) == Outcome::Refused)
            answered = refuse(why, tool);
        else
            answered = reportDone(0);   // carried out, or failed with the tool's complaint: the tool ran, as on macOS
        if (!answered)
            return 1;
    }
}
