#include "pages/pagestate.h"
#include "testsupport.h"
#include "workers/copythread.h"

#include <QtTest>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const QString kNoFiles = QStringLiteral("The source database data files couldn't be found.");
const QDateTime kOld = QDateTime::fromSecsSinceEpoch(1000000000);

// Runs the event loop until worker's finished() arrives, as the page receives it: queued.
bool waitForEnd(CopyThread &worker, int timeoutMs)
{
    QEventLoop loop;
    QObject::connect(&worker, &QThread::finished, &loop, &QEventLoop::quit);
    QTimer::singleShot(timeoutMs, &loop, [&loop] { loop.exit(1); });
    if (!worker.isFinished())
        return loop.exec() == 0;
    QCoreApplication::sendPostedEvents();   // its reports may still wait in the queue
    return true;
}

} // namespace

class tst_CopyThread : public QObject
{
    Q_OBJECT

private slots:
    void init() { sResultList.clear(); sCopyFiles = false; }

    void transfer_data()
    {
        QTest::addColumn<bool>("move");
        QTest::addColumn<QStringList>("listed");   // below the source; "-" before a name: listed but missing
        QTest::addColumn<QString>("destination");  // below the scratch folder, as the page holds it
        QTest::addColumn<int>("done");             // files reported done, each after a result 0
        QTest::addColumn<QString>("failure");      // the message of the closing -100 result, "" for none
        QTest::addColumn<QStringList>("arrived");  // the destination's files afterwards
        QTest::addColumn<QStringList>("leftAtSource");
        QTest::addColumn<bool>("cancelFirst");     // cancelled before it starts

        const QStringList three{"a/x.qventry", "b/c/y.qvindex", "z.qvkentry"}, flat{"x.qventry", "y.qvindex", "z.qvkentry"};
        const QStringList z{"z.qvkentry"}, twice{"z.qvkentry", "z.qvkentry"};
        const QString noSuch = "Error message is:\n%1: cannot stat '@/src/%2': No such file or directory\n";
        QTest::newRow("nothing to transfer") << false << QStringList() << "dest" << 0 << "" << QStringList() << QStringList() << false;
        QTest::newRow("copy: flat, in list order") << false << three << "dest" << 3 << "" << flat << three << false;
        QTest::newRow("move") << true << three << "dest" << 3 << "" << flat << QStringList() << false;
        QTest::newRow("cancelled before it starts") << false << three << "dest" << 0 << "" << QStringList() << three << true;
        QTest::newRow("failure at the second file: the first stays, the third is not tried")
            << false << QStringList{"a/x.qventry", "-gone.qventry", "z.qvkentry"} << "dest" << 1
            << noSuch.arg("/bin/cp", "gone.qventry") << QStringList{"x.qventry"} << QStringList{"a/x.qventry", "z.qvkentry"} << false;
        QTest::newRow("the same file twice, copied, into a destination ending in /")
            << false << twice << "dest/" << 2 << "" << z << z << false;
        QTest::newRow("the same file twice, moved: a failure keeps the moved file")
            << true << twice << "dest" << 1 << noSuch.arg("/bin/mv", "z.qvkentry") << z << QStringList() << false;
    }

