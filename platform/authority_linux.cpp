#include "authority_os.h"

#include "authpolicy.h"
#include "authprotocol.h"
#include "spawn.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

// The helper relays the tool's output in pieces of the size that the installer's side promises.
static_assert(authproto::kOutputPiece == kToolOutputPiece, "the helper's output pieces");

struct VeldAuthority {
    pid_t process = -1;   // the launcher, or the helper itself when started directly
    int channel = -1;     // the stream to the helper while it runs
    bool released = false;
};

namespace {

const char kHelperName[] = "veld-authhelper";
const char kDefaultLauncher[] = "/usr/bin/pkexec";
// pkexec's exits for a dismissed dialog and for a refusal.
const int kLauncherDismissed = 126;
const int kLauncherNotAuthorized = 127;
const int kReleaseWaitMs = 10000;
// How long a password dialog may stay unanswered.
int sReadyLimitMs = 10 * 60 * 1000;

// Every authority ever made. Released ones stay, marked, so that a stale
// reference is recognised and refused instead of being followed.
std::vector<std::unique_ptr<VeldAuthority>> &authorities()
{
    static std::vector<std::unique_ptr<VeldAuthority>> all;
    return all;
}

bool isKnown(AuthorizationRef ref)
{
    const auto &all = authorities();
    return std::any_of(all.begin(), all.end(), [ref](const auto &each) { return each.get() == ref; });
}

// Whether a test variable that names program is honoured: only when program is root's alone, so that an
// ordinary user's environment cannot choose what runs as root.
bool honoured(const char *variable, const std::string &program)
{
    if (isRootsAlonePath(program))
        return true;
    fprintf(stderr, "%s: %s ignored: %s is not owned by root alone\n", kHelperName, variable, program.c_str());
    return false;
}

std::string helperPath()
{
    const char *chosen = getenv("VELD_AUTH_HELPER");
    if (chosen && *chosen && honoured("VELD_AUTH_HELPER", chosen))
        return chosen;
    char self[PATH_MAX];
    const ssize_t length = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (length <= 0)
        return kHelperName;
    std::string folder(self, size_t(length));
    return folder.substr(0, folder.rfind('/') + 1) + kHelperName;
}

} // namespace

std::string authorityHelperFolder()
{
    const std::string helper = helperPath();
    const size_t slash = helper.rfind('/');
    return slash == std::string::npos ? std::string(".") : helper.substr(0, slash);
}

namespace {

// The launcher's words, split at blanks (no shell); none when already root.
std::vector<std::string> launcherWords()
{
    std::vector<std::string> words;
    if (::geteuid() == 0)
        return words;
    const char *chosen = getenv("VELD_AUTH_LAUNCHER");
    std::istringstream line(chosen ? chosen : "");
    for (std::string word; line >> word;)
        words.push_back(word);
    if (words.empty() || !honoured("VELD_AUTH_LAUNCHER", words.front()))
        words.assign(1, kDefaultLauncher);
    return words;
}

OSStatus launcherStatus(const std::string &launcher, int waitStatus)
{
    if (WIFSIGNALED(waitStatus))
        return 128 + WTERMSIG(waitStatus);
    const int code = WEXITSTATUS(waitStatus);
    const std::string name = launcher.substr(launcher.rfind('/') + 1);
    if (code == kLauncherDismissed)
        return errAuthorizationCanceled;
    // "sudo -n" ends with 1 when it would have to ask.
    if (code == kLauncherNotAuthorized || (name == "sudo" && code == 1))
        return errAuthorizationDenied;
    return code != 0 ? code : errAuthorizationInternal;
}

void closeChannel(VeldAuthority *authority)
{
    if (authority->channel >= 0) {
        ::shutdown(authority->channel, SHUT_RDWR);
        ::close(authority->channel);
        authority->channel = -1;
    }
}

// Waits for the launcher (or helper) to end after its input was closed, at
// most kReleaseWaitMs; its status, or -1 when it did not end in time.
int reap(VeldAuthority *authority, int timeoutMs)
{
    if (authority->process <= 0)
        return -1;
    int status = 0;
    for (int waited = 0;; waited += 10) {
        const pid_t done = ::waitpid(authority->process, &status, timeoutMs < 0 ? 0 : WNOHANG);
        if (done == authority->process || (done < 0 && errno != EINTR)) {
            authority->process = -1;
            return done < 0 ? -1 : status;
        }
        if (timeoutMs >= 0 && waited >= timeoutMs)
            return -1;
        if (done == 0)
            ::usleep(10000);
    }
}

// A descriptor above the standard three, which an installer started with them closed would otherwise hand out.
int aboveStandard(int fd)
{
    if (fd < 0 || fd > STDERR_FILENO)
        return fd;
    const int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    ::close(fd);
    return moved;
}

enum class Start { Ready, Failed, TimedOut };

// Waits for the helper's first frame, watching the launcher: a launcher that
// ends without it, or a dialog left unanswered past the limit, ends the wait.
Start waitForHelper(int channel, pid_t launcher)
{
    const int watch = int(::syscall(SYS_pidfd_open, launcher, 0));
    struct pollfd fds[2] = {{channel, POLLIN, 0}, {watch, POLLIN, 0}};
    int ready;
    while ((ready = ::poll(fds, watch >= 0 ? 2 : 1, sReadyLimitMs)) < 0 && errno == EINTR) {
    }
    if (watch >= 0)
        ::close(watch);
    if (ready == 0) {
        fprintf(stderr, "%s: no answer from the launcher in time\n", kHelperName);
        ::kill(launcher, SIGTERM);
        return Start::TimedOut;
    }
    if (ready > 0 && !fds[0].revents) {
        // The launcher has ended; whatever it left behind has had its chance to speak.
        struct pollfd last = {channel, POLLIN, 0};
        ready = ::poll(&last, 1, 0);
    }
    char type = 0;
    std::string payload;
    return ready > 0 && authproto::readFrame(channel, &type, &payload) == authproto::Read::Frame && type == authproto::kReady
               ? Start::Ready
               : Start::Failed;
}

OSStatus startHelper(VeldAuthority *authority)
{
    const std::string helper = helperPath();
    std::vector<std::string> words = launcherWords();
    words.push_back(helper);
    std::vector<char *> argv;
    for (std::string &word : words)
        argv.push_back(&word[0]);
    argv.push_back(nullptr);

    int channel[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, channel) != 0)
        return errAuthorizationInternal;
    channel[0] = aboveStandard(channel[0]);
    channel[1] = aboveStandard(channel[1]);
    // No other process of the user may take the channel to a root process (ptrace, pidfd_getfd).
    ::prctl(PR_SET_DUMPABLE, 0);
    int error = 0;
    const pid_t pid = spawnProgram(argv.data(), nullptr, [&] {
        // A session of its own: no terminal, so a launcher never puts a
        // terminal between the two ends of the conversation.
        ::setsid();
        ::dup2(channel[1], STDIN_FILENO);
        ::dup2(channel[1], STDOUT_FILENO);
    }, &error);
    ::close(channel[1]);
    if (pid < 0) {
        fprintf(stderr, "%s: cannot start %s: %s\n", kHelperName, argv[0], strerror(error));
        ::close(channel[0]);
        return errAuthorizationToolExecuteFailure;
    }
    authority->process = pid;

