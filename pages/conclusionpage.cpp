#include "conclusionpage.h"

#include "pages/pagestate.h"
#include "platform/authority.h"
#include "platform/locations.h"
#include "platform/log.h"
#include "platform/messagebox.h"
#include "platform/prefstore.h"
#include "platform/privileges.h"
#include "platform/texts.h"
#include "workers/copythread.h"
#include "workers/movejournal.h"
#include "workers/sizethread.h"

#include <QAbstractButton>
#include <QDir>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QTimer>
#include <QVariant>
#include <QWizard>

#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const char kNotWritten[] = " was not able to write the database to the selected location.";
const int kFailure = -100;
const mode_t kFolderMode = 0755;

QString privilegeReason(const char *purpose)
{
    return QLatin1String(kProgramName) + QStringLiteral(" needs to enable privileges to ") + QLatin1String(purpose)
           + QStringLiteral("\n\n") + QLatin1String(kPasswordFollows);
}

// What the person is told about an earlier run's move; %1 its source, %2 its destination.
const char kInterrupted[] = "An earlier installation was interrupted while it moved the database files from\n\n%1\n\nto\n\n%2";
const char kResume[] = "\n\nVELD Installer will now move the remaining files to the same folder and complete the installation.";
const char kDestinationMissing[] = "\n\nThat folder cannot be found now. If it is on a disk that is not connected, quit, connect "
                                   "the disk and start VELD Installer again. Otherwise the files moved there are lost: start a "
                                   "new installation from the original database disk.";
const char kBusy[] = "Another VELD Installer is moving database files now. Please wait until it has finished, then start "
                     "VELD Installer again.";
const char kEarlierRecord[] = "An earlier installation was interrupted while it moved database files. Please start VELD "
                              "Installer again to complete it.";
const char kQuit[] = "Quit";

enum class RecordedDestination { Usable, Missing, Unusable };

// The record is the user's own file: its destination must look like one this installer chose (a folder named as
// the chooser names it, neither the source nor holding it) and be a real folder, not a link.
RecordedDestination judge(const MoveRecord &record)
{
    const QString source = QDir::cleanPath(QFile::decodeName(record.source));
    const QString destination = QDir::cleanPath(QFile::decodeName(record.destination));
    static const QRegularExpression name(QStringLiteral("^VELDV400(_[0-9]+)?$"));
    if (source == destination || source.startsWith(destination + QLatin1Char('/'))
        || !name.match(QFileInfo(destination).fileName()).hasMatch())
        return RecordedDestination::Unusable;
    struct stat status;
    if (lstat(record.destination.constData(), &status) != 0)
        return errno == ENOENT || errno == ENOTDIR ? RecordedDestination::Missing : RecordedDestination::Unusable;
    return S_ISDIR(status.st_mode) ? RecordedDestination::Usable : RecordedDestination::Unusable;
}

bool holdsDataFile(const QString &folder)
{
    DIR *dir = opendir(QFile::encodeName(folder).constData());
    if (!dir)
        return false;
    bool found = false;
    while (const dirent *entry = readdir(dir)) {
        struct stat status;
        if (SizeThread::isDataFileName(entry->d_name) && fstatat(dirfd(dir), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0
            && S_ISREG(status.st_mode)) {
            found = true;
            break;
        }
    }
    closedir(dir);
    return found;
}

// A box over the wizard with the given buttons, the first the default; returns the index of the one pressed
// (Escape and closing the box press the last).
int ask(QWidget *parent, const QString &text, const QStringList &buttons)
{
    QMessageBox box(parent);
    prepareMessageBox(box, text);
    QList<QPushButton *> added;
    for (const QString &label : buttons)
        added << box.addButton(label, added.isEmpty() && buttons.size() > 1 ? QMessageBox::AcceptRole : QMessageBox::RejectRole);
    box.setDefaultButton(added.first());
    box.setEscapeButton(added.last());
    box.exec();
    return int(added.indexOf(static_cast<QPushButton *>(box.clickedButton())));
}

} // namespace

ConclusionPage::ConclusionPage(QWidget *parent)
    : QWizardPage(parent)
    , progressBar(new QProgressBar)
{
    auto *layout = new QHBoxLayout;
    progressBar->setRange(0, 100);
    layout->addWidget(progressBar);
    setLayout(layout);
}

