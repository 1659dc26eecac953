#include "app/veld_installer.h"
#include "pages/pageids.h"
#include "pages/pagestate.h"
#include "pages/pickdestpage.h"
#include "platform/installpath.h"
#include "platform/locations.h"
#include "platform/volume.h"
#include "workers/sizethread.h"
#include "testsupport.h"
#include "wizarddriver.h"

#include <QApplication>
#include <QPushButton>
#include <QtTest>

// The page's rows run in a copy of this program placed in a bundle in a
// temporary layout folder, so that layout/VELDV400 is the source beside the
// bundle. The volume rows run it in a private mount namespace where small
// memory file systems stand in for other disks, full ones included.

namespace {

const QString kStoredIn = QStringLiteral(
    "The database will be stored in\n\n%1\n\nClick \"Continue\" to install here, or \"Choose\" to select another "
    "location.");
const QString kMoved = QStringLiteral("The files will be moved to the selected location.");
const QString kNoRoom = QStringLiteral(
    "The selected disk does not have enough free space to store the database (%1 additional needed). Please "
    "select another location.");

QString layoutFolder()
{
    return QFileInfo(QString::fromStdString(GetInstallPath()) + QStringLiteral("/..")).absoluteFilePath();
}

// In the parent: runs the row in a layout with a 1000-byte source beside the bundle and a folder
// "Other Disk é", after the shell command setup ("$1": the layout) in a private mount namespace.
void runInLayout(const QString &setup = QString())
{
    QTemporaryDir layout(scratchTemplate("tst_pickdestpage"));
    QVERIFY(makeFile(layout.filePath("VELDV400/data/a.qventry"), 1000));
    QVERIFY(QDir().mkpath(layout.filePath("Other Disk é")));
    QList<Wrap> wraps;
    if (!setup.isEmpty())
        wraps << inPrivateMounts(setup, {layout.path()});
    runRowInChild({layout.filePath("Test Installer.app/Contents/MacOS/tst_pickdestpage"), wraps});
}

} // namespace

class tst_PickDestPage : public QObject
{
    Q_OBJECT

private slots:
    void cleanup() { QVERIFY(QApplication::topLevelWidgets().isEmpty()); }
    void rules_data();
    void rules();
    void sameVolume();
    void chooseNames_data();
    void chooseNames();
    void decide_data();
    void decide();
    void waitForScan_data();
    void waitForScan();
};

void tst_PickDestPage::chooseNames_data()
{
    QTest::addColumn<QString>("parent");      // below HOME; "/" is the root; "" cancels the dialog
    QTest::addColumn<QStringList>("taken");   // names in parent; "file:" makes a file
    QTest::addColumn<QString>("proposed");    // the destination proposed, below HOME or absolute

    QStringList firstTen{"VELDV400"};
    for (int n = 0; n < 10; ++n)
        firstTen << QStringLiteral("VELDV400_%1").arg(n);
    QTest::newRow("the start folder") << "" << QStringList{} << "VELDV400";
    QTest::newRow("only a suffixed one taken") << "Disk" << QStringList{"VELDV400_0"} << "Disk/VELDV400";
    QTest::newRow("taken by a file") << "Disk" << QStringList{"file:VELDV400"} << "Disk/VELDV400_0";
    QTest::newRow("ten suffixes taken") << "Disk" << firstTen << "Disk/VELDV400_10";
    QTest::newRow("blanks, accents and percent signs")
        << "Mes données/ü 100%1 %2" << QStringList{"VELDV400"} << "Mes données/ü 100%1 %2/VELDV400_0";
    QTest::newRow("the root") << "/" << QStringList{} << "//VELDV400";
    QTest::newRow("cancelled") << "-" << QStringList{} << QString::fromUtf8(kDefaultDestination);
}

