#include "childprocess.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char **environ;

namespace {

using Clock = std::chrono::steady_clock;

// Both ends closed on exec, so that no other child keeps the pipe open.
bool closeOnExecPipe(int fds[2])
{
#ifdef __linux__
    return ::pipe2(fds, O_CLOEXEC) == 0;
#else
    if (::pipe(fds) != 0)
        return false;
    ::fcntl(fds[0], F_SETFD, FD_CLOEXEC);
    ::fcntl(fds[1], F_SETFD, FD_CLOEXEC);
    return true;
#endif
}

// The child's fchdir(directory) before its exec.
bool addChangeOfFolder(posix_spawn_file_actions_t *actions, int directory)
{
#if defined(__APPLE__) && defined(__clang__)
    if (__builtin_available(macOS 10.15, *))
        return posix_spawn_file_actions_addfchdir_np(actions, directory) == 0;
    return false;
#else
    return posix_spawn_file_actions_addfchdir_np(actions, directory) == 0;
#endif
}

int msLeft(Clock::time_point deadline)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? int(left) : 0;
}

} // namespace

ChildProcess::~ChildProcess()
{
    kill();
}

bool ChildProcess::start(const std::string &program, const std::vector<std::string> &arguments, int directory)
{
    kill();
    m_crashed = false;
    m_error.clear();
    int errorPipe[2];
    if (!closeOnExecPipe(errorPipe))
        return false;

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, errorPipe[1], 2);
    if (directory >= 0 && !addChangeOfFolder(&actions, directory)) {
        posix_spawn_file_actions_destroy(&actions);
        ::close(errorPipe[0]);
        ::close(errorPipe[1]);
        return false;
    }
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    std::vector<char *> argv{const_cast<char *>(program.c_str())};
    for (const std::string &argument : arguments)
        argv.push_back(const_cast<char *>(argument.c_str()));
    argv.push_back(nullptr);
    // An exec that fails is reported here as the spawn's own error.
    const int failed = posix_spawn(&m_pid, program.c_str(), &actions, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    ::close(errorPipe[1]);
    if (failed != 0) {
        m_pid = -1;
        ::close(errorPipe[0]);
        return false;
    }
    m_errorPipe = errorPipe[0];
    return true;
}

bool ChildProcess::waitForFinished(int ms)
{
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(ms);
    // Standard error ends when the child does (the programs run here start none of their own).
    while (m_errorPipe >= 0) {
        pollfd watched{m_errorPipe, POLLIN, 0};
        const int ready = ::poll(&watched, 1, msLeft(deadline));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready == 0)
            return false;
        char buffer[4096];
        const ssize_t got = ::read(m_errorPipe, buffer, sizeof buffer);
        if (got > 0) {
            m_error.append(buffer, int(got));
        } else if (got == 0 || errno != EINTR) {
            ::close(m_errorPipe);
            m_errorPipe = -1;
        }
    }
    // The exit follows the pipe's end within moments: yield first, then sleep in short steps.
    for (int tries = 0; m_pid > 0; ++tries) {
        reap(false);
        if (m_pid < 0)
            break;
        if (Clock::now() >= deadline)
            return false;
        if (tries < 1000)
            sched_yield();
        else
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

void ChildProcess::kill()
{
    if (m_pid > 0) {
        ::kill(m_pid, SIGKILL);
        reap(true);
    }
    if (m_errorPipe >= 0) {
        ::close(m_errorPipe);
        m_errorPipe = -1;
    }
}

void ChildProcess::reap(bool block)
{
    int status = 0;
    pid_t ended;
    do {
        ended = ::waitpid(m_pid, &status, block ? 0 : WNOHANG);
    } while (ended < 0 && errno == EINTR);
    if (ended == 0)
        return;
    m_crashed = ended == m_pid && WIFSIGNALED(status);
    m_pid = -1;
}
