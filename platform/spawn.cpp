#include "spawn.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

pid_t spawnProgram(char *const argv[], char *const envp[], const std::function<void()> &prepare, int *error)
{
    // Closed by a successful exec; carries errno when the exec fails.
    int check[2];
    if (::pipe2(check, O_CLOEXEC) != 0) {
        *error = errno;
        return -1;
    }
    const pid_t pid = ::fork();
    if (pid == 0) {
        prepare();
        if (envp)
            ::execve(argv[0], argv, envp);
        else
            ::execvp(argv[0], argv);
        const int failure = errno;
        (void)!::write(check[1], &failure, sizeof failure);
        ::_exit(127);
    }
    const int forkError = errno;
    ::close(check[1]);
    if (pid < 0) {
        ::close(check[0]);
        *error = forkError;
        return -1;
    }
    int failure = 0;
    ssize_t got;
    do {
        got = ::read(check[0], &failure, sizeof failure);
    } while (got < 0 && errno == EINTR);
    ::close(check[0]);
    if (got == ssize_t(sizeof failure)) {
        while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
        *error = failure;
        return -1;
    }
    return pid;
}
