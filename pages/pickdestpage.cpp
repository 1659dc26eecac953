#include "pickdestpage.h"

#include "pageids.h"
#include "pagestate.h"
#include "sourcepage.h"
#include "platform/locations.h"
#include "platform/volume.h"
#include "workers/cdfprocess.h"
#include "workers/sizethread.h"

#include <QApplication>
#include <QFileDialog>
#include <QHBoxLayout>
#include <QLineEdit>
#include <QPushButton>
#include <QScopedValueRollback>
#include <QWizard>

#include <algorithm>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {


// Free space is counted in decimal bytes per mebibyte reported: about 4.6 %
// less than there is, a margin for the file system's own needs.
const qint64 kBytesPerReportedMebibyte = 1000000;

std::string encoded(const QString &path)
{
    return QFile::encodeName(path).toStdString();
}

// A move never crosses file systems: every file of the source the user sees,
// not only its first, lies on the probe folder's volume. Without a file
// there is nothing to compare, which counts as another volume.
bool movesWithinVolume(const QString &probeFolder)
{
    const std::string probe = encoded(probeFolder);
    return !sSourceFiles.isEmpty() && std::all_of(sSourceFiles.begin(), sSourceFiles.end(), [&](const SourceFile &file) {
        return sameVolume(probe, file.path.toStdString());
    });
}

} // namespace

quint64 bytesInBlocks(const QList<SourceFile> &files, quint64 blockSize)
{
    quint64 total = 0;
    for (const SourceFile &file : files)
        total += blockSize ? (file.size + blockSize - 1) / blockSize * blockSize : file.size;
    return total;
}

QString probeFolderFor(const QString &destination)
{
    const QString sharedParent = QString::fromUtf8(kSharedParent);
    if (destination.startsWith(sharedParent))
        return sharedParent;
    const int slash = destination.lastIndexOf(QLatin1Char('/'));
    return slash == 0 ? destination : destination.left(slash);
}

QString shortageText(qint64 shortage)
{
    QString pattern = QStringLiteral("%1 KB");
    qint64 unit = 1000;
    if (shortage > 1000000000) {
        pattern = QStringLiteral("%1 GB");
        unit = 1000000000;
    } else if (shortage > 1000000) {
        pattern = QStringLiteral("%1 MB");
        unit = 1000000;
    }
    return pattern.arg(double(shortage / unit), 0, 'f', 2);
}

PickDestPage::PickDestPage(QWidget *parent)
    : QWizardPage(parent)
{
    chooseButton = new QPushButton(tr("Choose..."));
    connect(chooseButton, &QPushButton::clicked, this, &PickDestPage::chooseDestination);

    pathEdit = new QLineEdit;
    registerField(QStringLiteral("path*"), pathEdit);
    pathEdit->setVisible(false);

    auto *layout = new QHBoxLayout;
    layout->addItem(sideSpacer());
    layout->addWidget(chooseButton);
    layout->addItem(sideSpacer());
    setLayout(layout);
}

PickDestPage::~PickDestPage()
{
    delete pathEdit;
}

void PickDestPage::initializePage()
{
}

void PickDestPage::setVisible(bool visible)
{
    QWizardPage::setVisible(visible);
    if (!visible)
        return;
    setTitle(tr("Select Database location"));
    // Every time: a folder chosen before the user went back is not kept.
    pathEdit->setText(QString::fromUtf8(kDefaultDestination));
    showDestination();
    chooseButton->setVisible(true);
    // Not even while it has the focus: Return means Continue on this page.
    chooseButton->setAutoDefault(false);
    chooseButton->setDefault(false);
}

void PickDestPage::showDestination()
{
    ++shownDestinations;
    setSubTitle(tr("The database will be stored in\n\n%1\n\nClick \"Continue\" to install here, or \"Choose\" to "
                   "select another location.")
                    .arg(pathEdit->text()));
}

void PickDestPage::chooseDestination()
{
    const QString home = QString::fromLocal8Bit(qgetenv("HOME"));
    const QString answer = QFileDialog::getExistingDirectory(this, tr("Select Database destination"), home,
                                                             QFileDialog::ShowDirsOnly);
    if (answer.isEmpty())
        return;

    // Always a "/" more, so the root gives "//VELDV400". A name that is taken,
    // by a folder or anything else (a symbolic link that leads nowhere too), is never proposed.
    const QString base = answer + QLatin1Char('/');
    const QString name = QString::fromLatin1(kDatabaseFolderName);
    QString candidate = base + name;
    struct stat taken;
    for (qint64 n = 0; ::lstat(candidate.toUtf8().constData(), &taken) == 0; ++n)
        candidate = QStringLiteral("%1%2_%3").arg(base, name, QString::number(n));

    pathEdit->setText(candidate);
    showDestination();
    if (auto *next = qobject_cast<QPushButton *>(wizard()->button(QWizard::NextButton)))
        next->setDefault(true);
}

bool PickDestPage::finishSourceScans()
{
    if (!SizeThread::scansPending())
        return true;
    // The window stays live while the source is still measured; a second
    // Continue meanwhile is ignored, and whatever the user did meanwhile
    // (Back, Cancel, closing) is respected afterwards.
    QScopedValueRollback<bool> guard(validating, true);
    QApplication::setOverrideCursor(Qt::BusyCursor);
    const bool finished = SizeThread::waitForScans();
    QApplication::restoreOverrideCursor();
    return finished && isVisible() && wizard() && wizard()->currentPage() == this;
}

bool PickDestPage::validatePage()
{
    const quint64 confirmed = shownDestinations;
    if (validating || !finishSourceScans() || shownDestinations != confirmed)
        return false;

    const quint64 dbSize = static_cast<SourcePage *>(wizard()->page(kSourcePageId))->dbSize;
    const QString destination = field(QStringLiteral("path")).toString();
    const QString probeFolder = probeFolderFor(destination);

    if (movesWithinVolume(probeFolder)) {
        sCopyFiles = true;
        setSubTitle(tr("The files will be moved to the selected location."));
        return true;
    }

    sCopyFiles = false;
    CDfProcess df(nullptr);
    const std::string measured = spaceProbeFolder(encoded(probeFolder));
    df.Run(QFile::decodeName(QByteArray::fromStdString(measured)));
    const qint64 available = df.TotalAvailable() * kBytesPerReportedMebibyte;
    qint64 shortage = qint64(double(dbSize) - double(available));
    if (shortage < 0) {
        // Each file takes whole blocks there: many small files need more room than their bytes.
        struct statvfs disk;
        const quint64 blockSize = ::statvfs(measured.c_str(), &disk) == 0 ? (disk.f_frsize ? disk.f_frsize : disk.f_bsize) : 0;
        shortage = qint64(double(bytesInBlocks(sSourceFiles, blockSize)) - double(available));
    }
    if (shortage < 0)
        return true;
    setSubTitle(tr("The selected disk does not have enough free space to store the database (%1 additional "
                   "needed). Please select another location.")
                    .arg(shortageText(shortage)));
    return false;
}

int PickDestPage::nextId() const
{
    return kConclusionPageId;
}
