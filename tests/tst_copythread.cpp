#include "pages/pagestate.h"
#include "testsupport.h"
#include "workers/copythread.h"

#include <QDir>
#include <QFileInfo>
#include <QEventLoop>
#include <QTimer>
#include <QtTest>

#include <sys/stat.h>
#include <unistd.h>

namespace {

const QString kNoFiles = QStringLiteral("The source database data files couldn't be found.");

// The children of this process that run the given program.
int childrenRunning(const QString &program)
{
    int found = 0;
    for (const QString &entry : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        QFile stat(QStringLiteral("/proc/%1/stat").arg(entry));
        QFile cmdline(QStringLiteral("/proc/%1/cmdline").arg(entry));
        if (!stat.open(QIODevice::ReadOnly) || !cmdline.open(QIODevice::ReadOnly))
            continue;
        const QList<QByteArray> fields = stat.readAll().split(' ');
        if (fields.size() > 3 && fields[3].toInt() == getpid() && cmdline.readAll().startsWith(QFile::encodeName(program)))
            ++found;
    }
    return found;
}

// Runs the event loop until worker's finished() arrives, as the page receives it: queued.
bool waitForEnd(CopyThread &worker, int timeoutMs)
{
    QEventLoop loop;
    QObject::connect(&worker, &QThread::finished, &loop, &QEventLoop::quit);
    QTimer::singleShot(timeoutMs, &loop, [&loop] { loop.exit(1); });
    if (worker.isFinished()) {
        // Its reports may still wait in the queue.
        QCoreApplication::sendPostedEvents();
        return true;
    }
    return loop.exec() == 0;
}

// Everything the worker reported, in order, as the page receives it.
QStringList runWorker(CopyThread &worker)
{
    QStringList events;
    QObject::connect(&worker, &CopyThread::copyResult, &worker, [&](int code, const QString &message) {
        events << QStringLiteral("result %1 %2").arg(code).arg(message);
    });
    QObject::connect(&worker, &CopyThread::copiedFile, &worker,
                     [&](int n) { events << QStringLiteral("copied %1").arg(n); });
    worker.start();
    if (!waitForEnd(worker, 30000))
        events << QStringLiteral("(no end)");
    return events;
}

} // namespace

class tst_CopyThread : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void transfer_data();
    void transfer();
    void cancelInTheMiddleOfAFile_data();
    void cancelInTheMiddleOfAFile();

private:
    QTemporaryDir m_dir;
};

void tst_CopyThread::init()
{
    sResultList.clear();
    sCopyFiles = false;
}

void tst_CopyThread::transfer_data()
{
    QTest::addColumn<bool>("move");
    QTest::addColumn<QStringList>("listed");     // below the source; "-" before a name: listed but missing
    QTest::addColumn<QString>("destination");    // below the scratch folder, as the page holds it
    QTest::addColumn<QStringList>("events");
    QTest::addColumn<QStringList>("arrived");    // the destination's files afterwards
    QTest::addColumn<QStringList>("leftAtSource");

    const QString start = QStringLiteral("result -100 ") + kNoFiles;
    const QString ok = QStringLiteral("result 0 ");
    const QStringList three{"a/x.qventry", "b/c/y.qvindex", "z.qvkentry"};
    QTest::newRow("nothing to transfer") << false << QStringList() << "dest" << QStringList{start} << QStringList()
                                         << QStringList();
    QTest::newRow("copy: flat, in list order") << false << three << "dest"
        << QStringList{start, ok, "copied 1", ok, "copied 2", ok, "copied 3"}
        << QStringList{"x.qventry", "y.qvindex", "z.qvkentry"} << three;
    QTest::newRow("move") << true << three << "dest" << QStringList{start, ok, "copied 1", ok, "copied 2", ok, "copied 3"}
                          << QStringList{"x.qventry", "y.qvindex", "z.qvkentry"} << QStringList();
    QTest::newRow("destination ending in /") << false << QStringList{"z.qvkentry"} << "dest/"
                                             << QStringList{start, ok, "copied 1"} << QStringList{"z.qvkentry"}
                                             << QStringList{"z.qvkentry"};
    QTest::newRow("failure at the second file: the first stays, the third is not tried") << false
        << QStringList{"a/x.qventry", "-gone.qventry", "z.qvkentry"} << "dest"
        << QStringList{start, ok, "copied 1",
                       "result -100 Error message is:\n/bin/cp: cannot stat '@/src/gone.qventry': No such file or directory\n"}
        << QStringList{"x.qventry"} << QStringList{"a/x.qventry", "z.qvkentry"};
    QTest::newRow("the same file twice, copied") << false << QStringList{"z.qvkentry", "z.qvkentry"} << "dest"
                                                 << QStringList{start, ok, "copied 1", ok, "copied 2"}
                                                 << QStringList{"z.qvkentry"} << QStringList{"z.qvkentry"};
    QTest::newRow("the same file twice, moved") << true << QStringList{"z.qvkentry", "z.qvkentry"} << "dest"
        << QStringList{start, ok, "copied 1",
                       "result -100 Error message is:\n/bin/mv: cannot stat '@/src/z.qvkentry': No such file or directory\n"}
        << QStringList{"z.qvkentry"} << QStringList();
    QTest::newRow("no destination folder") << false << QStringList{"z.qvkentry"} << "none"
        << QStringList{start, "result -100 Error message is:\n/bin/cp: cannot create regular file '@/none/': Not a directory\n"}
        << QStringList() << QStringList{"z.qvkentry"};
}

