#include "pages/pagestate.h"
#include "workers/sizethread.h"
#include "testsupport.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QPointer>
#include <QProcess>
#include <QTimer>
#include <QtTest>

#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// The scanner's rule written out with the toolkit's own directory listing:
// the reference that the scanner's results must equal, entry for entry.
quint64 referenceDirSize(const QString &path, QList<QFileInfo> &list)
{
    if (!QFileInfo(path).isDir())
        return 0;
    // Unsorted, in the file system's order (NoSort here would mean QDir's default, by name).
    const QFileInfoList entries = QDir(path).entryInfoList(
        QDir::Dirs | QDir::Files | QDir::NoSymLinks | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Unsorted);
    quint64 total = 0;
    for (const QFileInfo &entry : entries) {
        if (entry.isDir()) {
            total += referenceDirSize(entry.absoluteFilePath(), list);
            continue;
        }
        const QString suffix = entry.completeSuffix();
        for (const char *data : {"qventry", "qvkentry", "qvindex", "qvkindex"}) {
            if (suffix == QLatin1String(data)) {
                total += quint64(entry.size());
                list.append(entry);
                break;
            }
        }
    }
    return total;
}

QStringList paths(const QList<QFileInfo> &list)
{
    QStringList out;
    for (const QFileInfo &info : list)
        out << info.filePath();
    return out;
}

// Builds a tree from lines "kind|relative path|argument": f file (size),
// d folder, l symbolic link (target), p FIFO, s socket, m chmod (octal mode).
bool buildTree(const QString &root, const QStringList &entries)
{
    for (const QString &line : entries) {
        const QStringList part = line.split(QLatin1Char('|'));
        const QString path = root + QLatin1Char('/') + part.value(1);
        const QByteArray native = QFile::encodeName(path);
        QDir().mkpath(QFileInfo(path).absolutePath());
        bool ok = true;
        switch (part.value(0).at(0).toLatin1()) {
        case 'f': ok = makeFile(path, part.value(2).toLongLong()); break;
        case 'd': ok = QDir().mkpath(path); break;
        case 'l': ok = ::symlink(QFile::encodeName(part.value(2)).constData(), native.constData()) == 0; break;
        case 'p': ok = ::mkfifo(native.constData(), 0644) == 0; break;
        case 'm': ok = ::chmod(native.constData(), mode_t(part.value(2).toUInt(nullptr, 8))) == 0; break;
        case 's': {
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
            ok = native.size() < int(sizeof address.sun_path) && fd >= 0;
            if (ok) {
                std::memcpy(address.sun_path, native.constData(), size_t(native.size()));
                ok = ::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
            }
            if (fd >= 0)
                ::close(fd);
            break;
        }
        default: ok = false;
        }
        if (!ok) {
            qWarning("could not build %s", qPrintable(line));
            return false;
        }
    }
    return true;
}

// Collects pathSize on the receiver's (this) thread, as the pages do.
struct ResultLog : QObject {
    QStringList paths;
    QList<quint64> totals;
    QList<int> listSizes;   // sResultList's size as each result arrived
    void watch(SizeThread *scan)
    {
        connect(scan, &SizeThread::pathSize, this, [this](const QString &path, quint64 total) {
            paths << path;
            totals << total;
            listSizes << sResultList.size();
        });
    }
};

} // namespace

class tst_SizeThread : public QObject
{
    Q_OBJECT

private slots:
    void walk_data();
    void walk();
    void nothingToWalk_data();
    void nothingToWalk();
    void sampleDatabase();
    void deepestPath();
    void unreadableFolders();
    void vanishingTree();

    void scansAppendWholeBlocks();
    void destroyStopsTheWalk_data();
    void destroyStopsTheWalk();
    void waitForScans_data();
    void waitForScans();

private:
    QString bigTree();

    QTemporaryDir m_big{scratchTemplate(QStringLiteral("tst_sizethread"))};   // a tree that takes a while to walk, made on first use
    quint64 m_bigTotal = 0;
    qint64 m_bigWalkMs = 0;
};

