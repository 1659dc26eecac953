#ifndef VELD_WORKERS_COPYTHREAD_H
#define VELD_WORKERS_COPYTHREAD_H

#include "pages/pagestate.h"

#include <QByteArray>
#include <QList>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QThread>

#include <atomic>
#include <mutex>

class ChildProcess;

/**
 * Transfers the database's data files into one folder on a thread of its own,
 * with the user's own rights: one "/bin/cp -pf SRC TARGET" or "/bin/mv SRC
 * TARGET" per file, in the order of sSourceFiles, each into the folder itself
 * (a tree arrives flat). A source path too long for the program is handed
 * over as "./NAME" from the file's own folder. The first failure stops it;
 * what arrived whole stays. Each file that arrives not readable by all is
 * made so (mode 0644).
 *
 * Reports through copyResult (the outcome as it stands: first -100 with "The
 * source database data files couldn't be found.", then 0 after each file, or
 * -100 with the reason at a failure) and copiedFile (files done so far).
 * After the last file, -100 names the first folder of sUnreadableFolders (the
 * database is not whole), else the first file that could not be made readable.
 *
 * A child that cannot be started or is ended by a signal fails the transfer
 * with the program's path and its words in processErrorText; a child ended
 * by a signal, like a cancelled one or one that failed, leaves no cut file:
 * the target is removed unless it was in the folder before this run.
 *
 * The file list and the choice between moving and copying are taken when the
 * object is made, on the user-interface thread.
 */
class CopyThread : public QThread
{
    Q_OBJECT

public:
    CopyThread(QObject *parent, QString path);
    /** Cancels the transfer and waits for the thread, which ends within a fraction of a second. */
    ~CopyThread() override;

    QString getPath() const;

    /**
     * Stops the transfer from any thread: the running child is killed within
     * 100 ms, its partial copy removed (a moved file whose source is gone is
     * left alone), and no further file is started. No result follows.
     */
    void cancel();

    /** The arguments of one transfer: "-pf SRC TARGET" to copy, "SRC TARGET" to move. */
    static QList<QByteArray> transferArguments(bool move, const QByteArray &source, const QByteArray &target);

    /** The text that follows the program's path and ":" when the child failed as a process. */
    static QString processErrorText(QProcess::ProcessError error);

signals:
    void copiedFile(int index);
    void copyResult(int errCode, QString errMsg);

protected:
    void run() override;

private:
    void unpriviledgedCopy();
    // Waits for the child without a time limit, unless the transfer is cancelled meanwhile.
    bool waitForChild(ChildProcess &child);

    const QString path;
    const QList<SourceFile> files;
    const QList<QByteArray> unreadableFolders;
    const bool moveFiles;
    std::atomic<bool> m_cancelled{false};
    // Held for the whole of run(): the destructor takes it after wait(), so that the end of
    // the thread's use of this object is visible to tools that do not see inside QThread.
    std::mutex m_running;
};

#endif