    void transfer()
    {
        QFETCH(bool, move);
        QFETCH(QStringList, listed);
        QFETCH(QString, destination);
        QFETCH(int, done);
        QFETCH(QString, failure);
        QFETCH(QStringList, arrived);
        QFETCH(QStringList, leftAtSource);
        QFETCH(bool, cancelFirst);
        QTemporaryDir scratch;
        const QString source = scratch.filePath("src");
        QVERIFY(QDir().mkpath(scratch.filePath("dest")));
        for (const QString &name : listed) {
            const QString path = source + '/' + name.mid(name.startsWith('-') ? 1 : 0);
            QFile file(path);
            if (!name.startsWith('-') && !file.exists())
                QVERIFY(makeFile(path, 1000 + path.size()) && file.open(QIODevice::ReadWrite) && file.setPermissions(QFileDevice::Permissions(0x6440))
                        && file.setFileTime(kOld, QFileDevice::FileModificationTime));
            sResultList << QFileInfo(path);
        }
        sCopyFiles = move;
        CopyThread worker(nullptr, scratch.filePath(destination));
        sCopyFiles = !move;   // the choice was taken when the worker was made
        QCOMPARE(worker.getPath(), scratch.filePath(destination));
        // Received queued, as the page receives them; a worker cancelled before it starts transfers nothing.
        QStringList events, expected{"result -100 " + kNoFiles};
        connect(&worker, &CopyThread::copyResult, &worker,
                [&](int code, const QString &message) { events << QStringLiteral("result %1 %2").arg(code).arg(message); });
        connect(&worker, &CopyThread::copiedFile, &worker, [&](int n) { events << QStringLiteral("copied %1").arg(n); });
        for (int n = 1; n <= done; ++n)
            expected << "result 0 " << QStringLiteral("copied %1").arg(n);
        if (!failure.isEmpty())
            expected << "result -100 " + QString(failure).replace('@', scratch.path());
        if (cancelFirst)
            worker.cancel();
        worker.start();
        QVERIFY(waitForEnd(worker, 30000));
        QCOMPARE(events, expected);

        QDir dest(scratch.filePath("dest"));
        QCOMPARE(dest.entryList(QDir::Files), arrived);
        for (const QFileInfo &copy : dest.entryInfoList(QDir::Files))   // "-p" keeps the mode and the time; the file is whole
            QVERIFY((copy.permissions() & 0x0fff) == 0x0640 && copy.lastModified() == kOld && copy.size() > 1000);
        QStringList left;
        for (const char *name : {"a/x.qventry", "b/c/y.qvindex", "z.qvkentry"})
            left << (QFileInfo::exists(source + '/' + name) ? name : "");
        left.removeAll("");
        QCOMPARE(left, leftAtSource);
    }

    void cancelInTheMiddleOfAFile_data()
    {
        QTest::addColumn<bool>("byDestruction");
        QTest::newRow("cancel") << false;
        QTest::newRow("destroyed while it runs") << true;
    }

    // A named pipe stands for a file too large to finish: this test holds it open,
    // so the copy program that reads it never reaches its end.
    void cancelInTheMiddleOfAFile()
    {
        QFETCH(bool, byDestruction);
        QTemporaryDir scratch;
        const QString first = scratch.filePath("src/first.qventry"), endless = scratch.filePath("src/endless.qventry");
        const QString dest = scratch.filePath("dest");
        QVERIFY(makeFile(first, 100) && QDir().mkpath(dest) && mkfifo(QFile::encodeName(endless).constData(), 0644) == 0);
        const int pipe = ::open(QFile::encodeName(endless).constData(), O_RDWR);
        auto closePipe = qScopeGuard([pipe] { ::close(pipe); });
        sResultList << QFileInfo(first) << QFileInfo(endless) << QFileInfo(first);

        auto *worker = new CopyThread(nullptr, dest);
        int copied = 0;
        QObject::connect(worker, &CopyThread::copiedFile, worker, [&copied](int n) { copied = n; });
        worker->start();
        const QByteArray data(1000000, 'x');
        QCOMPARE(::write(pipe, data.constData(), size_t(data.size())), ssize_t(data.size()));   // read by the copy program
        QTRY_VERIFY_WITH_TIMEOUT(QFileInfo(dest + "/endless.qventry").size() == data.size(), 60000);
        const QList<pid_t> copying = processesMentioning(endless);
        QCOMPARE(fileBytes(QStringLiteral("/proc/%1/cmdline").arg(copying.value(0))).split('\0'),
                 (QList<QByteArray>{"/bin/cp", "-pf", QFile::encodeName(endless), QFile::encodeName(dest) + '/', ""}));
        if (byDestruction) {
            delete worker;
            worker = nullptr;
        } else {
            worker->cancel();
            QVERIFY(waitForEnd(*worker, 60000));
        }

        // A destroyed worker's queued reports are dropped with it; a cancelled one's arrive.
        QCoreApplication::processEvents();
        QVERIFY(byDestruction || copied == 1);
        QCOMPARE(QDir(dest).entryList(QDir::Files), QStringList{"first.qventry"});
        QCOMPARE(processesMentioning(scratch.path()), QList<pid_t>());   // no copy program left
        delete worker;
    }
};

QTEST_GUILESS_MAIN(tst_CopyThread)
#include "tst_copythread.moc"
