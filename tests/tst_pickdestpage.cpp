#include "app/veld_installer.h"
#include "pages/pageids.h"
#include "pages/pagestate.h"
#include "pages/pickdestpage.h"
#include "platform/installpath.h"
#include "platform/locations.h"
#include "platform/volume.h"
#include "workers/cdfprocess.h"
#include "workers/sizethread.h"
#include "testsupport.h"
#include "wizarddriver.h"

#include <QApplication>
#include <QPushButton>
#include <QtTest>

#include <unistd.h>

// The page's cases run in a copy of this program placed in a bundle in a
// temporary layout folder, so that layout/VELDV400 is the source beside the
// bundle. The volume cases run it in a private mount namespace where small
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

QPushButton *chooseButton(QWizard &wizard)
{
    return wizard.page(kPickDestPageId)->findChild<QPushButton *>();
}

// Writes into folder until its file system is full; the real df then reports 0 free.
void fill(const QString &folder)
{
    QFile filler(folder + QStringLiteral("/filler.bin"));
    QVERIFY(filler.open(QIODevice::WriteOnly));
    const QByteArray block(65536, 'x');
    while (filler.write(block) > 0 && filler.flush()) {
    }
    filler.close();
    CDfProcess df(nullptr);
    df.Run(folder);
    QCOMPARE(df.TotalAvailable(), qint64(0));
}

} // namespace

class DestinationScenarios : public QObject
{
    Q_OBJECT

private slots:
    void cleanup() { QVERIFY(QApplication::topLevelWidgets().isEmpty()); }
    void backAndForth();
    void chooseNames_data();
    void chooseNames();
    void decide();
    void waitForScan();
};

void DestinationScenarios::backAndForth()
{
    QTemporaryDir home;
    qputenv("HOME", QFile::encodeName(home.path()));
    const QString defaultText = QString::fromUtf8(kDefaultDestination);
    VELD_Installer wizard;
    goToDestPage(wizard);
    QWizardPage *page = wizard.currentPage();
    for (int visit = 0; visit < 2; ++visit) {
        QCOMPARE(page->title(), QStringLiteral("Select Database location"));
        QCOMPARE(page->subTitle(), kStoredIn.arg(defaultText));
        QCOMPARE(wizard.field(QStringLiteral("path")).toString(), defaultText);
        QVERIFY(chooseButton(wizard)->isVisible());
        QCOMPARE(chooseButton(wizard)->text(), QStringLiteral("Choose..."));
        QVERIFY(!chooseButton(wizard)->isDefault());
        QVERIFY(wizard.button(QWizard::NextButton)->isEnabled());

        choose(wizard, home.path());
        QCOMPARE(wizard.field(QStringLiteral("path")).toString(), home.path() + QStringLiteral("/VELDV400"));
        QCOMPARE(page->subTitle(), kStoredIn.arg(home.path() + QStringLiteral("/VELDV400")));
        QVERIFY(qobject_cast<QPushButton *>(wizard.button(QWizard::NextButton))->isDefault());
        // Back to the source page and on again: the choice is dropped.
        QTest::mouseClick(wizard.button(QWizard::BackButton), Qt::LeftButton);
        QCOMPARE(wizard.currentId(), int(kSourcePageId));
        QTest::mouseClick(wizard.button(QWizard::NextButton), Qt::LeftButton);
        QCOMPARE(wizard.currentId(), int(kPickDestPageId));
    }
}

void DestinationScenarios::chooseNames_data()
{
    QTest::addColumn<QString>("parent");      // below HOME; "/" is the root; "" cancels the dialog
    QTest::addColumn<QStringList>("taken");   // names in parent; "file:" makes a file
    QTest::addColumn<QString>("proposed");    // the destination proposed, below HOME or absolute

    const QStringList firstTen{"VELDV400", "VELDV400_0", "VELDV400_1", "VELDV400_2", "VELDV400_3", "VELDV400_4",
                               "VELDV400_5", "VELDV400_6", "VELDV400_7", "VELDV400_8", "VELDV400_9"};
    QTest::newRow("free") << "Disk" << QStringList{} << "Disk/VELDV400";
    QTest::newRow("taken once") << "Disk" << QStringList{"VELDV400"} << "Disk/VELDV400_0";
    QTest::newRow("taken twice") << "Disk" << QStringList{"VELDV400", "VELDV400_0"} << "Disk/VELDV400_1";
    QTest::newRow("only a suffixed one taken") << "Disk" << QStringList{"VELDV400_0"} << "Disk/VELDV400";
    QTest::newRow("taken by a file") << "Disk" << QStringList{"file:VELDV400"} << "Disk/VELDV400_0";
    QTest::newRow("ten suffixes taken") << "Disk" << firstTen << "Disk/VELDV400_10";
    QTest::newRow("blanks and accents") << "Mes données/ü x" << QStringList{"VELDV400"}
                                        << "Mes données/ü x/VELDV400_0";
    QTest::newRow("percent signs") << "100%1 %2" << QStringList{"VELDV400"} << "100%1 %2/VELDV400_0";
    QTest::newRow("the root") << "/" << QStringList{} << "//VELDV400";
    QTest::newRow("cancelled") << "" << QStringList{} << QString::fromUtf8(kDefaultDestination);
}