ConclusionPage::~ConclusionPage()
{
    // A transfer still running is stopped (and waited for) before the rights go.
    delete copyThread;
    // A move cut short stays recorded, for the next run to complete.
    releaseMove();
    if (gMacAuthorizationRef)
        freeAuthority(&gMacAuthorizationRef);
}

void ConclusionPage::setVisible(bool visible)
{
    QWizardPage::setVisible(visible);
    if (!visible)
        return;
    setTitle(tr("Installing Database"));
    if (!resumeSource.isEmpty())
        sCopyFiles = true;
    setSubTitle(sCopyFiles ? QStringLiteral("Moving database files.")
                           : QStringLiteral("Installing database. (This will take %1.)").arg(QStringLiteral("10-15 minutes")));
    destPath = field(QStringLiteral("path")).toString();
    if (destPath.isEmpty())
        destPath = QString::fromUtf8(kFallbackDestination);
    setField(QStringLiteral("path"), QString());
    setBackEnabled(false);
    if (!resumeSource.isEmpty())
        QTimer::singleShot(0, this, &ConclusionPage::offerResume);
    else
        QTimer::singleShot(1000, this, &ConclusionPage::doCopy);
}

bool ConclusionPage::takeInterruptedMove()
{
    MoveRecord record;
    const JournalState state = ::takeInterruptedMove(&record);
    const QByteArray journal = QFile::encodeName(moveJournalPath());
    if (state == JournalState::Malformed)
        log_msg("takeInterruptedMove: %s is not the record of a move; removed\n", journal.constData());
    if (state == JournalState::Busy) {
        QTimer::singleShot(0, this, [this] {
            ask(wizard(), QString::fromLatin1(kBusy), {QString::fromLatin1(kQuit)});
            wizard()->reject();
        });
    }
    if (state != JournalState::Interrupted)
        return false;
    log_msg("takeInterruptedMove: %s records a move from %s to %s\n", journal.constData(), record.source.constData(),
            record.destination.constData());
    const QString source = QFile::decodeName(record.source), destination = QFile::decodeName(record.destination);
    switch (judge(record)) {
    case RecordedDestination::Unusable:
        log_msg("takeInterruptedMove: not a destination of this installer's; the record is removed\n");
        forgetMove();
        return false;
    case RecordedDestination::Missing:
        QTimer::singleShot(0, this, [this, source, destination] {
            const QString text = QString::fromLatin1(kInterrupted).arg(source, destination) + QLatin1String(kDestinationMissing);
            if (ask(wizard(), text, {QString::fromLatin1(kQuit), QStringLiteral("Start a New Installation")}) == 1) {
                forgetMove();
            } else {
                releaseMove();
                wizard()->reject();
            }
        });
        return false;
    case RecordedDestination::Usable:
        break;
    }
    resumeSource = source;
    setField(QStringLiteral("path"), destination);
    return true;
}

void ConclusionPage::offerResume()
{
    if (!isVisible() || preparing || copyThread)
        return;
    const QString text = QString::fromLatin1(kInterrupted).arg(resumeSource, destPath) + QLatin1String(kResume);
    if (ask(wizard(), text, {QStringLiteral("Complete Installation"), QString::fromLatin1(kQuit)}) != 0) {
        releaseMove();
        wizard()->reject();
        return;
    }
    // The files left in the source; the folder may be gone, all of them moved.
    preparing = true;
    auto *scan = new SizeThread(this, resumeSource);
    connect(scan, &SizeThread::pathSize, this, &ConclusionPage::resumeScanned);
    scan->start();
}

void ConclusionPage::resumeScanned()
{
    auto *scan = qobject_cast<SizeThread *>(sender());
    resumeFiles.clear();
    const QByteArray inDestination = QFile::encodeName(destPath) + '/';
    for (const SourceFile &file : scan->foundFiles())
        if (!file.path.startsWith(inDestination))
            resumeFiles << file;
    resumeUnreadable = scan->unreadableFolders();
    scan->deleteLater();
    preparing = false;
    doCopy();
}

