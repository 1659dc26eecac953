#ifndef VELD_TESTS_TESTSUPPORT_H
#define VELD_TESTS_TESTSUPPORT_H

#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

/** What a finished child process left behind. exitCode is -1 when it did not start or crashed. */
struct ProcessResult {
    int exitCode = -1;
    QString out;
    QString err;
};

/** Runs program to its end (at most 120 s) with the given environment. */
ProcessResult runProcess(const QString &program, const QStringList &args,
                         const QProcessEnvironment &env = QProcessEnvironment::systemEnvironment());

/** A regular expression for the log's date stamp (asctime_r without its newline). */
extern const QString kLogDateStampPattern;

/**
 * The lines of a log file, with the "[banner pid]date: " prefix taken off the
 * lines that carry it; an unreadable file gives no lines.
 */
QStringList logMessages(const QString &path);

/** Copies the support probe to path (creating its folders) and returns path. */
QString placeProbe(const QString &path);

/** Copies a file, creating the target's folders; false on failure. */
bool copyFileTo(const QString &source, const QString &target);

/**
 * The unshare(1) command line that runs program with args in a private mount
 * namespace (as root, or as an ordinary user mapped to root in a user
 * namespace), after the shell command setup, which sees setupArgs as "$1" ...,
 * has run there. The first element is the program to start.
 */
QStringList inPrivateMounts(const QString &setup, const QStringList &setupArgs, const QString &program,
                            const QStringList &args = {});

/**
 * The unshare(1) command line that runs program with args in a private mount
 * namespace whose /etc/group is groupFile (as root, or as an ordinary user
 * mapped to root in a user namespace). The first element is the program to start.
 */
QStringList withGroupDatabase(const QString &groupFile, const QString &program, const QStringList &args = {});

/**
 * Creates a file of the given size (sparse, so sizes of gigabytes cost no disk)
 * with its folders; false on failure.
 */
bool makeFile(const QString &path, qint64 size);

/**
 * The command line that runs program with args as the unprivileged user
 * "nobody" when this process is root (through setpriv), or as it is otherwise.
 * The first element is the program to start.
 */
QStringList asUnprivilegedUser(const QString &program, const QStringList &args = {});

/**
 * The command line that runs program with args in a private mount namespace
 * whose /media is an empty memory file system, so that no removable disk of
 * the machine is seen and the program may create its own there.
 */
QStringList withEmptyMedia(const QString &program, const QStringList &args = {});

/**
 * A QTemporaryDir template for name on a memory file system where the machine
 * has one (making tens of thousands of files there is quick), else in the
 * temporary folder.
 */
QString scratchTemplate(const QString &name);

/**
 * Fills root with folders x filesPerFolder files of 1 byte, spread over two
 * levels of folders; two files in three are data files (".qventry").
 */
bool buildWideTree(const QString &root, int folders, int filesPerFolder);

/**
 * A private pair of preference folders (per user and system-wide) for tests.
 * Nothing outside its temporary folder is read or written.
 */
class ScratchPreferences
{
public:
    ScratchPreferences();

    QString userFolder() const;
    QString systemFolder() const;

    /** Writes "[General]" and the given raw lines into folder/domain.conf. */
    void writeDomainFile(const QString &folder, const QString &domain, const QStringList &lines) const;

    /** The system environment with XDG_CONFIG_HOME and XDG_CONFIG_DIRS pointing here. */
    QProcessEnvironment environment() const;

    /** Points this process's XDG_CONFIG_HOME and XDG_CONFIG_DIRS here. */
    void applyToThisProcess() const;

    QString path() const { return m_dir.path(); }

private:
    QTemporaryDir m_dir;
};

#endif
