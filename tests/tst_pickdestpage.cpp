#include "app/veld_installer.h"
#include "pages/pageids.h"
#include "pages/pagestate.h"
#include "pages/pickdestpage.h"
#include "platform/installpath.h"
#include "platform/locations.h"
#include "platform/volume.h"
#include "workers/sizethread.h"
#include "testsupport.h"

#include <QApplication>
#include <QPushButton>
#include <QtTest>

// The page's rows run in a copy of this program in a bundle in a temporary
// layout folder, so that layout/VELDV400 is the source beside the bundle; the
// disk rows in a private mount namespace where small memory file systems stand
// in for other disks, full ones included.

namespace {

const QString kStoredIn = QStringLiteral("The database will be stored in\n\n%1\n\nClick \"Continue\" to install here, or "
                                         "\"Choose\" to select another location.");
const QString kMoved = QStringLiteral("The files will be moved to the selected location.");
const QString kNoRoom = QStringLiteral("The selected disk does not have enough free space to store the database (%1 "
                                       "additional needed). Please select another location.");

QString layoutFolder()
{
    return QFileInfo(QString::fromStdString(GetInstallPath()) + "/..").absoluteFilePath();
}

// In the parent: runs the row beside a 1000-byte source and a folder "Other Disk é",
// after the shell command setup ("$1": the layout) in a private mount namespace.
void runInLayout(const QString &setup = QString())
{
    QTemporaryDir layout;
    QVERIFY(makeFile(layout.filePath("VELDV400/data/a.qventry"), 1000) && QDir().mkpath(layout.filePath("Other Disk é")));
    runRowInChild({layout.filePath("Test Installer.app/Contents/MacOS/tst_pickdestpage"),
                   setup.isEmpty() ? QList<Wrap>() : QList<Wrap>{inPrivateMounts(setup, {layout.path()})}});
}

} // namespace

class tst_PickDestPage : public QObject
{
    Q_OBJECT

private slots:
    void cleanup() { QVERIFY(QApplication::topLevelWidgets().isEmpty()); }

    // The folder whose volume stands for a destination's, the folder df is asked about
    // (below a scratch folder holding "d/e" and the file "f"), and the shortage shown.
    void rules_data()
    {
        QTest::addColumn<QString>("rule");
        QTest::addColumn<QString>("input");
        QTest::addColumn<QString>("expected");
        const QString shared = QString::fromUtf8(kSharedParent);
        const QList<QStringList> rows{
            {"probeFolderFor", "shared parent's name as a prefix", shared + "d/VELDV400", shared},
            {"probeFolderFor", "other case", shared.toUpper() + "/VELDV400", shared.toUpper()},
            {"probeFolderFor", "chosen folder", "/home/u/Mes données/VELDV400_0", "/home/u/Mes données"},
            {"probeFolderFor", "the root's", "//VELDV400", "/"},
            {"probeFolderFor", "slash first only", "/VELDV400", "/VELDV400"},
            {"spaceProbeFolder", "existing", "d/e", "d/e"},
            {"spaceProbeFolder", "missing chain", "d/x/y/z", "d"},
            {"spaceProbeFolder", "below a file", "f/x", "f"},
            {"spaceProbeFolder", "nothing but the root", "/nonexistent-veld/a/b", "/"},
            {"shortageText", "remainder dropped", "1999", "1.00 KB"},
            {"shortageText", "10^6", "1000000", "1000.00 KB"},
            {"shortageText", "above 10^6", "1000001", "1.00 MB"},
            {"shortageText", "10^9", "1000000000", "1000.00 MB"},
            {"shortageText", "above 10^9", "1000000001", "1.00 GB"},
        };
        for (const QStringList &row : rows)
            QTest::addRow("%s: %s", qPrintable(row[0]), qPrintable(row[1])) << row[0] << row[2] << row[3];
    }

    void rules()
    {
        QFETCH(QString, rule);
        QFETCH(QString, input);
        QFETCH(QString, expected);
        QTemporaryDir scratch;
        QVERIFY(QDir().mkpath(scratch.filePath("d/e")) && makeFile(scratch.filePath("f"), 1));
        const auto in = [&](const QString &path) { return path.startsWith('/') ? path : scratch.filePath(path); };
        for (const QLocale &locale : {QLocale::c(), QLocale(QLocale::German)}) {
            QLocale::setDefault(locale);
            QCOMPARE(rule == "probeFolderFor" ? ::probeFolderFor(input)
                     : rule == "shortageText" ? ::shortageText(input.toLongLong())
                                              : QString::fromStdString(::spaceProbeFolder(QFile::encodeName(in(input)).toStdString())),
                     rule == "spaceProbeFolder" ? in(expected) : expected);
        }
        QLocale::setDefault(QLocale::c());
    }