// Twice: back to the source page and on again drops the choice.
void tst_PickDestPage::chooseNames()
{
    QFETCH(QString, parent);
    QFETCH(QStringList, taken);
    QFETCH(QString, proposed);
    if (parent == "/" && QFileInfo::exists("/VELDV400"))
        QSKIP("this machine has a /VELDV400");
    if (!inChild())
        return runInLayout();
    QTemporaryDir home;
    qputenv("HOME", QFile::encodeName(home.path()));
    const bool cancel = parent == "-";
    const QString parentPath = parent.startsWith('/') ? parent : home.filePath(parent);
    QVERIFY(QDir().mkpath(parentPath));
    for (const QString &name : taken) {
        const QString path = parentPath + '/' + QString(name).remove("file:");
        QVERIFY(name.startsWith("file:") ? makeFile(path, 1) : QDir().mkpath(path));
    }
    const QString expected = proposed.startsWith('/') ? proposed : home.filePath(proposed);
    const QString defaultText = QString::fromUtf8(kDefaultDestination);

    VELD_Installer wizard;
    goToDestPage(wizard);
    QWizardPage *page = wizard.currentPage();
    auto *chooseButton = page->findChild<QPushButton *>();
    auto *next = qobject_cast<QPushButton *>(wizard.button(QWizard::NextButton));
    for (int visit = 0; visit < 2; ++visit) {
        QCOMPARE(page->title(), QStringLiteral("Select Database location"));
        QCOMPARE(page->subTitle(), kStoredIn.arg(defaultText));
        QCOMPARE(wizard.field("path").toString(), defaultText);
        QVERIFY(chooseButton->isVisible());
        QCOMPARE(chooseButton->text(), QStringLiteral("Choose..."));
        QVERIFY(!chooseButton->isDefault());
        QVERIFY(next->isEnabled());
        choose(wizard, cancel ? QString() : parentPath);
        QCOMPARE(wizard.field("path").toString(), expected);
        QCOMPARE(page->subTitle(), kStoredIn.arg(expected));
        QVERIFY(cancel || next->isDefault());
        QTest::mouseClick(wizard.button(QWizard::BackButton), Qt::LeftButton);
        QCOMPARE(wizard.currentId(), int(kSourcePageId));
        QTest::mouseClick(next, Qt::LeftButton);
        QCOMPARE(wizard.currentId(), int(kPickDestPageId));
    }
}

void tst_PickDestPage::decide_data()
{
    QTest::addColumn<QString>("setup");   // shell commands in this namespace; "$1" is the layout
    QTest::addColumn<qint64>("sourceBytes");
    QTest::addColumn<QString>("chosen");       // a folder of the layout, or "" for the default destination
    QTest::addColumn<QString>("searchPath");   // a folder of the layout for PATH, or "" to keep it
    QTest::addColumn<QString>("expect");       // "move", "copy" or "refuse:" and the amount shown

    // An 8 MiB disk: df reports 8192 KiB free, which counts as 8,000,000 bytes. A move
    // needs no room, so it is decided with the source's 1 MiB disk filled up, as the real df shows.
    const QString other = "mount -t tmpfs -o size=8m tmpfs \"$1/Other Disk é\"";
    const QString sharedParent =
        "mount -t tmpfs tmpfs /usr/local && mkdir /usr/local/share && mount -t tmpfs -o size=8m tmpfs /usr/local/share";
    const QString fill = " && { cat /dev/zero > \"$1/VELDV400/filler\" 2>/dev/null;"
                         " [ $(df -k --output=avail \"$1/VELDV400\" | tail -n 1) -lt 1024 ]; }";
    const QString fullSource = "mount -t tmpfs -o size=1m tmpfs \"$1/VELDV400\"" + fill;
    const QString sourceBelowShared = "mount -t tmpfs -o size=1m tmpfs /usr/local && mkdir -p /usr/local/share/src && "
                                      "mount --bind /usr/local/share/src \"$1/VELDV400\"" + fill;
    const QString garbageDf = other + " && mkdir -p \"$1/bin\" && printf '#!/bin/sh\\necho Filesystem 1K-blocks Used "
                                      "Available\\necho no such report here\\n' > \"$1/bin/df\" && chmod +x \"$1/bin/df\"";
    const QString disk = "Other Disk é";
    const qint64 big = 5000000000;

    QTest::newRow("other disk, room") << other << qint64(7999999) << disk << "" << "copy";
    QTest::newRow("other disk, free space equal to the size") << other << qint64(8000000) << disk << "" << "refuse:0.00 KB";
    QTest::newRow("other disk, GB short") << other << big << disk << "" << "refuse:4.00 GB";
    QTest::newRow("same disk, full") << fullSource << big << "VELDV400" << "" << "move";
    QTest::newRow("default, measured on the shared parent") << sharedParent << qint64(8000000) << "" << ""
                                                            << "refuse:0.00 KB";
    QTest::newRow("default, no shared parent, so its nearest ancestor")
        << "mount -t tmpfs -o size=8m tmpfs /usr/local" << qint64(8000000) << "" << "" << "refuse:0.00 KB";
    QTest::newRow("default, on the full source disk") << sourceBelowShared << big << "" << "" << "move";
    QTest::newRow("no df on the search path") << other << qint64(7999999) << disk << "none" << "refuse:7.00 MB";
    QTest::newRow("df reports garbage") << garbageDf << qint64(7999999) << disk << "bin" << "refuse:7.00 MB";
}

