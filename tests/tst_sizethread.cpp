#include "pages/pagestate.h"
#include "workers/sizethread.h"
#include "testsupport.h"

namespace {

// The scanner's rule with the toolkit's own listing, in the file system's order (QDir::NoSort would sort by name).
quint64 referenceDirSize(const QString &path, QList<QFileInfo> &list)
{
    if (!QFileInfo(path).isDir())
        return 0;
    quint64 total = 0;
    const auto filter = QDir::Dirs | QDir::Files | QDir::NoSymLinks | QDir::Hidden | QDir::NoDotAndDotDot;
    for (const QFileInfo &entry : QDir(path).entryInfoList(filter, QDir::Unsorted)) {
        if (entry.isDir()) {
            total += referenceDirSize(entry.absoluteFilePath(), list);
        } else if (QStringList{"qventry", "qvkentry", "qvindex", "qvkindex"}.contains(entry.completeSuffix())) {
            total += quint64(entry.size());
            list.append(entry);
        }
    }
    return total;
}

} // namespace

class tst_SizeThread : public QObject
{
    Q_OBJECT

private slots:
    void walk_data()
    {
        QTest::addColumn<QStringList>("entries");
        QTest::addColumn<quint64>("total");
        QTest::addColumn<int>("count");
        QTest::newRow("complete suffix, case and all")
            << QStringList{"f|a.b.qventry|7", "f|qventry|7", "f|a.QVENTRY|7", "f|a.qventry.bak|7", "f|a.qventr|7",
                           "f|.qventry|11", "f|c.qvkentry|13", "f|b.qvindex|17", "f|d.qvkindex|19", "f|readme.txt|9"}
            << quint64(60) << 4;
        QTest::newRow("nested, hidden and empty")
            << QStringList{"f|d1/d2/d3/d4/x.qventry|5", "f|.hidden/y.qventry|7", "f|.hidden/.deeper/z.qvindex|9",
                           "f|d1/w.qvkentry|3", "d|empty", "f|z.qventry|0", "f|sub/e.qvkindex|0"}
            << quint64(24) << 6;
        QTest::newRow("links and special files")
            << QStringList{"f|real/x.qventry|100", "l|link.qventry|real/x.qventry", "l|linkdir|real", "l|loop|.",
                           "l|dangling.qventry|nowhere", "p|fifo.qventry", "s|socket.qventry"}
            << quint64(100) << 1;
        // The folder that can be listed but not entered shows its file, whose size
        // cannot be read: it is listed with 0, so that copying it fails visibly.
        QTest::newRow("unreadable folders")
            << QStringList{"f|open/x.qventry|10", "f|closed/y.qventry|20", "f|closed/deeper/z.qventry|30",
                           "f|listonly/w.qventry|40", "f|last/v.qvindex|5", "m|closed|000", "m|listonly|444"}
            << quint64(15) << 3;
    }

    // Every spelling of the folder's path gives the reference's total and list:
    // the same files, in the same order, with the same paths. Runs as an ordinary
    // user, for whom permissions hold.
    void walk()
    {
        QFETCH(QStringList, entries);
        QFETCH(quint64, total);
        QFETCH(int, count);
        if (!inChild())
            return runRowInChild({QString(), {asOrdinaryUser()}});
        QTemporaryDir dir;   // the child's own, gone with it
        QVERIFY(buildTree(dir.path(), QStringList{"l|alias|tree"} + entries.replaceInStrings(QRegularExpression("^(.)\\|"), "\\1|tree/")));
        QVERIFY(QDir::setCurrent(dir.path()));
        for (const QString &path : {dir.path() + "/tree", dir.path() + "/tree/", QString("tree"), QString("alias/../tree//"), QString("alias")}) {
            QList<QFileInfo> list{QFileInfo("/kept")}, expected = list;
            QCOMPARE(SizeThread::dirSize(path, list), total);
            QCOMPARE(referenceDirSize(path, expected), total);
            QCOMPARE(list.size(), count + 1);
            QCOMPARE(paths(list), paths(expected));
        }
        runProcess({"chmod", "-R", "u+rwx", dir.path()});
    }

