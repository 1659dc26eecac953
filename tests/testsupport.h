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

/** Runs program to its end (at most 60 s) with the given environment. */
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
 * namespace whose /etc/group is groupFile (as root, or as an ordinary user
 * mapped to root in a user namespace). The first element is the program to start.
 */
QStringList withGroupDatabase(const QString &groupFile, const QString &program, const QStringList &args = {});

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