QString tst_SizeThread::bigTree()
{
    if (m_bigTotal == 0 && buildWideTree(m_big.path(), 100, 300)) {
        QList<QFileInfo> list;
        SizeThread::dirSize(m_big.path(), list);   // warms the cache
        QElapsedTimer timer;
        timer.start();
        m_bigTotal = SizeThread::dirSize(m_big.path(), list);
        m_bigWalkMs = timer.elapsed();
    }
    return m_big.path();
}

void tst_SizeThread::walk_data()
{
    QTest::addColumn<QStringList>("entries");
    QTest::addColumn<quint64>("total");
    QTest::addColumn<int>("count");

    QTest::newRow("data files among others") << QStringList{"f|x.qventry|1000", "f|y.qvkindex|500", "f|readme.txt|9000"}
                                            << quint64(1500) << 2;
    QTest::newRow("complete suffix, case and all")
        << QStringList{"f|a.b.qventry|7", "f|qventry|7", "f|a.QVENTRY|7", "f|a.qventry.bak|7", "f|a.qventr|7",
                       "f|.qventry|11", "f|c.qvkentry|13", "f|b.qvindex|17", "f|d.qvkindex|19"}
        << quint64(60) << 4;
    QTest::newRow("nested and hidden folders")
        << QStringList{"f|d1/d2/d3/d4/x.qventry|5", "f|.hidden/y.qventry|7", "f|.hidden/.deeper/z.qvindex|9",
                       "f|d1/w.qvkentry|3", "d|empty"}
        << quint64(24) << 4;
    QTest::newRow("links and special files")
        << QStringList{"f|real/x.qventry|100", "l|link.qventry|real/x.qventry", "l|linkdir|real", "l|loop|.",
                       "l|dangling.qventry|nowhere", "p|fifo.qventry", "s|socket.qventry"}
        << quint64(100) << 1;
    QTest::newRow("empty data files are listed")
        << QStringList{"f|z.qventry|0", "f|w.qvindex|3", "f|sub/e.qvkindex|0"} << quint64(3) << 3;
    QTest::newRow("awkward names")
        << QStringList{"f|a b.qventry|1", "f|'q\".qventry|2", "f|-x.qventry|4", "f|\u00fcn\u00ef \u6570.qventry|8",
                       "f|new\nline.qventry|16", "f|*?[.qvindex|32", "f|-rf/ --/.qventry|64"}
        << quint64(127) << 7;
    QTest::newRow("empty folder") << QStringList{} << quint64(0) << 0;
}

// Every spelling of the folder's path gives the reference's total and list:
// the same files, in the same order, with the same paths.
void tst_SizeThread::walk()
{
    QFETCH(QStringList, entries);
    QFETCH(quint64, total);
    QFETCH(int, count);

    QTemporaryDir dir;
    const QString tree = dir.path() + QStringLiteral("/tree");
    QVERIFY(QDir().mkpath(tree));
    QVERIFY(buildTree(tree, entries));
    QVERIFY(::symlink("tree", QFile::encodeName(dir.path() + QStringLiteral("/alias"))) == 0);
    const QString cwd = QDir::currentPath();
    QVERIFY(QDir::setCurrent(dir.path()));
    auto restore = qScopeGuard([&] { QDir::setCurrent(cwd); });

    const QStringList spellings{tree, tree + QStringLiteral("/"), QStringLiteral("tree"),
                                QStringLiteral("alias/../tree//"), QStringLiteral("alias"), QStringLiteral("./tree")};
    for (const QString &path : spellings) {
        QList<QFileInfo> list{QFileInfo(QStringLiteral("/kept"))};
        QList<QFileInfo> expected = list;
        QCOMPARE(SizeThread::dirSize(path, list), total);
        QCOMPARE(referenceDirSize(path, expected), total);
        QCOMPARE(list.size(), count + 1);
        QCOMPARE(paths(list), paths(expected));
    }
}