    // The password dialog, if any, is shown now; the helper speaks once it runs as root.
    const Start start = waitForHelper(channel[0], pid);
    if (start == Start::Ready) {
        authority->channel = channel[0];
        return errAuthorizationSuccess;
    }
    ::close(channel[0]);
    const int status = reap(authority, kReleaseWaitMs);
    return start == Start::TimedOut || status < 0 ? errAuthorizationInternal : launcherStatus(words.front(), status);
}

} // namespace

void setHelperStartLimit(int milliseconds)
{
    sReadyLimitMs = milliseconds;
}

OSStatus osCreateAuthority(AuthorizationRef *ref)
{
    authorities().push_back(std::make_unique<VeldAuthority>());
    *ref = authorities().back().get();
    return errAuthorizationSuccess;
}

OSStatus osRequestAdminRight(AuthorizationRef ref)
{
    if (!ref || !isKnown(ref) || ref->released)
        return errAuthorizationInvalidRef;
    if (ref->channel >= 0) {
        // The helper never speaks unasked: anything waiting means it has ended.
        struct pollfd channel = {ref->channel, POLLIN, 0};
        if (::poll(&channel, 1, 0) == 0)
            return errAuthorizationSuccess;
        closeChannel(ref);
        reap(ref, kReleaseWaitMs);
    }
    return startHelper(ref);
}

OSStatus osReleaseAuthority(AuthorizationRef ref)
{
    if (!ref || !isKnown(ref) || ref->released)
        return errAuthorizationInvalidRef;
    ref->released = true;
    // The helper ends when its input closes; a helper that does not is left
    // to end with this process, whose death it watches.
    closeChannel(ref);
    reap(ref, kReleaseWaitMs);
    return errAuthorizationSuccess;
}

OSStatus osExecuteWithAuthority(AuthorizationRef ref, const char *tool, char *const *argv, const ToolOutput &output,
                                bool *hadOutputPipe)
{
    *hadOutputPipe = false;
    if (ref && isKnown(ref) && ref->released) {
        fprintf(stderr, "%s: refused: the authority was released: %s\n", kHelperName, tool);
        return errAuthorizationInvalidRef;
    }
    // Without the right (refused earlier, or the helper gone) the user is asked again.
    const OSStatus started = osRequestAdminRight(ref);
    if (started != errAuthorizationSuccess)
        return started;

    std::vector<std::string> args;
    for (char *const *arg = argv; arg && *arg; ++arg)
        args.push_back(*arg);
    const std::string request = authproto::encodeRun(tool ? tool : "", args);
    if (request.size() + 1 > authproto::kMaxFrame) {
        fprintf(stderr, "%s: refused: request larger than %u bytes: %s\n", kHelperName, unsigned(authproto::kMaxFrame),
                tool ? tool : "");
        return errAuthorizationDenied;
    }
    // Should the helper end on this request, its answer is still read.
    authproto::writeFrame(ref->channel, authproto::kRun, request);
    *hadOutputPipe = true;
    for (;;) {
        char type = 0;
        std::string payload;
        if (authproto::readFrame(ref->channel, &type, &payload) != authproto::Read::Frame)
            break;
        if (type == authproto::kOutput) {
            output(payload.data(), payload.size());
        } else if (type == authproto::kDone) {
            int32_t status = errAuthorizationInternal;
            authproto::decodeStatus(payload, &status);
            return status;
        }
    }
    // The helper is gone; the next command starts another.
    closeChannel(ref);
    reap(ref, kReleaseWaitMs);
    return errAuthorizationToolEnvironmentError;
}
