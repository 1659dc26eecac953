#include "app/veld_installer.h"
#include "pages/pageids.h"
#include "pages/pagestate.h"
#include "pages/sourcepage.h"
#include "platform/installpath.h"
#include "workers/sizethread.h"
#include "testsupport.h"
#include "wizarddriver.h"

#include <QAbstractButton>
#include <QApplication>
#include <QLabel>
#include <QPushButton>
#include <QtTest>

// The page's rows run in a copy of this program placed in a bundle laid out in
// a temporary folder, in a mount namespace with an empty /media: there the
// candidates beside the bundle and on the removable disk are exactly what the
// row makes them.

namespace {

const QString kFixedMessage = QStringLiteral(
    "This Installer will copy or move the Quorvan Spectra and Properties Database from the source folders to your "
    "hard disk.\n\nThe databases will occupy approximately %1 GB  of additional disk space.");
const QString kChosenMessage = QStringLiteral(
    "This Installer will copy or move the Quorvan Spectra and Properties Database from \"%1\" to your hard "
    "disk.\n\nThe databases will occupy approximately %2 GB  of additional disk space.");
const QString kNotFound = QStringLiteral(
    "The VELDV400 database source folder was not found.\nPlease press \"Find data files\" to locate the "
    "\"VELDV400\" database source files folder.");
const QString kNoDataFiles = QStringLiteral(
    "No VELDV400 database files were found in %1.\nPlease press \"Find data files\" to locate the \"VELDV400\" "
    "database source files folder.");

struct PageView {
    SourcePage *page;
    QLabel *label;
    QPushButton *find;
    QAbstractButton *next;
};

PageView view(QWizard &wizard)
{
    auto *page = qobject_cast<SourcePage *>(wizard.page(kSourcePageId));
    return {page, page->findChild<QLabel *>(), page->findChild<QPushButton *>(), wizard.button(QWizard::NextButton)};
}

// In the parent: lays out VELDV400 beside the bundle with files "name:size" and runs the row there.
void runBesideSource(const QStringList &beside)
{
    QTemporaryDir layout(scratchTemplate("tst_sourcepage"));
    for (const QString &file : beside)
        QVERIFY(makeFile(layout.filePath("VELDV400/" + file.section(':', 0, 0)), file.section(':', 1).toLongLong()));
    runRowInChild({layout.filePath("Test Installer.app/Contents/MacOS/tst_sourcepage"),
                   {inPrivateMounts("mount -t tmpfs tmpfs /media")}});
}

} // namespace

class tst_SourcePage : public QObject
{
    Q_OBJECT

private slots:
    void cleanup() { QVERIFY(QApplication::topLevelWidgets().isEmpty()); }

    void sizeFigure_data()
    {
        QTest::addColumn<quint64>("bytes");
        QTest::addColumn<QString>("figure");
        QTest::newRow("12345678901") << quint64(12345678901) << "12.35";
        QTest::newRow("999999999 rounds up") << quint64(999999999) << "1.00";
        QTest::newRow("largest") << quint64(18446744073709551615u) << "18446744073.71";
    }

    // The same figure whatever the user's locale.
    void sizeFigure()
    {
        QFETCH(quint64, bytes);
        QFETCH(QString, figure);
        for (const QLocale &locale : {QLocale::c(), QLocale(QLocale::German), QLocale(QLocale::Arabic, QLocale::Egypt)}) {
            QLocale::setDefault(locale);
            QCOMPARE(::sizeFigure(bytes), figure);
        }
        QLocale::setDefault(QLocale::c());
    }

    void fixedSource_data()
    {
        QTest::addColumn<QStringList>("beside");   // files of VELDV400 beside the bundle, "name:size"
        QTest::addColumn<qint64>("removable");     // size of a data file on the removable disk, or -1
        QTest::addColumn<qint64>("shown");         // the total the page shows for the source it finds, or -1
        QTest::newRow("only on the removable disk") << QStringList{} << qint64(2222222222) << qint64(2222222222);
        QTest::newRow("beside the bundle comes first") << QStringList{"a.qventry:10"} << qint64(2222222222) << qint64(10);
        QTest::newRow("found but without data files") << QStringList{"c.txt:9"} << qint64(-1) << qint64(0);
        QTest::newRow("neither") << QStringList{} << qint64(-1) << qint64(-1);
    }

    void fixedSource()
    {
        QFETCH(QStringList, beside);
        QFETCH(qint64, removable);
        QFETCH(qint64, shown);
        if (!inChild())
            return runBesideSource(beside);
        QVERIFY(removable < 0 || makeFile(QString::fromStdString(removableSourceFolder()) + "/sub/r.qvkindex", removable));
        const bool found = shown >= 0;
        VELD_Installer wizard;
        const PageView source = view(wizard);
        // Before any event is processed, so before any scan can have reported: a
        // found source makes the page complete at once.
        QCOMPARE(source.page->dbSize, quint64(0));
        QCOMPARE(source.find->isHidden(), found);
        QCOMPARE(source.label->text(), found ? QString() : kNotFound);
        QCOMPARE(source.page->isComplete(), found);
        QCOMPARE(SizeThread::scansPending(), found);
        goToSourcePage(wizard);
        QCOMPARE(wizard.currentId(), kSourcePageId);
        QVERIFY(SizeThread::waitForScans());
        // Leaving and coming back changes nothing.
        for (int visit = 0; visit < 2; ++visit) {
            QCOMPARE(source.label->text(), found ? kFixedMessage.arg(::sizeFigure(quint64(shown))) : kNotFound);
            QCOMPARE(source.page->dbSize, quint64(qMax(shown, qint64(0))));
            QCOMPARE(source.find->isVisible(), !found);
            QCOMPARE(source.next->isEnabled(), found);
            if (!found)
                return;
            QCOMPARE(source.next->text(), QStringLiteral("Continue"));
            wizard.next();
            wizard.back();
        }
    }