void tst_CopyThread::transfer()
{
    QFETCH(bool, move);
    QFETCH(QStringList, listed);
    QFETCH(QString, destination);
    QFETCH(QStringList, events);
    QFETCH(QStringList, arrived);
    QFETCH(QStringList, leftAtSource);
    QTemporaryDir scratch;
    const QString source = scratch.filePath(QStringLiteral("src"));
    QVERIFY(QDir().mkpath(scratch.filePath(QStringLiteral("dest"))));
    for (const QString &name : listed) {
        const bool missing = name.startsWith('-');
        const QString path = source + '/' + name.mid(missing ? 1 : 0);
        if (!missing && !QFileInfo::exists(path)) {
            QVERIFY(makeFile(path, 1000 + path.size()));
            QVERIFY(QFile::setPermissions(path, QFileDevice::Permissions(0x6440)));
        }
        sResultList << QFileInfo(path);
    }
    sCopyFiles = move;
    CopyThread worker(nullptr, scratch.filePath(destination));
    sCopyFiles = !move;   // the choice was taken when the worker was made
    QCOMPARE(worker.getPath(), scratch.filePath(destination));
    QStringList expected;
    for (const QString &event : events)
        expected << QString(event).replace('@', scratch.path());
    QCOMPARE(runWorker(worker), expected);

    QDir dest(scratch.filePath(QStringLiteral("dest")));
    QCOMPARE(dest.entryList(QDir::Files), arrived);
    for (const QString &name : arrived) {
        const QFileInfo copy(dest.filePath(name));
        // "-p" keeps the mode; the file is whole.
        QCOMPARE(copy.permissions() & 0x0fff, QFileDevice::Permissions(0x0640));
        QVERIFY(copy.size() > 1000);
    }
    QStringList left;
    for (const QString &name : QStringList{"a/x.qventry", "b/c/y.qvindex", "z.qvkentry"})
        if (QFileInfo::exists(source + '/' + name))
            left << name;
    QCOMPARE(left, leftAtSource);
}

void tst_CopyThread::cancelInTheMiddleOfAFile_data()
{
    QTest::addColumn<bool>("byDestruction");
    QTest::newRow("cancel") << false;
    QTest::newRow("destroyed while it runs") << true;
}

// A named pipe stands for a file too large to finish: the copy program reads it for as
// long as the writer keeps it open.
void tst_CopyThread::cancelInTheMiddleOfAFile()
{
    QFETCH(bool, byDestruction);
    QTemporaryDir scratch;
    const QString first = scratch.filePath(QStringLiteral("src/first.qventry"));
    const QString endless = scratch.filePath(QStringLiteral("src/endless.qventry"));
    const QString dest = scratch.filePath(QStringLiteral("dest"));
    QVERIFY(makeFile(first, 100));
    QVERIFY(QDir().mkpath(dest));
    QCOMPARE(mkfifo(QFile::encodeName(endless).constData(), 0644), 0);
    sResultList << QFileInfo(first) << QFileInfo(endless) << QFileInfo(first);
    QProcess writer;
    writer.start(QStringLiteral("sh"), {"-c", "head -c 1000000 /dev/zero > \"$1\" & exec sleep 60 > \"$1\"", "sh", endless});

    auto *worker = new CopyThread(nullptr, dest);
    int copied = 0;
    QObject::connect(worker, &CopyThread::copiedFile, worker, [&copied](int n) { copied = n; });
    worker->start();
    const QString partial = dest + QStringLiteral("/endless.qventry");
    QTRY_VERIFY_WITH_TIMEOUT(QFileInfo(partial).size() >= 1000000, 20000);
    QElapsedTimer clock;
    clock.start();
    if (byDestruction) {
        delete worker;
        worker = nullptr;
    } else {
        worker->cancel();
        QVERIFY(waitForEnd(*worker, 5000));
    }
    QVERIFY2(clock.elapsed() < 2000, qPrintable(QString::number(clock.elapsed())));
    writer.kill();
    writer.waitForFinished();

    // A destroyed worker's queued reports are dropped with it; a cancelled one's arrive.
    QCoreApplication::processEvents();
    if (!byDestruction)
        QCOMPARE(copied, 1);
    QCOMPARE(QDir(dest).entryList(QDir::Files), QStringList{"first.qventry"});
    QCOMPARE(childrenRunning(QStringLiteral("/bin/cp")), 0);
    delete worker;
}

QTEST_GUILESS_MAIN(tst_CopyThread)
#include "tst_copythread.moc"