// In a private mount namespace of the row's own.
void tst_PickDestPage::decide()
{
    QFETCH(QString, setup);
    QFETCH(qint64, sourceBytes);
    QFETCH(QString, chosen);
    QFETCH(QString, searchPath);
    QFETCH(QString, expect);
    if (!inChild()) {
        if (runProcess(wrapped({"true"}, {inPrivateMounts("true")})).exitCode != 0)
            QSKIP("needs a private mount namespace (root, or unprivileged user namespaces) for its small disks");
        return runInLayout(setup);
    }
    const QString layout = layoutFolder();
    QVERIFY(makeFile(layout + "/VELDV400/data/a.qventry", sourceBytes));
    if (!searchPath.isEmpty())
        qputenv("PATH", QFile::encodeName(layout + '/' + searchPath));

    VELD_Installer wizard;
    goToDestPage(wizard);
    if (!chosen.isEmpty())
        choose(wizard, layout + '/' + chosen);
    const QString destination = wizard.field("path").toString();
    QWizardPage *page = wizard.currentPage();
    sCopyFiles = expect != "move";   // the opposite of what must come out
    QTest::mouseClick(wizard.button(QWizard::NextButton), Qt::LeftButton);
    const bool refused = expect.startsWith("refuse:");
    QCOMPARE(wizard.currentId(), int(refused ? kPickDestPageId : kConclusionPageId));
    QCOMPARE(sCopyFiles, expect == "move");
    QCOMPARE(page->subTitle(), refused ? kNoRoom.arg(expect.mid(7)) : sCopyFiles ? kMoved : kStoredIn.arg(destination));
}

void tst_PickDestPage::waitForScan_data()
{
    QTest::addColumn<int>("button");   // what the user clicks while the scan is waited for
    QTest::newRow("Continue again") << int(QWizard::NextButton);
    QTest::newRow("Back") << int(QWizard::BackButton);
    QTest::newRow("Cancel") << int(QWizard::CancelButton);
}

// Continue while the source beside the bundle is still measured (held at the
// scan gate), on the same disk as the destination chosen.
void tst_PickDestPage::waitForScan()
{
    QFETCH(int, button);
    if (!inChild())
        return runInLayout();
    QTemporaryDir home;
    qputenv("HOME", QFile::encodeName(home.path()));
    bool scanningAtContinue = false, waitedBusy = false, scanningAfterSecondClick = false;
    int pageAfterWait = -1;
    ScanGate::close();
    VELD_Installer wizard;
    QVERIFY(ScanGate::waitUntilHeld());
    QTimer::singleShot(0, &wizard, [&] {
        goToSourcePage(wizard);
        QTest::mouseClick(wizard.button(QWizard::NextButton), Qt::LeftButton);
        choose(wizard, layoutFolder());
        QTimer::singleShot(0, &wizard, [&] {
            waitedBusy = QApplication::overrideCursor() && QApplication::overrideCursor()->shape() == Qt::BusyCursor;
            QTest::mouseClick(wizard.button(QWizard::WizardButton(button)), Qt::LeftButton);
            scanningAfterSecondClick = SizeThread::scansPending();
            ScanGate::release();
        });
        scanningAtContinue = SizeThread::scansPending();
        QTest::mouseClick(wizard.button(QWizard::NextButton), Qt::LeftButton);
        pageAfterWait = wizard.currentId();
        if (wizard.isVisible())
            wizard.close();
    });
    QCOMPARE(QApplication::exec(), 0);
    QVERIFY(scanningAtContinue);
    QVERIFY(waitedBusy);
    QVERIFY(scanningAfterSecondClick);
    QVERIFY(!QApplication::overrideCursor());
    if (button == QWizard::NextButton) {
        QCOMPARE(pageAfterWait, int(kConclusionPageId));
        // Decided on the finished list: without it, the disks would not compare.
        QVERIFY(sCopyFiles);
        QCOMPARE(wizard.page(kPickDestPageId)->subTitle(), kMoved);
    } else if (button == QWizard::BackButton) {
        QCOMPARE(pageAfterWait, int(kSourcePageId));
    }
}