    void chooseFolder_data()
    {
        QTest::addColumn<QStringList>("choices");   // folders below HOME in the order chosen; "" cancels
        QTest::newRow("dialog cancelled") << QStringList{""};
        QTest::newRow("empty, then 5 GB") << QStringList{"Empty/MyData", "Data/MyData"};
        QTest::newRow("a second choice while the first is measured") << QStringList{"Big", "Data/MyData"};
    }

    void chooseFolder()
    {
        QFETCH(QStringList, choices);
        if (!inChild())
            return runBesideSource({});
        QTemporaryDir home(scratchTemplate("home"));
        QVERIFY(buildTree(home.path(), {"f|Data/MyData/x.qventry|4000000000", "f|Data/MyData/deeper/y.qvindex|1000000000",
                                        "f|Data/MyData/notes.txt|7", "f|Empty/MyData/readme.txt|100", "f|Big/a/z.qventry|1",
                                        "f|Big/b/z.qventry|1"}));
        qputenv("HOME", QFile::encodeName(home.path()));
        // "Big" is still measured when the next choice comes; every other choice is measured before the next.
        const bool held = choices.first() == "Big";
        if (held)
            ScanGate::close();

        VELD_Installer wizard;
        const PageView source = view(wizard);
        goToSourcePage(wizard);
        QVERIFY(!source.next->isEnabled());
        DialogAnswer answer;
        for (const QString &choice : choices) {
            answer.arm(choice.isEmpty() ? QString() : home.filePath(choice));
            QTest::mouseClick(source.find, Qt::LeftButton);
            QVERIFY(answer.answered);
            QCOMPARE(answer.caption, QStringLiteral("Select Database directory"));
            QCOMPARE(answer.startFolder, home.path());
            QVERIFY(answer.dirsOnly);
            QCOMPARE(source.label->text(), QStringLiteral("Scanning..."));
            if (!held)
                QVERIFY(SizeThread::waitForScans());
            else if (choice == choices.first())
                QVERIFY(ScanGate::waitUntilHeld());
        }
        ScanGate::release();
        QVERIFY(SizeThread::waitForScans());
        QCOMPARE(ScanGate::foldersAfterCancel(), 0);

        const QString last = choices.last();
        if (last.isEmpty() || last.startsWith("Empty")) {
            QCOMPARE(source.label->text(), last.isEmpty() ? QStringLiteral("Scanning...") : kNoDataFiles.arg("MyData"));
            QVERIFY(source.find->isVisible());
            QVERIFY(!source.next->isEnabled());
            QCOMPARE(source.page->dbSize, quint64(0));
            return;
        }
        // The page shows the last choice, and the list holds that folder's files and no one else's.
        QList<QFileInfo> expected;
        const quint64 total = SizeThread::dirSize(home.filePath(last), expected);
        QCOMPARE(sResultList.size(), expected.size());
        for (int i = 0; i < expected.size(); ++i)
            QCOMPARE(sResultList.at(i).filePath(), expected.at(i).filePath());
        QCOMPARE(source.label->text(), kChosenMessage.arg("MyData", ::sizeFigure(total)));
        QCOMPARE(source.page->dbSize, total);
        QVERIFY(source.find->isHidden());
        QVERIFY(!source.find->isDefault());
        QVERIFY(source.next->isEnabled());
        QCOMPARE(source.next->text(), QStringLiteral("Continue"));
    }

    void closeWhileScanning_data()
    {
        QTest::addColumn<bool>("viaCancelButton");
        QTest::newRow("Cancel") << true;
        QTest::newRow("window closed") << false;
    }

    // The wizard is left while the scan is held among its folders: the event
    // loop ends with 0, and the wizard goes away without the walk going further.
    void closeWhileScanning()
    {
        QFETCH(bool, viaCancelButton);
        if (!inChild())
            return runBesideSource({"s/b.qventry:1", "t/c.qventry:1"});
        bool scanning = false;
        int status = -1;
        ScanGate::close();
        {
            VELD_Installer wizard;
            wizard.show();
            QVERIFY(ScanGate::waitUntilHeld());
            QTimer::singleShot(0, &wizard, [&] {
                scanning = SizeThread::scansPending();
                if (viaCancelButton)
                    QTest::mouseClick(wizard.button(QWizard::CancelButton), Qt::LeftButton);
                else
                    wizard.close();
            });
            status = QApplication::exec();
        }
        QCOMPARE(status, 0);
        QVERIFY(scanning);
        QVERIFY(!SizeThread::scansPending());
        QCOMPARE(ScanGate::foldersAfterCancel(), 0);
    }
};

QTEST_MAIN(tst_SourcePage)
#include "tst_sourcepage.moc"