void tst_SizeThread::nothingToWalk_data()
{
    QTest::addColumn<QString>("path");
    QTest::newRow("missing") << QStringLiteral("missing");
    QTest::newRow("plain file named like data") << QStringLiteral("file.qventry");
    QTest::newRow("empty string") << QString();
    QTest::newRow("link to a file") << QStringLiteral("filelink");
    QTest::newRow("FIFO") << QStringLiteral("fifo");
}

void tst_SizeThread::nothingToWalk()
{
    QFETCH(QString, path);
    QTemporaryDir dir;
    QVERIFY(buildTree(dir.path(), {"f|file.qventry|10", "l|filelink|file.qventry", "p|fifo"}));
    QList<QFileInfo> list{QFileInfo(QStringLiteral("/kept"))};
    QCOMPARE(SizeThread::dirSize(path.isEmpty() ? path : dir.path() + QLatin1Char('/') + path, list), quint64(0));
    QCOMPARE(paths(list), QStringList{QStringLiteral("/kept")});
}

// The generator's own count of its data files and bytes, decoys and all.
void tst_SizeThread::sampleDatabase()
{
    QTemporaryDir dir;
    const QString tree = dir.path() + QStringLiteral("/VELDV400");
    const ProcessResult made = runProcess(QStringLiteral(VELD_MAKE_SAMPLE),
                                          {QStringLiteral("--files"), QStringLiteral("500"), QStringLiteral("--bytes"),
                                           QStringLiteral("5M"), QStringLiteral("--depth"), QStringLiteral("4"), tree});
    QCOMPARE(made.exitCode, 0);
    const QRegularExpressionMatch m =
        QRegularExpression(QStringLiteral("data_files=(\\d+) data_bytes=(\\d+)")).match(made.out);
    QVERIFY(m.hasMatch());
    QList<QFileInfo> list, expected;
    QCOMPARE(SizeThread::dirSize(tree, list), m.captured(2).toULongLong());
    QCOMPARE(list.size(), m.captured(1).toInt());
    referenceDirSize(tree, expected);
    QCOMPARE(paths(list), paths(expected));
}

// A data file at the end of the longest path the system accepts is found;
// below it, where paths grow too long to name, the walk finds nothing and ends.
void tst_SizeThread::deepestPath()
{
    QTemporaryDir dir;
    const QByteArray top = QFile::encodeName(dir.path());
    const QByteArray file = "/x.qventry";
    const long pathMax = ::pathconf(top.constData(), _PC_PATH_MAX);   // includes the terminating null
    int fd = ::open(top.constData(), O_RDONLY | O_DIRECTORY);
    QVERIFY(fd >= 0);
    QByteArray deepest = top;
    int levels = 0;
    int reachable = 0;
    // Built with *at() calls, one level at a time, so it can go past the limit.
    while (deepest.size() + 2 + file.size() < pathMax + 40) {
        QVERIFY(::mkdirat(fd, "d", 0755) == 0);
        const int sub = ::openat(fd, "d", O_RDONLY | O_DIRECTORY);
        QVERIFY(sub >= 0);
        if (deepest.size() + 2 + file.size() <= pathMax - 1) {
            const int data = ::openat(sub, "x.qventry", O_CREAT | O_WRONLY, 0644);
            QVERIFY(data >= 0 && ::ftruncate(data, levels + 1) == 0);
            ::close(data);
            ++reachable;
        }
        ::close(fd);
        fd = sub;
        deepest += "/d";
        ++levels;
    }
    ::close(fd);
    auto cleanup = qScopeGuard([&] { runProcess(QStringLiteral("rm"), {QStringLiteral("-rf"), dir.path()}); });

    QList<QFileInfo> list;
    const quint64 total = SizeThread::dirSize(dir.path(), list);
    QCOMPARE(list.size(), reachable);
    QVERIFY(reachable < levels);
    QVERIFY(QFile::encodeName(list.last().filePath()).size() >= pathMax - 2);
    QCOMPARE(total, quint64(reachable) * quint64(reachable + 1) / 2);
}

