#ifndef VELD_PLATFORM_CHILDPROCESS_H
#define VELD_PLATFORM_CHILDPROCESS_H

#include <QByteArray>

#include <string>
#include <sys/types.h>
#include <vector>

/**
 * One run of a program in a child process, started with posix_spawn, which
 * copies nothing of the caller's address space (a fork of the whole installer
 * per file is what made the transfer slow). Standard input and output are
 * /dev/null; standard error is collected whole. The child gets the caller's
 * environment, an empty signal mask and default signal actions. One thread
 * uses an object at a time; destroying it kills and reaps a child still
 * running.
 */
class ChildProcess
{
public:
    ChildProcess() = default;
    ChildProcess(const ChildProcess &) = delete;
    ChildProcess &operator=(const ChildProcess &) = delete;
    ~ChildProcess();

    /**
     * Starts program (an absolute path) with arguments, in the folder of the
     * descriptor directory when that is not -1 (so that a relative argument
     * names something below it, however deep it lies); false when it could
     * not be started. The descriptor stays the caller's. The change of folder
     * needs glibc 2.29 or macOS 10.15; before them such a start fails.
     */
    bool start(const std::string &program, const std::vector<std::string> &arguments, int directory = -1);

    /** Waits up to ms for the child to end, collecting its standard error; true once it has ended. */
    bool waitForFinished(int ms);

    /** Ends the child at once with SIGKILL and reaps it. */
    void kill();

    /** True when the child that ended was ended by a signal. */
    bool crashed() const { return m_crashed; }

    const QByteArray &standardError() const { return m_error; }

private:
    void reap(bool block);

    pid_t m_pid = -1;
    int m_errorPipe = -1;
    bool m_crashed = false;
    QByteArray m_error;
};

#endif