bool ConclusionPage::recordThisMove()
{
    // The source as the folder it is, whatever way led there (the one beside the bundle is named with "..").
    const QString canonical = QFileInfo(sSourceFolder).canonicalFilePath();
    const QString source = !resumeSource.isEmpty() ? resumeSource : !canonical.isEmpty() ? canonical : sSourceFolder;
    const MoveRecord record{QFile::encodeName(source), destPath.toUtf8()};
    const JournalState state = recordMove(record);
    switch (state) {
    case JournalState::Recorded:
        return true;
    case JournalState::Busy:
    case JournalState::Interrupted:
        errMsg = QString::fromLatin1(state == JournalState::Busy ? kBusy : kEarlierRecord);
        errCode = kFailure;
        handleResult();
        return false;
    default:
        // Without the record the move goes on as it always did.
        logFailure("doCopy: the move could not be recorded in %s\n", QFile::encodeName(moveJournalPath()).constData());
        return true;
    }
}

bool ConclusionPage::isComplete() const
{
    return complete;
}

int ConclusionPage::nextId() const
{
    return -1;
}

void ConclusionPage::setBackEnabled(bool enabled)
{
    // An option rather than the button itself, which the wizard enables again at each update.
    if (wizard())
        wizard()->setOption(QWizard::DisabledBackButtonOnLastPage, !enabled);
}

void ConclusionPage::fail(const QString &reason)
{
    errMsg = QLatin1String(kProgramName) + reason;
    errCode = kFailure;
    handleResult();
}

bool ConclusionPage::isChangeableByOthers(const QString &folder)
{
    struct stat status;
    return stat(QFile::encodeName(folder).constData(), &status) == 0 && (status.st_mode & (S_IWGRP | S_IWOTH))
           && !(status.st_mode & S_ISVTX);
}

void ConclusionPage::doCopy()
{
    // One transfer per page, whatever the timers that pile up, and none once the page was left.
    if (!isVisible() || preparing || (copyThread && !copyThread->isFinished()))
        return;
    preparing = true;
    const auto prepared = qScopeGuard([this] { preparing = false; });
    gSystemScope = 1;
    const QByteArray dest = destPath.toUtf8();
    // An earlier run's destination is there already, made by that run: nothing is prepared for it again.
    const bool resuming = !resumeSource.isEmpty();
    if (!resuming && access(dest.constData(), W_OK) != 0) {
        gPrivilegeReason = privilegeReason("install the database in the selected location.");
        if (destPath.startsWith(QString::fromUtf8(kMakersFolder), Qt::CaseInsensitive)) {
            needsPermissionFix = true;
            // Always the fixed folder, even when destPath names another one beside it.
            if (verifyResourceDirectory(kMakersFolder, "VELDV400") != 0) {
                fail(QStringLiteral(" was not able to access the selected location."));
                return;
            }
        } else if (mkdir(dest.constData(), kFolderMode) != 0) {
            // Others could put a link in the destination's place while the rights are used on it.
            const QString parent = QFileInfo(destPath).path();
            if (isChangeableByOthers(parent)) {
                fail(QStringLiteral(" will not install into %1, a folder that other users can change. Please select another "
                                    "location.").arg(parent));
                return;
            }
            if (!gMacAuthorizationRef && establishPrivsForSetup() != 0) {
                fail(QLatin1String(kNotWritten));
                return;
            }
            char mode[8];
            snprintf(mode, sizeof mode, "%o", unsigned(kFolderMode));
            if (!runCommandWithAuthority(gMacAuthorizationRef, "/bin/mkdir", {"-m", mode, dest.constData()})) {
                log_msg("doCopy: runCommandWithAuthority(/bin/mkdir %s %s %s) failed\n", "-m", mode, dest.constData());
                fail(QLatin1String(kNotWritten));
                return;
            }
            // The mkdir counts as run even when it failed: what is there now must be the folder it made.
            struct stat made;
            if (lstat(dest.constData(), &made) != 0 || !S_ISDIR(made.st_mode) || (made.st_uid != 0 && made.st_uid != getuid())) {
                log_msg("doCopy: %s is not a folder of root's or the user's after the privileged mkdir\n", dest.constData());
                fail(QLatin1String(kNotWritten));
                return;
            }
            needsPermissionFix = true;
        }
        // A copy runs as the user; a move keeps the rights for the end.
        if (gMacAuthorizationRef && !sCopyFiles)
            freeAuthority(&gMacAuthorizationRef);
    }

    // The transfer takes the list as it stands: a scan still running is waited for first.
    if (!SizeThread::waitForScans())
        return;
    if (resuming) {
        sSourceFiles = resumeFiles;
        sUnreadableFolders = resumeUnreadable;
        sCopyFiles = true;
    }
    // Recorded before the first file moves, so that a run cut short is completed by the next.
    if (sCopyFiles && !recordThisMove())
        return;
    if (resuming && resumeFiles.isEmpty() && holdsDataFile(destPath)) {
        // Every file was moved before the earlier run ended: what is left is the preference.
        errCode = 0;
        handleResult();
        return;
    }
    copyThread = new CopyThread(this, destPath);
    connect(copyThread, &QThread::finished, this, &ConclusionPage::handleResult);
    connect(copyThread, &CopyThread::copiedFile, this, &ConclusionPage::moveBar);
    connect(copyThread, &CopyThread::copyResult, this, &ConclusionPage::resultSet);
    progressBar->setMaximum(sSourceFiles.size());
    if (!copyThread->isRunning())
        copyThread->start(QThread::InheritPriority);
}