// Runs the folder cases as an ordinary user, for whom permissions hold.
void tst_SizeThread::unreadableFolders()
{
    if (::geteuid() == 0) {
        const QStringList command =
            asUnprivilegedUser(QCoreApplication::applicationFilePath(), {QStringLiteral("unreadableFolders")});
        const ProcessResult run = runProcess(command.first(), command.mid(1));
        QVERIFY2(run.exitCode == 0, qPrintable(run.out + run.err));
        QVERIFY(run.out.contains(QStringLiteral("PASS   : tst_SizeThread::unreadableFolders()")));
        return;
    }
    QTemporaryDir dir;
    QVERIFY(buildTree(dir.path(), {"f|open/x.qventry|10", "f|closed/y.qventry|20", "f|closed/deeper/z.qventry|30",
                                   "f|listonly/w.qventry|40", "f|last/v.qvindex|5", "m|closed|000", "m|listonly|444"}));
    auto reopen = qScopeGuard([&] {
        ::chmod(QFile::encodeName(dir.path() + QStringLiteral("/closed")).constData(), 0755);
        ::chmod(QFile::encodeName(dir.path() + QStringLiteral("/listonly")).constData(), 0755);
    });
    QList<QFileInfo> list, expected;
    // The folder that can be listed but not entered shows its file, whose size
    // cannot be read: it is listed with 0, so that copying it fails visibly.
    QCOMPARE(SizeThread::dirSize(dir.path(), list), quint64(15));
    QCOMPARE(referenceDirSize(dir.path(), expected), quint64(15));
    QCOMPARE(paths(list), paths(expected));
    QCOMPARE(list.size(), 3);
}

// A tree removed while it is walked: the scan still ends, with no more than the whole.
void tst_SizeThread::vanishingTree()
{
    QTemporaryDir dir(scratchTemplate(QStringLiteral("tst_sizethread")));
    QVERIFY(buildWideTree(dir.path(), 50, 200));
    const quint64 whole = 50 * 133;
    QProcess remover;
    auto *scan = new SizeThread(nullptr, dir.path());
    ResultLog log;
    log.watch(scan);
    const int before = sResultList.size();
    scan->start();
    remover.start(QStringLiteral("rm"), {QStringLiteral("-rf"), dir.path()});
    QVERIFY(SizeThread::waitForScans());
    QVERIFY(remover.state() == QProcess::NotRunning || remover.waitForFinished(60000));
    QCOMPARE(log.totals.size(), 1);
    QVERIFY(log.totals.first() <= whole);
    QVERIFY(sResultList.size() - before <= int(whole));
    delete scan;
    QList<QFileInfo> list;
    QCOMPARE(SizeThread::dirSize(dir.path(), list), quint64(0));
}

// Scans that overlap, and scans that follow one another, each add one block:
// their own files in their own walk order, never mixed with another's. A
// receiver of a scan's result finds the scan's block already listed.
void tst_SizeThread::scansAppendWholeBlocks()
{
    QTemporaryDir dir;
    QList<QStringList> walked;
    for (int i = 0; i < 4; ++i) {
        const QString tree = dir.path() + QStringLiteral("/t%1").arg(i);
        QVERIFY(buildWideTree(tree, 20 + 10 * i, 50));
        QList<QFileInfo> list;
        SizeThread::dirSize(tree, list);
        walked << paths(list);
    }
    for (const bool overlapping : {true, false}) {
        const int before = sResultList.size();
        ResultLog log;
        QList<SizeThread *> scans;
        for (int i = 0; i < 4; ++i) {
            scans << new SizeThread(nullptr, dir.path() + QStringLiteral("/t%1").arg(i));
            log.watch(scans.last());
            scans.last()->start();
            if (!overlapping)
                QVERIFY(SizeThread::waitForScans());
        }
        QVERIFY(SizeThread::waitForScans());
        qDeleteAll(scans);
        QCOMPARE(log.paths.size(), 4);
        // Which scan's block comes next is told by its first entry's folder.
        QStringList order;
        for (int at = before; at < sResultList.size();) {
            const QString first = sResultList.at(at).filePath();
            const QString tree = first.left(first.indexOf(QLatin1Char('/'), dir.path().size() + 1));
            order << tree;
            const QStringList &block = walked.at(tree.right(1).toInt());
            QCOMPARE(paths(sResultList.mid(at, block.size())), block);
            at += block.size();
        }
        QCOMPARE(order.size(), 4);
        if (!overlapping) {
            QCOMPARE(order, (QStringList{dir.path() + "/t0", dir.path() + "/t1", dir.path() + "/t2", dir.path() + "/t3"}));
            for (int i = 0, listed = before; i < 4; ++i)
                QCOMPARE(log.listSizes.at(i), listed += walked.at(i).size());
        }
    }
}