void DestinationScenarios::chooseNames()
{
    QFETCH(QString, parent);
    QFETCH(QStringList, taken);
    QFETCH(QString, proposed);
    if (parent == QLatin1String("/") && QFileInfo::exists(QStringLiteral("/VELDV400")))
        QSKIP("this machine has a /VELDV400");
    QTemporaryDir home;
    qputenv("HOME", QFile::encodeName(home.path()));
    const QString parentPath = parent.startsWith(QLatin1Char('/')) ? parent : home.path() + QLatin1Char('/') + parent;
    for (const QString &name : taken) {
        if (name.startsWith(QLatin1String("file:")))
            QVERIFY(makeFile(parentPath + QLatin1Char('/') + name.mid(5), 1));
        else
            QVERIFY(QDir().mkpath(parentPath + QLatin1Char('/') + name));
    }
    QVERIFY(QDir().mkpath(parentPath));
    const QString expected = proposed.startsWith(QLatin1Char('/')) ? proposed : home.path() + QLatin1Char('/') + proposed;

    VELD_Installer wizard;
    goToDestPage(wizard);
    choose(wizard, parent.isEmpty() ? QString() : parentPath);
    QCOMPARE(wizard.field(QStringLiteral("path")).toString(), expected);
    QCOMPARE(wizard.currentPage()->subTitle(), kStoredIn.arg(expected));
}

// The case comes in the environment: VELD_SOURCE_BYTES, the size of the one
// data file beside the bundle; VELD_FILL_SOURCE=1 fills the source's disk;
// VELD_CHOOSE, a folder of the layout to choose, or the default destination
// when empty; VELD_FAKE_DF "none" (no df on the search path) or "garbage";
// VELD_EXPECT "move", "copy" or "refuse:" and the amount shown.
void DestinationScenarios::decide()
{
    const QString layout = layoutFolder();
    QVERIFY(makeFile(layout + QStringLiteral("/VELDV400/data/a.qventry"), qgetenv("VELD_SOURCE_BYTES").toLongLong()));
    if (qgetenv("VELD_FILL_SOURCE") == "1")
        fill(layout + QStringLiteral("/VELDV400"));
    QTemporaryDir fakeBin;
    const QByteArray fakeDf = qgetenv("VELD_FAKE_DF");
    if (!fakeDf.isEmpty()) {
        if (fakeDf == "garbage") {
            QFile script(fakeBin.filePath(QStringLiteral("df")));
            QVERIFY(script.open(QIODevice::WriteOnly));
            script.write("#!/bin/sh\necho 'Filesystem 1K-blocks Used Available'\necho 'no such report here'\n");
            script.close();
            QVERIFY(script.setPermissions(QFile::ReadOwner | QFile::ExeOwner));
        }
        qputenv("PATH", QFile::encodeName(fakeBin.path()));
    }
    const QString expect = QString::fromUtf8(qgetenv("VELD_EXPECT"));

    VELD_Installer wizard;
    goToDestPage(wizard);
    const QString chosen = QString::fromUtf8(qgetenv("VELD_CHOOSE"));
    if (!chosen.isEmpty())
        choose(wizard, layout + QLatin1Char('/') + chosen);
    const QString destination = wizard.field(QStringLiteral("path")).toString();
    QWizardPage *page = wizard.currentPage();
    sCopyFiles = expect != QLatin1String("move");   // the opposite of what must come out
    QTest::mouseClick(wizard.button(QWizard::NextButton), Qt::LeftButton);

    if (expect.startsWith(QLatin1String("refuse:"))) {
        QCOMPARE(wizard.currentId(), int(kPickDestPageId));
        QCOMPARE(page->subTitle(), kNoRoom.arg(expect.mid(7)));
        QVERIFY(!sCopyFiles);
        return;
    }
    QCOMPARE(wizard.currentId(), int(kConclusionPageId));
    QCOMPARE(sCopyFiles, expect == QLatin1String("move"));
    QCOMPARE(page->subTitle(), sCopyFiles ? kMoved : kStoredIn.arg(destination));
}

