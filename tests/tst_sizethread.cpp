#include "pages/pagestate.h"
#include "workers/sizethread.h"
#include "testsupport.h"

#include <sys/resource.h>

namespace {

// The scanner's rule with the toolkit's own listing, in the file system's order (QDir::NoSort would sort by name).
quint64 referenceDirSize(const QString &path, QList<SourceFile> &list)
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
            list.append({QFile::encodeName(entry.absoluteFilePath()), quint64(entry.size())});
        }
    }
    return total;
}

// Makes a chain of levels folders named name below root, one at a time (the whole path is longer than PATH_MAX), with
// a folder "s" beside each, made before it or after it in turn, that holds a file leaf.qventry of level bytes, and
// last.qvindex of 9 bytes at the bottom. The expected files go to list. False on failure.
bool makeDeepTree(const QByteArray &root, const QByteArray &name, int levels, QList<SourceFile> &list)
{
    int fd = ::open(root.constData(), O_RDONLY | O_DIRECTORY);
    QByteArray path = root;
    const auto add = [&](int at, const char *file, int size) {
        const int out = ::openat(at, file, O_WRONLY | O_CREAT | O_EXCL, 0644);
        return out >= 0 && ::ftruncate(out, size) == 0 && ::close(out) == 0;
    };
    const auto side = [&](int level) {
        const int at = ::mkdirat(fd, "s", 0755) == 0 ? ::openat(fd, "s", O_RDONLY | O_DIRECTORY) : -1;
        list.append({path + "/s/leaf.qventry", quint64(level)});
        return at >= 0 && add(at, "leaf.qventry", level) && ::close(at) == 0;
    };
    for (int level = 1; level <= levels; ++level) {
        if (fd < 0 || (level % 2 && !side(level)) || ::mkdirat(fd, name.constData(), 0755) != 0 || (level % 2 == 0 && !side(level)))
            return false;
        const int next = ::openat(fd, name.constData(), O_RDONLY | O_DIRECTORY);
        ::close(fd);
        fd = next;
        path += '/' + name;
    }
    list.append({path + "/last.qvindex", 9});
    const bool ok = add(fd, "last.qvindex", 9);
    ::close(fd);
    return ok && path.size() > PATH_MAX;
}