// The folder whose volume stands for a destination's, the folder df is asked about
// (below a scratch folder holding "d/e" and the file "f"), and the shortage shown.
void tst_PickDestPage::rules_data()
{
    QTest::addColumn<QString>("rule");
    QTest::addColumn<QString>("input");
    QTest::addColumn<QString>("expected");
    const QString shared = QString::fromUtf8(kSharedParent);
    const QList<QStringList> rows{
        {"probeFolderFor", "default", kDefaultDestination, shared},
        {"probeFolderFor", "shared parent's name as a prefix", shared + "d/VELDV400", shared},
        {"probeFolderFor", "other case", shared.toUpper() + "/VELDV400", shared.toUpper()},
        {"probeFolderFor", "chosen folder", "/home/u/Mes données/VELDV400_0", "/home/u/Mes données"},
        {"probeFolderFor", "the root's", "//VELDV400", "/"},
        {"probeFolderFor", "slash first only", "/VELDV400", "/VELDV400"},
        {"probeFolderFor", "no slash", "VELDV400", "VELDV400"},
        {"spaceProbeFolder", "existing", "d/e", "d/e"},
        {"spaceProbeFolder", "missing last", "d/e/x", "d/e"},
        {"spaceProbeFolder", "missing chain", "d/x/y/z", "d"},
        {"spaceProbeFolder", "below a file", "f/x", "f"},
        {"spaceProbeFolder", "nothing but the root", "/nonexistent-veld/a/b", "/"},
        {"shortageText", "remainder dropped", "1999", "1.00 KB"},
        {"shortageText", "10^6", "1000000", "1000.00 KB"},
        {"shortageText", "above 10^6", "1000001", "1.00 MB"},
        {"shortageText", "10^9", "1000000000", "1000.00 MB"},
        {"shortageText", "above 10^9", "1000000001", "1.00 GB"},
        {"shortageText", "no group separator", "12345000000000", "12345.00 GB"},
    };
    for (const QStringList &row : rows)
        QTest::addRow("%s: %s", qPrintable(row[0]), qPrintable(row[1])) << row[0] << row[2] << row[3];
}

void tst_PickDestPage::rules()
{
    QFETCH(QString, rule);
    QFETCH(QString, input);
    QFETCH(QString, expected);
    if (rule == "probeFolderFor") {
        QCOMPARE(::probeFolderFor(input), expected);
    } else if (rule == "spaceProbeFolder") {
        QTemporaryDir scratch;
        QVERIFY(QDir().mkpath(scratch.filePath("d/e")));
        QVERIFY(makeFile(scratch.filePath("f"), 1));
        const auto in = [&](const QString &path) { return path.startsWith('/') ? path : scratch.filePath(path); };
        const std::string found = ::spaceProbeFolder(QFile::encodeName(in(input)).toStdString());
        QCOMPARE(QFile::decodeName(QByteArray::fromStdString(found)), in(expected));
    } else {
        for (const QLocale &locale : {QLocale::c(), QLocale(QLocale::German)}) {
            QLocale::setDefault(locale);
            QCOMPARE(::shortageText(input.toLongLong()), expected);
        }
        QLocale::setDefault(QLocale::c());
    }
}

void tst_PickDestPage::sameVolume()
{
    QTemporaryDir scratch;
    const std::string here = QFile::encodeName(scratch.path()).toStdString();
    QVERIFY(::sameVolume(here, here + "/."));
    QVERIFY(!::sameVolume(here, "/proc"));
    QVERIFY(!::sameVolume(here + "/missing", here));
    QVERIFY(!::sameVolume(here, here + "/missing"));
}

QTEST_MAIN(tst_PickDestPage)

#include "tst_pickdestpage.moc"