// Continue while the large source beside the bundle is still measured, on the
// same disk as the destination chosen. VELD_WAIT_ACTION says what the user does
// meanwhile: "continue" again, "back" or "cancel".
void DestinationScenarios::waitForScan()
{
    const QByteArray action = qgetenv("VELD_WAIT_ACTION");
    QTemporaryDir home;
    qputenv("HOME", QFile::encodeName(home.path()));
    bool scanningAtContinue = false;
    bool waitedBusy = false;
    bool scanningAfterSecondContinue = false;
    int status = -1;
    int pageAfterWait = -1;
    VELD_Installer wizard;
    QTimer::singleShot(0, &wizard, [&] {
        goToSourcePage(wizard);
        QTest::mouseClick(wizard.button(QWizard::NextButton), Qt::LeftButton);
        choose(wizard, layoutFolder());
        QTimer::singleShot(0, &wizard, [&] {
            waitedBusy = QApplication::overrideCursor() && QApplication::overrideCursor()->shape() == Qt::BusyCursor;
            if (action == "continue") {
                QTest::mouseClick(wizard.button(QWizard::NextButton), Qt::LeftButton);
                scanningAfterSecondContinue = SizeThread::scansPending();
            } else {
                QTest::mouseClick(wizard.button(action == "back" ? QWizard::BackButton : QWizard::CancelButton),
                                  Qt::LeftButton);
            }
        });
        scanningAtContinue = SizeThread::scansPending();
        QTest::mouseClick(wizard.button(QWizard::NextButton), Qt::LeftButton);
        pageAfterWait = wizard.currentId();
        if (wizard.isVisible())
            wizard.close();
    });
    status = QApplication::exec();

    QCOMPARE(status, 0);
    QVERIFY2(scanningAtContinue, "the scan ended before Continue; the tree is too small");
    QVERIFY(waitedBusy);
    QVERIFY(!QApplication::overrideCursor());
    if (action == "continue") {
        QVERIFY2(scanningAfterSecondContinue, "a second Continue waited too");
        QCOMPARE(pageAfterWait, int(kConclusionPageId));
        // Decided on the finished list: without it, the disks would not compare.
        QVERIFY(sCopyFiles);
        QCOMPARE(wizard.page(kPickDestPageId)->subTitle(), kMoved);
    } else if (action == "back") {
        QCOMPARE(pageAfterWait, int(kSourcePageId));
    }
}

class tst_PickDestPage : public QObject
{
    Q_OBJECT

private slots:
    void probeFolderFor_data();
    void probeFolderFor();
    void shortageText_data();
    void shortageText();
    void spaceProbeFolder_data();
    void spaceProbeFolder();
    void sameVolume();
    void backAndForth();
    void chooseNames();
    void decide_data();
    void decide();
    void waitForScan_data();
    void waitForScan();
};

void tst_PickDestPage::probeFolderFor_data()
{
    QTest::addColumn<QString>("destination");
    QTest::addColumn<QString>("probe");
    const QString shared = QString::fromUtf8(kSharedParent);
    QTest::newRow("default") << QString::fromUtf8(kDefaultDestination) << shared;
    QTest::newRow("below the shared parent") << shared + "/a/b/VELDV400_3" << shared;
    QTest::newRow("shared parent's name as a prefix") << shared + "d/VELDV400" << shared;
    QTest::newRow("other case") << shared.toUpper() + "/VELDV400" << shared.toUpper();
    QTest::newRow("chosen folder") << "/home/u/Mes données/VELDV400_0" << "/home/u/Mes données";
    QTest::newRow("the root's") << "//VELDV400" << "/";
    QTest::newRow("slash first only") << "/VELDV400" << "/VELDV400";
    QTest::newRow("trailing slash") << "/mnt/disk/" << "/mnt/disk";
    QTest::newRow("no slash") << "VELDV400" << "VELDV400";
}

void tst_PickDestPage::probeFolderFor()
{
    QFETCH(QString, destination);
    QFETCH(QString, probe);
    QCOMPARE(::probeFolderFor(destination), probe);
}