int openDescriptors()
{
    return QDir("/proc/self/fd").entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System).size();
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
        QTest::addColumn<QStringList>("unreadable");   // the folders reported, in the order met
        QTest::newRow("complete suffix, case and all")
            << QStringList{"f|a.b.qventry|7", "f|qventry|7", "f|a.QVENTRY|7", "f|a.qventry.bak|7", "f|a.qventr|7",
                           "f|.qventry|11", "f|c.qvkentry|13", "f|b.qvindex|17", "f|d.qvkindex|19", "f|readme.txt|9"}
            << quint64(60) << 4 << QStringList();
        QTest::newRow("nested, hidden and empty")
            << QStringList{"f|d1/d2/d3/d4/x.qventry|5", "f|.hidden/y.qventry|7", "f|.hidden/.deeper/z.qvindex|9",
                           "f|d1/w.qvkentry|3", "d|empty", "f|z.qventry|0", "f|sub/e.qvkindex|0"}
            << quint64(24) << 6 << QStringList();
        QTest::newRow("links and special files")
            << QStringList{"f|real/x.qventry|100", "l|link.qventry|real/x.qventry", "l|linkdir|real", "l|loop|.",
                           "l|dangling.qventry|nowhere", "p|fifo.qventry", "s|socket.qventry"}
            << quint64(100) << 1 << QStringList();
        // The folder that cannot be opened is reported, not taken as empty. The folder that can be listed but not
        // entered shows its file, whose size cannot be read: it is listed with 0, so that copying it fails visibly.
        QTest::newRow("unreadable folders")
            << QStringList{"f|open/x.qventry|10", "f|closed/y.qventry|20", "f|closed/deeper/z.qventry|30",
                           "f|listonly/w.qventry|40", "f|last/v.qvindex|5", "m|closed|000", "m|listonly|444"}
            << quint64(15) << 3 << QStringList{"closed"};
    }

    // Every spelling of the folder's path gives the reference's total and list:
    // the same files, in the same order, with the same paths. Runs as an ordinary
    // user, for whom permissions hold.
    void walk()
    {
        QFETCH(QStringList, entries);
        QFETCH(quint64, total);
        QFETCH(int, count);
        QFETCH(QStringList, unreadable);
        if (!inChild())
            return runRowInChild({QString(), {asOrdinaryUser()}});
        QTemporaryDir dir;   // the child's own, gone with it
        QVERIFY(buildTree(dir.path(), QStringList{"l|alias|tree"} + entries.replaceInStrings(QRegularExpression("^(.)\\|"), "\\1|tree/")));
        QVERIFY(QDir::setCurrent(dir.path()));
        for (const QString &path : {dir.path() + "/tree", dir.path() + "/tree/", QString("tree"), QString("alias/../tree//"), QString("alias")}) {
            QList<SourceFile> list{{"/kept", 0}}, expected = list;
            QList<QByteArray> missed;
            QCOMPARE(SizeThread::dirSize(path, list, &missed), total);
            QCOMPARE(referenceDirSize(path, expected), total);
            QCOMPARE(list.size(), count + 1);
            QCOMPARE(paths(list), paths(expected));
            QStringList shown;
            for (const QByteArray &folder : missed)
                shown << QFile::decodeName(folder).remove(QDir::cleanPath(QFileInfo(path).absoluteFilePath()) + '/');
            QCOMPARE(shown, unreadable);
        }
        runProcess({"chmod", "-R", "u+rwx", dir.path()});
    }

    // A path that is not a folder walks nothing: missing, a file named like data, a pipe, the empty string.
    void nothingToWalk()
    {
        QTemporaryDir dir;
        QVERIFY(buildTree(dir.path(), {"f|file.qventry|10", "p|fifo"}));
        for (const QString &path : {dir.filePath("missing"), dir.filePath("file.qventry"), dir.filePath("fifo"), QString()}) {
            QList<SourceFile> list{{"/kept", 0}};
            QCOMPARE(SizeThread::dirSize(path, list), quint64(0));
            QCOMPARE(paths(list), QStringList{"/kept"});
        }
    }

    // Depth and names are no obstacle: a chain of folders far longer than PATH_MAX (deeper than the folders the walk
    // keeps open at once, with folders to come back to on the way up, whatever the file system's order) and a name that is not UTF-8 give every file,
    // its name as bytes, and leave no descriptor open.
    void beyondPathsAndNames()
    {
        QTemporaryDir dir;
        const QByteArray root = QFile::encodeName(dir.path());
        QList<SourceFile> expected;
        QVERIFY(makeDeepTree(root, QByteArray(60, 'd'), 80, expected));
        auto removeDeep = qScopeGuard([&] { runProcess({"rm", "-rf", dir.path()}); });   // deeper than the toolkit removes
        const QByteArray raw = root + "/\xff\xfe.qventry";
        const int fd = ::open(raw.constData(), O_WRONLY | O_CREAT, 0644);
        QVERIFY(fd >= 0 && ::write(fd, "12345", 5) == 5 && ::close(fd) == 0);
        expected.append({raw, 5});
        // Fewer descriptors than folders on the way down: the walk keeps no more than 64 open.
        const int open = openDescriptors();
        rlimit limit;
        QVERIFY(::getrlimit(RLIMIT_NOFILE, &limit) == 0);
        const rlimit fewer{rlim_t(open + 72), limit.rlim_max};
        QVERIFY(::setrlimit(RLIMIT_NOFILE, &fewer) == 0);
        QList<SourceFile> list;
        QList<QByteArray> missed;
        const quint64 total = SizeThread::dirSize(dir.path(), list, &missed);
        QVERIFY(::setrlimit(RLIMIT_NOFILE, &limit) == 0);
        QCOMPARE(total, quint64(80 * 81 / 2 + 9 + 5));
        QCOMPARE(openDescriptors(), open);
        QCOMPARE(missed, QList<QByteArray>());
        const auto byPath = [](const SourceFile &a, const SourceFile &b) { return a.path < b.path; };
        std::sort(list.begin(), list.end(), byPath);
        std::sort(expected.begin(), expected.end(), byPath);
        QCOMPARE(list.size(), expected.size());
        for (int i = 0; i < list.size(); ++i)
            QVERIFY(list[i].path == expected[i].path && list[i].size == expected[i].size);
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