    void chooseNames_data()
    {
        QTest::addColumn<QString>("parent");      // below HOME; "/" is the root; "-" cancels the dialog
        QTest::addColumn<QStringList>("taken");   // names in parent; "file:" makes a file
        QTest::addColumn<QString>("proposed");    // the destination proposed, below HOME or absolute
        QTest::newRow("taken by a file") << "Disk" << QStringList{"file:VELDV400"} << "Disk/VELDV400_0";
        QTest::newRow("blanks, accents and percent signs")
            << "Mes données/ü 100%1 %2" << QStringList{"VELDV400"} << "Mes données/ü 100%1 %2/VELDV400_0";
        QTest::newRow("the root") << "/" << QStringList{} << "//VELDV400";
        QTest::newRow("cancelled") << "-" << QStringList{} << QString::fromUtf8(kDefaultDestination);
    }

    // Twice: back to the source page and on again drops the choice.
    void chooseNames()
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
        const QString parentPath = parent.startsWith('/') ? parent : home.filePath(parent);
        QVERIFY(QDir().mkpath(parentPath));
        for (const QString &name : taken)
            QVERIFY(name.startsWith("file:") ? makeFile(parentPath + '/' + name.mid(5), 1) : QDir().mkpath(parentPath + '/' + name));
        const QString expected = proposed.startsWith('/') ? proposed : home.filePath(proposed);
        const QString defaultText = QString::fromUtf8(kDefaultDestination);
        VELD_Installer wizard;
        goToDestPage(wizard);
        QWizardPage *page = wizard.currentPage();
        auto *chooseButton = page->findChild<QPushButton *>();
        auto *next = qobject_cast<QPushButton *>(wizard.button(QWizard::NextButton));
        for (int visit = 0; visit < 2; ++visit) {
            QCOMPARE(page->title() + '|' + chooseButton->text() + '|' + wizard.field("path").toString(),
                     "Select Database location|Choose...|" + defaultText);
            QCOMPARE(page->subTitle(), kStoredIn.arg(defaultText));
            QVERIFY(chooseButton->isVisible() && !chooseButton->isDefault() && next->isEnabled());
            choose(wizard, parent == "-" ? QString() : parentPath);
            QCOMPARE(wizard.field("path").toString(), expected);
            QCOMPARE(page->subTitle(), kStoredIn.arg(expected));
            QVERIFY(parent == "-" || next->isDefault());
            QTest::mouseClick(wizard.button(QWizard::BackButton), Qt::LeftButton);
            QTest::mouseClick(next, Qt::LeftButton);
            QCOMPARE(wizard.currentId(), int(kPickDestPageId));
        }
    }

    void decide_data()
    {
        QTest::addColumn<QString>("setup");   // shell commands in the row's namespace; "$1" is the layout
        QTest::addColumn<qint64>("sourceBytes");
        QTest::addColumn<QString>("chosen");   // a folder of the layout, or "" for the default destination
        QTest::addColumn<QString>("expect");   // "move", "copy" or "refuse:" and the amount shown
        // An 8 MiB disk: df reports 8192 KiB free, which counts as 8,000,000 bytes. A move needs no
        // room, so it is decided with the source's 1 MiB disk filled up, as the real df shows.
        const QString other = "mount -t tmpfs -o size=8m tmpfs \"$1/Other Disk é\"";
        const QString fullSource = "mount -t tmpfs -o size=1m tmpfs \"$1/VELDV400\" && { cat /dev/zero > \"$1/VELDV400/filler\" "
                                   "2>/dev/null; [ $(df -k --output=avail \"$1/VELDV400\" | tail -n 1) -lt 1024 ]; }";
        QTest::newRow("other disk, room") << other << qint64(7999999) << "Other Disk é" << "copy";
        QTest::newRow("other disk, free space equal to the size") << other << qint64(8000000) << "Other Disk é" << "refuse:0.00 KB";
        QTest::newRow("same disk, full") << fullSource << qint64(5000000000) << "VELDV400" << "move";
        QTest::newRow("default, measured on the shared parent")
            << "mount -t tmpfs tmpfs /usr/local && mkdir /usr/local/share && mount -t tmpfs -o size=8m tmpfs /usr/local/share"
            << qint64(8000000) << "" << "refuse:0.00 KB";
        QTest::newRow("default, no shared parent, so its nearest ancestor")
            << "mount -t tmpfs -o size=8m tmpfs /usr/local" << qint64(8000000) << "" << "refuse:0.00 KB";
    }

    void decide()
    {
        QFETCH(QString, setup);
        QFETCH(qint64, sourceBytes);
        QFETCH(QString, chosen);
        QFETCH(QString, expect);
        if (!inChild()) {
            if (runProcess(wrapped({"true"}, {inPrivateMounts("true")})).exitCode != 0)
                QSKIP("needs a private mount namespace (root, or unprivileged user namespaces) for its small disks");
            return runInLayout(setup);
        }
        QVERIFY(makeFile(layoutFolder() + "/VELDV400/data/a.qventry", sourceBytes));   // sparse
        VELD_Installer wizard;
        goToDestPage(wizard);
        if (!chosen.isEmpty())
            choose(wizard, layoutFolder() + '/' + chosen);
        const QString destination = wizard.field("path").toString();
        QWizardPage *page = wizard.currentPage();
        sCopyFiles = expect != "move";   // the opposite of what must come out
        QTest::mouseClick(wizard.button(QWizard::NextButton), Qt::LeftButton);
        const bool refused = expect.startsWith("refuse:");
        QCOMPARE(wizard.currentId(), int(refused ? kPickDestPageId : kConclusionPageId));
        QCOMPARE(sCopyFiles, expect == "move");
        QCOMPARE(page->subTitle(), refused ? kNoRoom.arg(expect.mid(7)) : sCopyFiles ? kMoved : kStoredIn.arg(destination));
    }

    void waitForScan_data()
    {
        QTest::addColumn<int>("button");   // what the user clicks while the scan is waited for
        QTest::newRow("Continue again") << int(QWizard::NextButton);
        QTest::newRow("Back") << int(QWizard::BackButton);
        QTest::newRow("Cancel") << int(QWizard::CancelButton);
    }

    // Continue while the source beside the bundle is still measured (held at the
    // scan gate), on the same disk as the destination chosen.
    void waitForScan()
    {
        QFETCH(int, button);
        if (!inChild())
            return runInLayout();
        QTemporaryDir home;
        qputenv("HOME", QFile::encodeName(home.path()));
        bool waiting = false;   // the scan still pending at Continue, with the busy cursor, and after the second click
        int pageAfterWait = -1;
        ScanGate::close();
        VELD_Installer wizard;
        QVERIFY(ScanGate::waitUntilHeld());
        QTimer::singleShot(0, &wizard, [&] {
            goToSourcePage(wizard);
            QTest::mouseClick(wizard.button(QWizard::NextButton), Qt::LeftButton);
            choose(wizard, layoutFolder());
            QTimer::singleShot(0, &wizard, [&] {
                waiting = SizeThread::scansPending() && QApplication::overrideCursor()->shape() == Qt::BusyCursor;
                QTest::mouseClick(wizard.button(QWizard::WizardButton(button)), Qt::LeftButton);
                waiting = waiting && SizeThread::scansPending();
                ScanGate::release();
            });
            QTest::mouseClick(wizard.button(QWizard::NextButton), Qt::LeftButton);
            pageAfterWait = wizard.currentId();
            wizard.close();
        });
        QCOMPARE(QApplication::exec(), 0);
        QVERIFY(waiting && !QApplication::overrideCursor());
        // A second Continue is ignored, and the move is decided on the finished list (without it the disks would not
        // compare); Back and Cancel are respected.
        QCOMPARE(pageAfterWait, button == QWizard::NextButton ? kConclusionPageId : button == QWizard::BackButton ? kSourcePageId : -1);
        QCOMPARE(wizard.page(kPickDestPageId)->subTitle() == kMoved, button == QWizard::NextButton);
    }
};

QTEST_MAIN(tst_PickDestPage)
#include "tst_pickdestpage.moc"