void tst_PickDestPage::shortageText_data()
{
    QTest::addColumn<qint64>("shortage");
    QTest::addColumn<QString>("text");
    QTest::newRow("0") << qint64(0) << "0.00 KB";
    QTest::newRow("999") << qint64(999) << "0.00 KB";
    QTest::newRow("1999") << qint64(1999) << "1.00 KB";
    QTest::newRow("1,000,000") << qint64(1000000) << "1000.00 KB";
    QTest::newRow("1,000,001") << qint64(1000001) << "1.00 MB";
    QTest::newRow("1,000,000,000") << qint64(1000000000) << "1000.00 MB";
    QTest::newRow("1,000,000,001") << qint64(1000000001) << "1.00 GB";
    QTest::newRow("2,900,000,000") << qint64(2900000000) << "2.00 GB";
    QTest::newRow("12,345,000,000,000") << qint64(12345000000000) << "12345.00 GB";
}

void tst_PickDestPage::shortageText()
{
    QFETCH(qint64, shortage);
    QFETCH(QString, text);
    for (const QLocale &locale : {QLocale::c(), QLocale(QLocale::German)}) {
        QLocale::setDefault(locale);
        QCOMPARE(::shortageText(shortage), text);
    }
    QLocale::setDefault(QLocale::c());
}

void tst_PickDestPage::spaceProbeFolder_data()
{
    QTest::addColumn<QString>("folder");   // below a scratch folder holding "d/e" and the file "f"
    QTest::addColumn<QString>("probe");
    QTest::newRow("existing") << "d/e" << "d/e";
    QTest::newRow("missing last") << "d/e/x" << "d/e";
    QTest::newRow("missing chain") << "d/x/y/z" << "d";
    QTest::newRow("trailing slash") << "d/x/" << "d";
    QTest::newRow("below a file") << "f/x" << "f";
    QTest::newRow("accents and blanks") << "d/é ü/VELDV400" << "d";
}

