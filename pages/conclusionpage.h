#ifndef VELD_PAGES_CONCLUSIONPAGE_H
#define VELD_PAGES_CONCLUSIONPAGE_H

#include "pages/pagestate.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QWizardPage>

class CopyThread;
class QProgressBar;

/**
 * The last page: prepares the destination folder (with administrator rights
 * where the user cannot write there), transfers the data files with a
 * progress bar, records the destination as a system-wide preference and
 * shows the outcome in its title and subtitle.
 *
 * Back is disabled from the moment the page is shown until the outcome is
 * known, so that a transfer is never started twice. Destroying the page (the
 * wizard cancelled or closed) stops a running transfer without leaving a cut
 * file and releases the administrator right.
 */
class ConclusionPage : public QWizardPage
{
    Q_OBJECT

public:
    explicit ConclusionPage(QWidget *parent = nullptr);
    ~ConclusionPage() override;

    void setVisible(bool visible) override;
    bool isComplete() const override;
    int nextId() const override;

    /**
     * Takes over the record of a move that an earlier run left unfinished (movejournal.h), if there is one, and
     * tells the person what becomes of it. True when this page is to complete that move into the same folder:
     * the wizard then starts on this page. Call once, from the wizard's constructor.
     */
    bool takeInterruptedMove();

    /**
     * The subtitle for a result code other than success, as shown: a word too long for a line (a path, mostly) may
     * break anywhere, and one too long for a few lines is cut in its middle (wrappableText); the log keeps it whole.
     */
    static QString failureText(int errCode, const QString &errMsg);

public slots:
    void doCopy();
    void handleResult();
    void moveBar(int barValue);
    void resultSet(int errCode, QString errMsg);

private:
    void fixupPrivileges();
    void fail(const QString &reason);
    /** Whether other users may rename or replace entries of folder: writable by its group or others, without the sticky bit. */
    static bool isChangeableByOthers(const QString &folder);
    void setBackEnabled(bool enabled);
    // The person is asked before an earlier run's move is completed; then its source is measured anew.
    void offerResume();
    void resumeScanned();
    // False, with the outcome shown, when another installer's move stands in the way of this one.
    bool recordThisMove();

    QString errMsg;
    bool complete = false;
    bool needsPermissionFix = false;
    int errCode = 0;
    QString destPath;
    QProgressBar *progressBar;
    CopyThread *copyThread = nullptr;
    bool preparing = false;
    int moved = 0;
    // While completing an earlier run's move: its source, and the data files left there.
    QString resumeSource;
    QList<SourceFile> resumeFiles;
    QList<QByteArray> resumeUnreadable;
};

#endif
