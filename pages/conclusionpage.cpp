#include "conclusionpage.h"

#include "pages/pagestate.h"
#include "platform/authority.h"
#include "platform/locations.h"
#include "platform/log.h"
#include "platform/prefstore.h"
#include "platform/privileges.h"
#include "platform/texts.h"
#include "workers/copythread.h"
#include "workers/sizethread.h"

#include <QAbstractButton>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QProgressBar>
#include <QScopeGuard>
#include <QTimer>
#include <QVariant>
#include <QWizard>

#include <cstdio>
#include <cstring>
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
    if (gMacAuthorizationRef)
        freeAuthority(&gMacAuthorizationRef);
}

void ConclusionPage::setVisible(bool visible)
{
    QWizardPage::setVisible(visible);
    if (!visible)
        return;
    setTitle(tr("Installing Database"));
    setSubTitle(sCopyFiles ? QStringLiteral("Moving database files.")
                           : QStringLiteral("Installing database. (This will take %1.)").arg(QStringLiteral("10-15 minutes")));
    destPath = field(QStringLiteral("path")).toString();
    if (destPath.isEmpty())
        destPath = QString::fromUtf8(kFallbackDestination);
    setField(QStringLiteral("path"), QString());
    setBackEnabled(false);
    QTimer::singleShot(1000, this, &ConclusionPage::doCopy);
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
    if (access(dest.constData(), W_OK) != 0) {
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
    } else {
        setTitle(tr("Database was not installed"));
        setSubTitle(failureText(errCode, errMsg));
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
        return errMsg;
    default:
        return QStringLiteral("A MacOS error occured (%1)").arg(errCode);
    }
}

void ConclusionPage::moveBar(int barValue)
{
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