void tst_SizeThread::destroyStopsTheWalk_data()
{
    QTest::addColumn<bool>("cancelFirst");
    QTest::newRow("deleted while walking") << false;
    QTest::newRow("cancelled, then deleted") << true;
}

// Deleting a scanner mid-walk ends its thread long before the walk would have
// ended, and the interrupted scan leaves no trace: no result, no files listed.
void tst_SizeThread::destroyStopsTheWalk()
{
    QFETCH(bool, cancelFirst);
    const QString tree = bigTree();
    QCOMPARE(m_bigTotal, quint64(100 * 200));
    QVERIFY2(m_bigWalkMs >= 20, "the tree is too small to interrupt");
    const int before = sResultList.size();
    auto *scan = new SizeThread(nullptr, tree);
    ResultLog log;
    log.watch(scan);
    scan->start();
    QThread::msleep(quint64(m_bigWalkMs / 8));
    QVERIFY(SizeThread::scansPending());
    if (cancelFirst) {
        scan->cancel();
        QVERIFY(SizeThread::waitForScans());
    }
    QElapsedTimer timer;
    timer.start();
    delete scan;
    const qint64 stopMs = timer.elapsed();
    QCoreApplication::processEvents();
    QVERIFY2(stopMs * 4 < m_bigWalkMs, qPrintable(QStringLiteral("%1 ms to stop, %2 ms to walk").arg(stopMs).arg(m_bigWalkMs)));
    QVERIFY(!SizeThread::scansPending());
    QVERIFY(log.totals.isEmpty());
    QCOMPARE(sResultList.size(), before);
}

void tst_SizeThread::waitForScans_data()
{
    QTest::addColumn<QString>("during");
    QTest::addColumn<bool>("settled");
    QTest::newRow("nothing running") << QString() << true;
    QTest::newRow("a scan running") << QStringLiteral("scan") << true;
    QTest::newRow("deleted meanwhile") << QStringLiteral("delete") << true;
    QTest::newRow("application quits meanwhile") << QStringLiteral("quit") << false;
}

// The wait keeps the event loop turning and ends when the scan has delivered
// its result, or at once when the application quits.
void tst_SizeThread::waitForScans()
{
    QFETCH(QString, during);
    QFETCH(bool, settled);
    QPointer<SizeThread> scan;
    ResultLog log;
    if (!during.isEmpty()) {
        scan = new SizeThread(nullptr, bigTree());
        log.watch(scan);
        scan->start();
    }
    int turns = 0;
    QTimer ticker;
    connect(&ticker, &QTimer::timeout, [&] {
        if (++turns == 1 && during == QLatin1String("delete"))
            delete scan;
        if (turns == 1 && during == QLatin1String("quit"))
            QCoreApplication::quit();
    });
    ticker.start(0);
    QCOMPARE(SizeThread::waitForScans(), settled);
    QCOMPARE(SizeThread::scansPending(), !settled);
    if (during == QLatin1String("scan")) {
        QVERIFY(turns > 0);
        QCOMPARE(log.totals, QList<quint64>{m_bigTotal});
    }
    delete scan;
    QVERIFY(!SizeThread::scansPending());
    if (!settled) {
        // The quit stays in force for every later event loop until the
        // application's own loop has run once more.
        QTimer::singleShot(0, QCoreApplication::instance(), &QCoreApplication::quit);
        QCoreApplication::exec();
    }
}

QTEST_GUILESS_MAIN(tst_SizeThread)
#include "tst_sizethread.moc"
