// veld-authhelper: the installer's administrator authority on Linux.
//
// Started as root by a launcher (pkexec, sudo) or directly, with its standard
// input and output connected to the installer. It runs, one at a time, the
// requests that the allow-list admits (see authpolicy.h), with no shell and a
// clean environment, relays each tool's standard output and reports whether
// the tool was started. It ends when its input ends, and dies with its parent,
// taking any tool still running with it: no root process outlives the installer.

#include "platform/authpolicy.h"
#include "platform/authprotocol.h"
#include "platform/spawn.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

const char kName[] = "veld-authhelper";
const int kRefused = -60005;         // the authorization service's "denied"
const int kNotStarted = -60031;      // its "tool execute failure"
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

void refuse(const std::string &reason, const std::string &tool)
{
    fprintf(stderr, "%s: refused: %s: %s\n", kName, reason.c_str(), tool.c_str());
}

bool reportDone(int status)
{
    return authproto::writeFrame(kOutput, authproto::kDone, authproto::encodeStatus(status));
}

// True while the installer is still there: its end of the conversation is open
// and quiet (it sends nothing while a tool runs).
bool installerPresent()
{
    struct pollfd input = {kInput, POLLIN, 0};
    return ::poll(&input, 1, 0) == 0;
}

void stopTool(pid_t pid)
{
    ::kill(pid, SIGKILL);
    while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
}

// Runs one admitted request. False when the installer is gone and the helper must end.
bool runTool(const std::string &tool, const std::vector<std::string> &args)
{
    std::vector<char *> argv{const_cast<char *>(tool.c_str())};
    for (const std::string &arg : args)
        argv.push_back(const_cast<char *>(arg.c_str()));
    argv.push_back(nullptr);
    char path[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
    char *environment[] = {path, nullptr};

    int output[2];
    if (::pipe2(output, O_CLOEXEC) != 0)
        return reportDone(kNotStarted);
    int error = 0;
    const pid_t pid = spawnProgram(argv.data(), environment, [&] {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int null = ::open("/dev/null", O_RDONLY);
        ::dup2(null, STDIN_FILENO);
        ::dup2(output[1], STDOUT_FILENO);
        ::signal(SIGPIPE, SIG_DFL);
    }, &error);
    ::close(output[1]);
    if (pid < 0) {
        fprintf(stderr, "%s: cannot start %s: %s\n", kName, tool.c_str(), strerror(error));
        ::close(output[0]);
        return reportDone(kNotStarted);
    }

    // Relay the output until it ends; that end is the tool's end for the installer.
    bool present = true;
    char piece[authproto::kOutputPiece];
    for (;;) {
        struct pollfd fds[2] = {{output[0], POLLIN, 0}, {kInput, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            present = false;
            break;
        }
        if (fds[1].revents) {
            present = false;
            break;
        }
        const ssize_t n = ::read(output[0], piece, sizeof piece);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        if (!authproto::writeFrame(kOutput, authproto::kOutput, std::string(piece, size_t(n)))) {
            present = false;
            break;
        }
    }
    ::close(output[0]);
    if (!present) {
        stopTool(pid);
        return false;
    }
    // A tool that closed its output early is done for the installer; it is
    // still waited for here, unless the installer goes away meanwhile.
    while (::waitpid(pid, nullptr, WNOHANG) == 0) {
        if (!installerPresent()) {
            stopTool(pid);
            return false;
        }
        ::usleep(10000);
    }
    return reportDone(0);
}

} // namespace

int main()
{
    const pid_t parent = ::getppid();
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent)
        return 1;
    ::close_range(3, ~0U, 0);
    ::signal(SIGPIPE, SIG_IGN);
    ::umask(022);
    if (::chdir("/") != 0)
        return 1;
    const std::string folder = ownFolder();

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
            reportDone(kRefused);
            return 1;
        case authproto::Read::Broken:
            fprintf(stderr, "%s: the request stream is broken; ending\n", kName);
            return 1;
        case authproto::Read::Frame:
            break;
        }
        std::string tool;
        std::vector<std::string> args;
        if (type != authproto::kRun || !authproto::decodeRun(payload, &tool, &args)
            || args.size() > authproto::kMaxArguments) {
            refuse("malformed request", "-");
            if (!reportDone(kRefused))
                return 1;
            continue;
        }
        const std::string reason = refusalReason(tool, args, folder);
        if (!reason.empty()) {
            refuse(reason, tool);
            if (!reportDone(kRefused))
                return 1;
            continue;
        }
        if (!runTool(tool, args))
            return 1;
    }
}