void tst_PickDestPage::spaceProbeFolder()
{
    QFETCH(QString, folder);
    QFETCH(QString, probe);
    QTemporaryDir scratch;
    QVERIFY(QDir().mkpath(scratch.filePath(QStringLiteral("d/e"))));
    QVERIFY(makeFile(scratch.filePath(QStringLiteral("f")), 1));
    const std::string found = ::spaceProbeFolder(QFile::encodeName(scratch.filePath(folder)).toStdString());
    QCOMPARE(QFile::decodeName(QByteArray::fromStdString(found)), scratch.filePath(probe));
    QCOMPARE(::spaceProbeFolder("/nonexistent-veld/a/b"), std::string("/"));
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

namespace {

// A private mount namespace is what the volume cases need; skipped, with the
// reason, where this user may not have one.
bool privateMountsWork()
{
    const QStringList probe = inPrivateMounts(QStringLiteral("true"), {}, QStringLiteral("true"));
    return runProcess(probe.first(), probe.mid(1)).exitCode == 0;
}

QStringList asIs(const QString &program, const QStringList &args)
{
    return QStringList{program} + args;
}

} // namespace

void tst_PickDestPage::backAndForth()
{
    QTemporaryDir layout;
    QVERIFY(makeFile(layout.filePath(QStringLiteral("VELDV400/a.qventry")), 1000));
    runScenario(layout.path(), QStringLiteral("backAndForth"), QProcessEnvironment::systemEnvironment(), asIs);
}

void tst_PickDestPage::chooseNames()
{
    QTemporaryDir layout;
    QVERIFY(makeFile(layout.filePath(QStringLiteral("VELDV400/a.qventry")), 1000));
    runScenario(layout.path(), QStringLiteral("chooseNames"), QProcessEnvironment::systemEnvironment(), asIs);
}

void tst_PickDestPage::decide_data()
{
    QTest::addColumn<QString>("setup");   // shell commands in the namespace; "$1" is the layout
    QTest::addColumn<qint64>("sourceBytes");
    QTest::addColumn<bool>("fillSource");
    QTest::addColumn<QString>("chosen");   // a folder of the layout, or "" for the default destination
    QTest::addColumn<QString>("fakeDf");
    QTest::addColumn<QString>("expect");

    // An 8 MiB disk: df reports 8192 KiB free, which counts as 8,000,000 bytes.
    const QString other = QStringLiteral("mount -t tmpfs -o size=8m tmpfs \"$1/Other Disk é\"");
    const QString sharedParent = QStringLiteral(
        "mount -t tmpfs tmpfs /usr/local && mkdir /usr/local/share && mount -t tmpfs -o size=8m tmpfs /usr/local/share");
    const QString fullSource = QStringLiteral("mount -t tmpfs -o size=1m tmpfs \"$1/VELDV400\"");
    const QString sourceBelowShared = QStringLiteral(
        "mount -t tmpfs -o size=1m tmpfs /usr/local && mkdir -p /usr/local/share/src && "
        "mount --bind /usr/local/share/src \"$1/VELDV400\"");
    const QString noShared = QStringLiteral("mount -t tmpfs -o size=8m tmpfs /usr/local");
    const QString otherDisk = QStringLiteral("Other Disk é");

    QTest::newRow("other disk, room") << other << qint64(7999999) << false << otherDisk << "" << "copy";
    QTest::newRow("other disk, free space equal to the size")
        << other << qint64(8000000) << false << otherDisk << "" << "refuse:0.00 KB";
    QTest::newRow("other disk, 2 MB short") << other << qint64(10000000) << false << otherDisk << "" << "refuse:2.00 MB";
    QTest::newRow("other disk, GB short") << other << qint64(5000000000) << false << otherDisk << "" << "refuse:4.00 GB";
    QTest::newRow("same disk, full") << fullSource << qint64(5000000000) << true << "VELDV400" << "" << "move";
    QTest::newRow("default, measured on the shared parent")
        << sharedParent << qint64(8000000) << false << "" << "" << "refuse:0.00 KB";
    QTest::newRow("default, room on the shared parent") << sharedParent << qint64(7999999) << false << "" << "" << "copy";
    QTest::newRow("default, no shared parent: its nearest ancestor")
        << noShared << qint64(7999999) << false << "" << "" << "copy";
    QTest::newRow("default, on the full source disk")
        << sourceBelowShared << qint64(5000000000) << true << "" << "" << "move";
    QTest::newRow("no df on the search path") << other << qint64(7999999) << false << otherDisk << "none" << "refuse:7.00 MB";
    QTest::newRow("df reports garbage") << other << qint64(7999999) << false << otherDisk << "garbage" << "refuse:7.00 MB";
}

void tst_PickDestPage::decide()
{
    QFETCH(QString, setup);
    QFETCH(qint64, sourceBytes);
    QFETCH(bool, fillSource);
    QFETCH(QString, chosen);
    QFETCH(QString, fakeDf);
    QFETCH(QString, expect);
    if (!privateMountsWork())
        QSKIP("needs a private mount namespace (root, or unprivileged user namespaces) for its small disks");
    QTemporaryDir layout;
    QVERIFY(QDir().mkpath(layout.filePath(QStringLiteral("VELDV400"))));
    QVERIFY(QDir().mkpath(layout.filePath(QStringLiteral("Other Disk é"))));
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("VELD_SOURCE_BYTES"), QString::number(sourceBytes));
    env.insert(QStringLiteral("VELD_FILL_SOURCE"), fillSource ? QStringLiteral("1") : QString());
    env.insert(QStringLiteral("VELD_CHOOSE"), chosen);
    env.insert(QStringLiteral("VELD_FAKE_DF"), fakeDf);
    env.insert(QStringLiteral("VELD_EXPECT"), expect);
    env.insert(QStringLiteral("HOME"), layout.path());
    const QString layoutPath = layout.path();
    runScenario(layoutPath, QStringLiteral("decide"), env, [&](const QString &program, const QStringList &args) {
        return inPrivateMounts(setup, {layoutPath}, program, args);
    });
}

void tst_PickDestPage::waitForScan_data()
{
    QTest::addColumn<QString>("action");
    QTest::newRow("Continue again") << "continue";
    QTest::newRow("Back") << "back";
    QTest::newRow("Cancel") << "cancel";
}

void tst_PickDestPage::waitForScan()
{
    QFETCH(QString, action);
    QTemporaryDir layout(scratchTemplate(QStringLiteral("tst_pickdestpage")));
    QVERIFY(buildWideTree(layout.filePath(QStringLiteral("VELDV400")), 100, 300));
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("VELD_WAIT_ACTION"), action);
    runScenario(layout.path(), QStringLiteral("waitForScan"), env, asIs);
}

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    if (argc == 3 && qstrcmp(argv[1], "--scenario") == 0) {
        DestinationScenarios scenarios;
        return QTest::qExec(&scenarios, QStringList{QString::fromLocal8Bit(argv[0]), QString::fromLocal8Bit(argv[2])});
    }
    tst_PickDestPage test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_pickdestpage.moc"
