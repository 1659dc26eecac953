#include "sourcepage.h"

#include "pageids.h"
#include "pagestate.h"

#include "platform/installpath.h"
#include "platform/texts.h"
#include "platform/users.h"
#include "workers/sizethread.h"

#include <QFileDialog>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

#include <unistd.h>

namespace {

const char kBesideBundle[] = "/../VELDV400";
const char kContinue[] = "Continue";
const char kNotFound[] = "The VELDV400 database source folder was not found.\nPlease press \"Find data files\" to "
                         "locate the \"VELDV400\" database source files folder.";
const char kFixedSize[] = "This Installer will copy or move the Quorvan Spectra and Properties Database from the "
                          "source folders to your hard disk.\n\nThe databases will occupy approximately %1 GB  of "
                          "additional disk space.";
const char kChosenSize[] = "This Installer will copy or move the Quorvan Spectra and Properties Database from "
                           "\"%1\" to your hard disk.\n\nThe databases will occupy approximately %2 GB  of "
                           "additional disk space.";
const char kChosenEmpty[] = "No VELDV400 database files were found in %1.\nPlease press \"Find data files\" to "
                            "locate the \"VELDV400\" database source files folder.";
const char kDialogCaption[] = "Select Database directory";
const char kScanning[] = "Scanning...";

bool exists(const std::string &path)
{
    return ::access(path.c_str(), F_OK) == 0;
}

} // namespace

QString sizeFigure(quint64 bytes)
{
    return QStringLiteral("%1").arg(double(bytes) / 1000000000, 0, 'f', 2);
}

std::string removableSourceFolder()
{
#ifdef __APPLE__
    return "/Volumes/USB DISK/VELDV400";
#else
    // A user without a login name has no removable disk of their own; no complaint at start-up.
    const std::string login = loginName(::getuid());
    return login.empty() ? std::string() : "/media/" + login + "/USB DISK/VELDV400";
#endif
}

SourcePage::SourcePage(QWidget *parent)
    : QWizardPage(parent)
{
    setTitle(tr(kWelcomeTitle));

    findButton = new QPushButton(tr("Find data files.."));
    connect(findButton, &QPushButton::clicked, this, &SourcePage::chooseSource);

    statusLabel = new QLabel(QString());
    statusLabel->setWordWrap(true);

    dbSize = 0;
    sourceMissing = false;

    auto *buttonRow = new QHBoxLayout;
    buttonRow->addItem(sideSpacer());
    buttonRow->addWidget(findButton);
    buttonRow->addItem(sideSpacer());
    auto *layout = new QVBoxLayout;
    layout->addWidget(statusLabel);
    layout->addLayout(buttonRow);
    setLayout(layout);

    findButton->hide();

    // The bundle path is used as built, ".." and all.
    std::string candidate = GetInstallPath() + kBesideBundle;
    if (!exists(candidate))
        candidate = removableSourceFolder();
    if (!exists(candidate)) {
        statusLabel->setText(QString::fromLatin1(kNotFound));
        sourceMissing = true;
        findButton->show();
        return;
    }
    // Complete at once, before the scan reports: the later pages wait for it.
    startScan(QString::fromUtf8(candidate.c_str()), &SourcePage::updateDBSize);
}

bool SourcePage::isComplete() const
{
    return !sourceMissing;
}

int SourcePage::nextId() const
{
    return kPickDestPageId;
}

void SourcePage::startScan(const QString &folder, void (SourcePage::*resultSlot)(QString, quint64))
{
    sizeThread = new SizeThread(this, folder);
    connect(sizeThread, &SizeThread::pathSize, this, resultSlot);
    if (!sizeThread->isRunning())
        sizeThread->start();
}

bool SourcePage::isCurrentScan() const
{
    // A scan replaced by a later choice was cancelled and is deleted when its
    // thread ends; its result, if it still arrives, is ignored.
    const QObject *from = sender();
    return !from || from == sizeThread;
}

void SourcePage::takeResult(const QString &folder, quint64 finishedSize)
{
    dbSize = finishedSize;
    sSourceFolder = folder;
    sSourceFiles = sizeThread ? sizeThread->foundFiles() : QList<SourceFile>();
    sUnreadableFolders = sizeThread ? sizeThread->unreadableFolders() : QList<QByteArray>();
}

void SourcePage::updateDBSize(QString path, quint64 finishedSize)
{
    if (!isCurrentScan())
        return;
    statusLabel->setText(QString::fromLatin1(kFixedSize).arg(sizeFigure(finishedSize)));
    takeResult(path, finishedSize);
    setButtonText(QWizard::NextButton, QString::fromLatin1(kContinue));
    delete sizeThread;
}

void SourcePage::customDBSourceLocation(QString path, quint64 finishedSize)
{
    if (!isCurrentScan())
        return;
    const QString folderName = QFileInfo(path).fileName();
    QString message;
    if (finishedSize != 0) {
        message = QString::fromLatin1(kChosenSize).arg(folderName, sizeFigure(finishedSize));
        sourceMissing = false;
        findButton->hide();
        findButton->setDefault(false);
        setButtonText(QWizard::NextButton, QString::fromLatin1(kContinue));
        emit completeChanged();
    } else {
        message = QString::fromLatin1(kChosenEmpty).arg(folderName);
    }
    statusLabel->setText(message);
    takeResult(path, finishedSize);
    delete sizeThread;
}

void SourcePage::chooseSource()
{
    const QString home = QString::fromUtf8(qgetenv("HOME"));
    const QString folder = QFileDialog::getExistingDirectory(this, QString::fromLatin1(kDialogCaption), home,
                                                             QFileDialog::ShowDirsOnly);
    // The dialog runs its own event loop: a scan may have measured a source
    // meanwhile, and a measured source stands.
    if (findButton->isHidden())
        return;
    if (!folder.isEmpty()) {
        if (SizeThread *replaced = sizeThread) {
            replaced->cancel();
            connect(replaced, &QThread::finished, replaced, &QObject::deleteLater);
            if (replaced->isFinished())
                replaced->deleteLater();
        }
        startScan(folder, &SourcePage::customDBSourceLocation);
    }
    // Also after a cancelled dialog, with no scan running: kept as designed.
    statusLabel->setText(QString::fromLatin1(kScanning));
}
