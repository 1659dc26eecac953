#include "app/veld_installer.h"
#include "pages/pageids.h"
#include "pages/pagestate.h"
#include "pages/sourcepage.h"
#include "workers/sizethread.h"
#include "testsupport.h"

#include <QAbstractButton>
#include <QApplication>
#include <QLabel>
#include <QPushButton>
#include <QtTest>

// The page's rows run in a copy of this program in a bundle laid out in a
// temporary folder, in a mount namespace with an empty /media: there the
// candidates beside the bundle and on the removable disk are what the row makes.

namespace {

const QString kFixed = QStringLiteral("This Installer will copy or move the Quorvan Spectra and Properties Database from the "
                                      "source folders to your hard disk.\n\nThe databases will occupy approximately %1 GB  of "
                                      "additional disk space.");
const QString kChosen = QStringLiteral("This Installer will copy or move the Quorvan Spectra and Properties Database from "
                                       "\"%1\" to your hard disk.\n\nThe databases will occupy approximately %2 GB  of "
                                       "additional disk space.");
const QString kFind = QStringLiteral("\nPlease press \"Find data files\" to locate the \"VELDV400\" database source files folder.");

// In the parent: lays out VELDV400 beside the bundle with files "name:size" and runs the row there.
void runBesideSource(const QStringList &beside)
{
    QTemporaryDir layout;
    for (const QString &file : beside)
        QVERIFY(makeFile(layout.filePath("VELDV400/" + file.section(':', 0, 0)), file.section(':', 1).toLongLong()));
    runRowInChild({layout.filePath("Test Installer.app/Contents/MacOS/tst_sourcepage"), {inPrivateMounts("mount -t tmpfs tmpfs /media")}});
}

} // namespace

class tst_SourcePage : public QObject
{
    Q_OBJECT

    SourcePage *page = nullptr;
    QLabel *label = nullptr;
    QPushButton *find = nullptr;
    QAbstractButton *next = nullptr;

    void view(QWizard &wizard)
    {
        page = qobject_cast<SourcePage *>(wizard.page(kSourcePageId));
        label = page->findChild<QLabel *>();
        find = page->findChild<QPushButton *>();
        next = wizard.button(QWizard::NextButton);
    }

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
        view(wizard);
        // Before any event is processed, so before any scan can have reported: a found source makes the page complete at once.
        const QString notFound = "The VELDV400 database source folder was not found." + kFind;
        QVERIFY(page->dbSize == 0 && page->isComplete() == found && SizeThread::scansPending() == found);
        QCOMPARE(label->text(), found ? QString() : notFound);
        goToSourcePage(wizard);
        QVERIFY(SizeThread::waitForScans());
        for (int visit = 0; visit < 2; ++visit) {   // leaving and coming back changes nothing
            QCOMPARE(label->text(), found ? kFixed.arg(::sizeFigure(quint64(shown))) : notFound);
            QVERIFY(page->dbSize == quint64(qMax(shown, qint64(0))) && find->isVisible() != found && next->isEnabled() == found);
            QVERIFY(!found || next->text() == "Continue");
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
        QTemporaryDir home;
        QVERIFY(buildTree(home.path(), {"f|Data/MyData/x.qventry|4000000000", "f|Data/MyData/deeper/y.qvindex|1000000000",
                                        "f|Data/MyData/notes.txt|7", "f|Empty/MyData/readme.txt|100", "f|Big/a/z.qventry|1",
                                        "f|Big/b/z.qventry|1"}));
        qputenv("HOME", QFile::encodeName(home.path()));
        // "Big" is still measured when the next choice comes; every other choice is measured before the next.
        const bool held = choices.first() == "Big";
        if (held)
            ScanGate::close();
        VELD_Installer wizard;
        view(wizard);
        goToSourcePage(wizard);
        QVERIFY(!next->isEnabled());
        DialogAnswer answer;
        for (const QString &choice : choices) {
            answer.arm(choice.isEmpty() ? QString() : home.filePath(choice));
            QTest::mouseClick(find, Qt::LeftButton);
            QVERIFY(answer.answered && answer.dirsOnly);
            QCOMPARE(answer.caption + '|' + answer.startFolder, "Select Database directory|" + home.path());
            QCOMPARE(label->text(), QStringLiteral("Scanning..."));
            QVERIFY(held ? choice != choices.first() || ScanGate::waitUntilHeld() : SizeThread::waitForScans());
            if (choice.startsWith("Empty"))
                QCOMPARE(label->text(), "No VELDV400 database files were found in MyData." + kFind);
        }
        ScanGate::release();
        QVERIFY(SizeThread::waitForScans());
        QCOMPARE(ScanGate::foldersAfterCancel(), 0);
        // The page shows the last choice, and the list holds that folder's files and no one else's.
        const QString last = choices.last();
        QList<QFileInfo> expected;
        const quint64 total = last.isEmpty() ? 0 : SizeThread::dirSize(home.filePath(last), expected);
        QStringList listed, expectedPaths;
        for (int i = 0; i < qMax(sResultList.size(), expected.size()); ++i) {
            listed << sResultList.value(i).filePath();
            expectedPaths << expected.value(i).filePath();
        }
        QCOMPARE(listed, expectedPaths);
        QCOMPARE(page->dbSize, total);
        QCOMPARE(label->text(), last.isEmpty() ? "Scanning..." : kChosen.arg("MyData", ::sizeFigure(total)));
        QCOMPARE(find->isHidden(), total > 0);
        QCOMPARE(next->isEnabled(), total > 0);
        QVERIFY(!find->isDefault() && (!total || next->text() == "Continue"));
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
                viaCancelButton ? QTest::mouseClick(wizard.button(QWizard::CancelButton), Qt::LeftButton) : void(wizard.close());
            });
            status = QApplication::exec();
        }
        QVERIFY(status == 0 && scanning && !SizeThread::scansPending() && ScanGate::foldersAfterCancel() == 0);
    }
};

QTEST_MAIN(tst_SourcePage)
#include "tst_sourcepage.moc"