    // A path that is not a folder walks nothing: missing, a file named like data, a pipe, the empty string.
    void nothingToWalk()
    {
        QTemporaryDir dir;
        QVERIFY(buildTree(dir.path(), {"f|file.qventry|10", "p|fifo"}));
        for (const QString &path : {dir.filePath("missing"), dir.filePath("file.qventry"), dir.filePath("fifo"), QString()}) {
            QList<QFileInfo> list{QFileInfo("/kept")};
            QCOMPARE(SizeThread::dirSize(path, list), quint64(0));
            QCOMPARE(paths(list), QStringList{"/kept"});
        }
    }

    void interruptedScans_data()
    {
        QTest::addColumn<QString>("action");      // what befalls the scan
        QTest::addColumn<bool>("settled");        // what waitForScans then returns
        QTest::addColumn<QString>("delivered");   // results by then, "TOTAL:FILES LISTED" as the receiver saw each; "*": not told
        QTest::addColumn<int>("listed");          // of its files in sResultList at the end
        QTest::newRow("no scan") << "" << true << "" << 0;
        QTest::newRow("runs to its end") << "finish" << true << "7:2" << 2;
        QTest::newRow("its tree removed meanwhile") << "remove" << true << "0:0" << 0;
        QTest::newRow("deleted while walking") << "delete" << true << "" << 0;
        QTest::newRow("cancelled while walking, then deleted") << "cancel" << true << "" << 0;
        QTest::newRow("cancelled after its walk, before its result is taken") << "cancel late" << true << "*" << 0;
        QTest::newRow("deleted during the wait") << "delete in wait" << true << "*" << 0;
        QTest::newRow("application quits during the wait") << "quit" << false << "*" << 0;
    }

    // A scan is held at the gate, among its folders (or has walked all of them), while something befalls it. Deleting
    // or cancelling it stops the walk there, and its files never reach the list. A scan whose tree is removed still
    // ends. The wait keeps the event loop turning (the gate is let go from it) and ends when the scan has delivered its
    // result or is gone, or at once when the application quits.
    void interruptedScans()
    {
        QFETCH(QString, action);
        QFETCH(bool, settled);
        QFETCH(QString, delivered);
        QFETCH(int, listed);
        const int before = sResultList.size();
        QTemporaryDir dir;
        QVERIFY(buildTree(dir.path(), {"f|a/x.qventry|3", "f|b/y.qvindex|4"}));
        QPointer<SizeThread> scan;
        QStringList results;
        if (action != "cancel late")
            ScanGate::close();
        if (!action.isEmpty()) {
            scan = new SizeThread(nullptr, dir.path());
            connect(scan, &SizeThread::pathSize, this, [&](const QString &, quint64 total) {   // on this thread, as on a page's
                results << QStringLiteral("%1:%2").arg(total).arg(sResultList.size() - before);
            });
            scan->start();
            QVERIFY(action == "cancel late" ? scan->wait() : ScanGate::waitUntilHeld());
            QVERIFY(SizeThread::scansPending());   // until its result is delivered
        }
        if (action == "remove")
            QVERIFY(dir.remove());
        if (action.startsWith("cancel")) {
            scan->cancel();
            QVERIFY(SizeThread::waitForScans());
        }
        if (action == "delete" || action == "cancel")
            delete scan;
        QTimer ticker;
        connect(&ticker, &QTimer::timeout, [&] {
            ticker.stop();
            if (action == "delete in wait")
                delete scan;
            else if (action == "quit")
                QCoreApplication::quit();
            else
                ScanGate::release();
        });
        ticker.start(0);
        QCOMPARE(SizeThread::waitForScans(), settled);   // also delivers what a stopped scan might have posted
        QCOMPARE(SizeThread::scansPending(), !settled);
        ScanGate::release();
        QVERIFY(delivered == "*" || results.join(',') == delivered);
        QCOMPARE(sResultList.size() - before, listed);
        delete scan;
        QVERIFY(!SizeThread::scansPending() && ScanGate::foldersAfterCancel() == 0);
        if (!settled) {
            // The quit stays in force for every later event loop until the application's own loop has run once more.
            QTimer::singleShot(0, QCoreApplication::instance(), &QCoreApplication::quit);
            QCoreApplication::exec();
        }
    }
};

QTEST_GUILESS_MAIN(tst_SizeThread)
#include "tst_sizethread.moc"