void ConclusionPage::handleResult()
{
    complete = true;
    if (errCode == 0) {
        gPrivilegeReason = privilegeReason("make the database readable for all users.");
        if (!gMacAuthorizationRef && establishPrivsForSetup() != 0) {
            // Replaced below: the installer ends with the success texts even then.
            setTitle(tr("Database was installed, but is not available"));
            setSubTitle(QStringLiteral("System-wide preferences could not be set"));
        } else {
            MacWriteGlobalDefaultSetting(QString::fromLatin1(kDatabasePrefDomain), kDatabasePrefKey, destPath.toUtf8().constData(),
                                         gMacAuthorizationRef);
            if (needsPermissionFix)
                fixupPrivileges();
        }
        setTitle(tr("Database Installed"));
        setSubTitle(tr("The Quorvan Spectra and Properties Database is now ready for use."));
        forgetMove();
    } else {
        setTitle(tr("Database was not installed"));
        setSubTitle(failureText(errCode, errMsg));
        if (QString(subTitle()).remove(QChar(0x200B)) != errMsg)
            log_msg("handleResult: %s\n", errMsg.toUtf8().constData());
        // A move that stopped with files moved stays recorded for the next run; with none moved there is nothing to complete.
        if (resumeSource.isEmpty() ? moved == 0 : resumeFiles.isEmpty())
            forgetMove();
        else
            releaseMove();
    }
    setField(QStringLiteral("path"), destPath);
    progressBar->setRange(0, 100);
    progressBar->hide();
    setBackEnabled(true);
    // Return now means Done, wherever the keyboard's focus was while the page worked
    // (a focused button would take Return for itself).
    if (QAbstractButton *done = wizard() ? wizard()->button(QWizard::FinishButton) : nullptr)
        done->setFocus();
}

QString ConclusionPage::failureText(int errCode, const QString &errMsg)
{
    switch (errCode) {
    case errAuthorizationCanceled:
        return tr("Cancel was pressed.");
    case errAuthorizationDenied:
        return tr("The username entered does not have admin privileges.");
    case kFailure:
        // A long path in a copy program's words would widen the window past the screen: it may break anywhere.
        return wrappableText(errMsg);
    default:
        return QStringLiteral("A MacOS error occured (%1)").arg(errCode);
    }
}

void ConclusionPage::moveBar(int barValue)
{
    moved = barValue;
    progressBar->setValue(barValue);
}

void ConclusionPage::resultSet(int errCode, QString errMsg)
{
    this->errCode = errCode;
    this->errMsg = errMsg;
}

void ConclusionPage::fixupPrivileges()
{
    char path[4096];
    const QByteArray dest = destPath.toUtf8();
    strncpy(path, dest.constData(), sizeof path - 1);
    path[sizeof path - 1] = '\0';
    if (!runCommandWithAuthority(gMacAuthorizationRef, "/bin/chmod", {"0775", path})) {
        fprintf(stderr, "fixupPrivileges: Unable to revert permission on directory %s\n", path);
        fflush(stderr);
    }
}
