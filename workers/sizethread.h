#ifndef VELD_WORKERS_SIZETHREAD_H
#define VELD_WORKERS_SIZETHREAD_H

#include "pages/pagestate.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QThread>

#include <atomic>
#include <mutex>

/**
 * Measures the database's data files below one folder on a thread of its own.
 *
 * A finished run adds the files it found to sResultList as one block, in the
 * order the walk met them, on the thread the object lives on (the user-interface
 * thread) and before any queued receiver of pathSize runs; then pathSize is
 * delivered. Two scans therefore never interleave their entries, and nothing
 * but that thread ever touches sResultList.
 *
 * Destroying the object while it walks stops the walk within one entry and
 * waits for the thread: nothing is published and pathSize is not emitted.
 */
class SizeThread : public QThread
{
    Q_OBJECT

public:
    SizeThread(QObject *parent, QString path);
    ~SizeThread() override;

    /**
     * The total size in bytes of the data files below path, each of which is
     * appended to list in the order the walk meets it, with the absolute path
     * of path and the names below it as the file system has them. A data file
     * is a regular file whose complete suffix is exactly qventry, qvkentry,
     * qvindex or qvkindex. Sub-folders (hidden ones too) are walked depth-first
     * in the file system's own order, at any depth; symbolic links and special
     * files are left out. A sub-folder that cannot be opened or read to its end
     * is appended to unreadable (when given), and what could be read of it
     * counts. A path that is not a readable folder gives 0 and appends nothing.
     */
    static quint64 dirSize(const QString &path, QList<SourceFile> &list, QList<QByteArray> *unreadable = nullptr);

    /** True when name's complete suffix is one of the four data suffixes. */
    static bool isDataFileName(const char *name);

    /**
     * Stops this scan without a result: the walk ends within one entry, its
     * files never reach sResultList and, unless the walk had already ended,
     * pathSize is not emitted. User-interface thread only.
     */
    void cancel();

    /**
     * Runs the event loop until every started scan has ended and delivered its
     * result (its queued pathSize receivers have run), or was cancelled or
     * destroyed; the window stays responsive meanwhile. Returns true at once
     * when no scan runs, and false when the application quit before the scans
     * ended. User-interface thread only; the caller must guard against its own
     * re-entry while it waits.
     */
    static bool waitForScans();

    /** The files this scan added to sResultList; empty until its result is delivered. Owner's thread only. */
    QList<SourceFile> foundFiles() const { return m_published ? m_found : QList<SourceFile>(); }
    /** The folders this scan could not read (see dirSize); empty until its result is delivered. Owner's thread only. */
    QList<QByteArray> unreadableFolders() const { return m_published ? m_unreadable : QList<QByteArray>(); }

    /** True while a started scan has not ended or not yet delivered its result. */
    static bool scansPending();

    /**
     * A hook for tests, which hold a scan at a known point with it: when set,
     * it is called on a scan's thread before each folder is listed, with the
     * folder as the walk reached it and the scan's cancellation flag, and the
     * walk goes on when it returns. dirSize never calls it. Set it while no
     * scan runs.
     */
    using FolderHook = void (*)(const QByteArray &folder, const std::atomic<bool> &cancelled);
    static void setFolderHook(FolderHook hook);

signals:
    void pathSize(QString path, quint64 totalSize);

protected:
    void run() override;

private:
    void publish();
    bool pending();

    quint64 totalSize = 0;
    const QString path;

    std::atomic<bool> m_cancelled{false};
    // Hands the scan's files to the owner's thread. Its last lock in run() also
    // marks the end of the thread's use of this object for the destructor.
    std::mutex m_foundMutex;
    QList<SourceFile> m_found;       // once published, owner's thread only
    QList<QByteArray> m_unreadable;  // likewise
    bool m_resultReady = false;      // guarded by m_foundMutex
    bool m_published = false;        // owner's thread only
};

#endif
