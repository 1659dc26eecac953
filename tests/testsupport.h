#ifndef VELD_TESTS_TESTSUPPORT_H
#define VELD_TESTS_TESTSUPPORT_H

// What the tests share: processes and the ways to run them, rows run in a
// child process, files, the environment, /proc, the privileged tests' users
// and scratch preference folders.

#include <QList>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <functional>
#include <sys/types.h>

// ---- Processes

/** What a finished child process left behind. exitCode is -1 when it did not start, crashed or hung. */
struct ProcessResult {
    int exitCode = -1;
    QString out;
    QString err;
};

/** Runs command (the program first) to its end, at most 120 s. */
ProcessResult runProcess(const QStringList &command,
                         const QProcessEnvironment &env = QProcessEnvironment::systemEnvironment());

/** Turns a command line into one that runs it another way. */
using Wrap = std::function<QStringList(const QStringList &command)>;

/** As user, with the user's groups (setpriv). */
Wrap asUser(const QString &user);
/** As "nobody" when this process is root, so that permissions apply; unchanged otherwise. */
Wrap asOrdinaryUser();
/**
 * In a private mount namespace (as root, or as an ordinary user mapped to root
 * in a user namespace), after the shell command setup has run there with
 * setupArgs as "$1" ...
 */
Wrap inPrivateMounts(const QString &setup, const QStringList &setupArgs = {});

QStringList wrapped(QStringList command, const QList<Wrap> &wraps);

// ---- Rows run in a child process

/**
 * How the current row runs again in a child process: this test program, or a
 * copy of it at copyTo (its folders made), started with the row's function and
 * data tag through wraps (the first innermost), with env. The child asserts on
 * its own data; inChild() tells it that it is the child.
 */
struct ChildRow {
    QString copyTo = QString();
    QList<Wrap> wraps = {};
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
};

bool inChild();

/** Runs the current row as row says; fails the row unless it passed in the child. Returns what the child printed. */
QString runRowInChild(const ChildRow &row = ChildRow());

/** In the parent: runs the rest of the row in a child process and returns; in the child: goes on. */
#define VELD_ROW_IN_CHILD(...)                                                                                     \
    do {                                                                                                           \
        if (!inChild()) {                                                                                          \
            runRowInChild(__VA_ARGS__);                                                                            \
            return;                                                                                                \
        }                                                                                                          \
    } while (0)

/** Copies the support probe (a command-line front end to the support library) to path and returns path. */
QString placeProbe(const QString &path);

// ---- Files

QByteArray fileBytes(const QString &path);
QString fileText(const QString &path);
/** Writes the file whole with the given permission bits, making its folders; false on failure. */
bool writeFile(const QString &path, const QByteArray &bytes, int mode = 0644);
/** A shell script of body at path, runnable by everyone. */
bool writeScript(const QString &path, const QByteArray &body);
/** A file of the given size, sparse, with its folders. */
bool makeFile(const QString &path, qint64 size);
/**
 * Builds a tree below root from lines "KIND|PATH|ARGUMENT": f file (size), d folder,
 * l symbolic link (target), m chmod (octal mode), p named pipe, s socket.
 */
bool buildTree(const QString &root, const QStringList &entries);
/** "OWNER:GROUP MODE" of path (the mode in octal, as stat -c "%U:%G %a" prints it), or "absent". */
QString ownership(const QString &path);
/** A QTemporaryDir template on a memory file system where the machine has one. */
QString scratchTemplate(const QString &name);

/** What this process writes to standard error while work runs. */
QByteArray standardErrorOf(const std::function<void()> &work);

/** True when text is pattern, where "*" stands for any text, line breaks included. */
bool matchesGlob(const QString &text, const QString &pattern);

/** A regular expression for the log's date stamp (asctime_r without its newline). */
extern const QString kLogDateStampPattern;
/** The lines of a log file, with the "[banner pid]date: " prefix taken off; none when unreadable. */
QStringList logMessages(const QString &path);

// ---- Environment and processes of the machine

/** Sets environment variables of this process (a null value removes one) and restores them on destruction. */
class ScopedEnvironment
{
public:
    ScopedEnvironment &set(const char *name, const QByteArray &value);
    ~ScopedEnvironment();

private:
    QList<QPair<QByteArray, QByteArray>> m_saved;   // a null value: was not set
};

/** Processes other than this one with an argument that contains text. */
QList<pid_t> processesMentioning(const QString &text);
/** Children of this process running program (their first argument). */
QList<pid_t> childrenRunning(const QString &program);
/** Waits up to 30 s for every one of pids to be gone. */
bool allGone(const QList<pid_t> &pids);

// ---- The privileged tests' users

// scripts/privileged-users.sh makes "veldadmin", in the administrators' group,
// whom sudo lets run the built helper and nothing else, and "veldguest", who
// is in neither.

/** The id of the named user, or uid_t(-1). */
uid_t userId(const QString &name);

bool privilegedUsersReady();

/** Skips the test unless the privileged users are ready; fails it instead where VELD_REQUIRE_PRIVILEGED is set (CI). */
#define REQUIRE_PRIVILEGED()                                                                                       \
    do {                                                                                                           \
        if (!inChild() && !privilegedUsersReady()) {                                                               \
            if (qEnvironmentVariableIsSet("VELD_REQUIRE_PRIVILEGED"))                                              \
                QFAIL("the privileged tests must run here: run as root after scripts/privileged-users.sh");        \
            QSKIP("needs root and the users of scripts/privileged-users.sh");                                      \
        }                                                                                                          \
    } while (0)

/**
 * A launcher script in folder that counts its starts and then runs "sudo -n".
 * The folder is opened (0755) to the test users.
 */
class CountingLauncher
{
public:
    bool create(const QString &folder);
    QString path() const { return m_folder + QStringLiteral("/launch"); }
    /** Starts counted since the last reset, or -1 when unknown. */
    int launches() const;
    bool reset() const;
    /** env with VELD_AUTH_HELPER = helper and VELD_AUTH_LAUNCHER = this launcher or launcherCommand. */
    QProcessEnvironment environment(const QString &helper, const QString &launcherCommand = QString(),
                                    const QProcessEnvironment &env = QProcessEnvironment::systemEnvironment()) const;

private:
    QString m_folder;
};

// ---- Preferences

/** A private pair of preference folders, per user and system-wide; nothing outside it is touched. */
class ScratchPreferences
{
public:
    ScratchPreferences();

    QString path() const { return m_dir.path(); }
    QString userFolder() const;
    QString systemFolder() const;
    /** Writes "[General]" and the raw lines into folder/domain.conf. */
    void write(const QString &folder, const QString &domain, const QStringList &lines) const;
    /** The system environment with XDG_CONFIG_HOME and XDG_CONFIG_DIRS pointing here. */
    QProcessEnvironment environment() const;
    /** Points this process's XDG_CONFIG_HOME and XDG_CONFIG_DIRS here. */
    void apply() const;

private:
    QTemporaryDir m_dir;
};

#endif
