#include "pages/pagestate.h"
#include "testsupport.h"
#include "workers/copythread.h"

static const QDateTime kOld = QDateTime::fromSecsSinceEpoch(1000000000);

class tst_CopyThread : public QObject
{
    Q_OBJECT

private slots:
    void init() { sSourceFiles.clear(); sCopyFiles = false; }

    void transfer_data()
    {
        QTest::addColumn<QString>("how");           // "copy" or "move", "into dest/" (the page's other spelling), and
                                                    // "cancelled first", "cancelled", "destroyed" or "killed in the pipe", "no program"
        QTest::addColumn<QStringList>("listed");    // below the source; "-" before a name: listed but missing; "|": a pipe
        QTest::addColumn<int>("done");              // files reported done, each after a result 0
        QTest::addColumn<QString>("failure");       // the message of the closing -100 result, "" for none
        QTest::addColumn<QStringList>("arrived");   // the destination's files afterwards
        QTest::addColumn<QStringList>("leftAtSource");

        const QStringList three{"a/x.qventry", "b/c/y.qvindex", "z.qvkentry"}, flat{"x.qventry", "y.qvindex", "z.qvkentry"};
        const QStringList z{"z.qvkentry"}, twice{"z.qvkentry", "z.qvkentry"}, piped{"a/x.qventry", "|p.qventry", "z.qvkentry"};
        const QStringList x{"x.qventry"}, xz{"a/x.qventry", "z.qvkentry"};
        const QString noSuch = "Error message is:\n%1: cannot stat '@/src/%2': No such file or directory\n";
        QTest::newRow("nothing to transfer") << "copy" << QStringList() << 0 << "" << QStringList() << QStringList();
        QTest::newRow("copy: flat, in list order") << "copy" << three << 3 << "" << flat << three;
        QTest::newRow("move") << "move" << three << 3 << "" << flat << QStringList();
        QTest::newRow("cancelled before it starts") << "copy, cancelled first" << three << 0 << "" << QStringList() << three;
        QTest::newRow("failure at the second file: the first stays, the third is not tried")
            << "copy" << QStringList{"a/x.qventry", "-gone.qventry", "z.qvkentry"} << 1 << noSuch.arg("/bin/cp", "gone.qventry") << x
            << xz;
        QTest::newRow("the same file twice, copied, into a destination ending in /") << "copy into dest/" << twice << 2 << "" << z << z;
        QTest::newRow("the same file twice, moved: a failure keeps the moved file")
            << "move" << twice << 1 << noSuch.arg("/bin/mv", "z.qvkentry") << z << QStringList();
        // The copy program reads a pipe that this test holds open, so it never reaches the end of that file.
        QTest::newRow("cancelled in the middle of a file") << "copy, cancelled in the pipe" << piped << 1 << "" << x << xz;
        QTest::newRow("destroyed in the middle of a file") << "copy, destroyed in the pipe" << piped << 1 << "" << x << xz;
        QTest::newRow("the copy program killed by a signal") << "copy, killed in the pipe" << piped << 1 << "/bin/cp: crashed." << x << xz;
        QTest::newRow("a copy program that cannot be started") << "copy, no program" << three << 0 << "/bin/cp: failed to start." << QStringList() << three;
    }

    void transfer()
    {
        QFETCH(QString, how);
        QFETCH(QStringList, listed);
        QFETCH(int, done);
        QFETCH(QString, failure);
        QFETCH(QStringList, arrived);
        QFETCH(QStringList, leftAtSource);
        QTemporaryDir scratch;
        if (how.contains("no program") && !inChild())   // the copy program's file made one that cannot run
            return runRowInChild({QString(), {inPrivateMounts("mount --bind \"$1\" \"$(readlink -f /bin/cp)\"", {QFINDTESTDATA("tst_copythread.cpp")})}});
        const QString source = scratch.filePath("src"), destination = scratch.filePath(how.contains("dest/") ? "dest/" : "dest");
        QVERIFY(QDir().mkpath(scratch.filePath("dest")));
        QString pipe;
        for (const QString &name : listed) {
            const QString path = source + '/' + name.mid(name.startsWith('-') || name.startsWith('|') ? 1 : 0);
            QFile file(path);
            if (name.startsWith('|'))
                QVERIFY(QDir().mkpath(source) && ::mkfifo(QFile::encodeName(pipe = path).constData(), 0644) == 0);
            else if (!name.startsWith('-') && !file.exists())
                QVERIFY(makeFile(path, 1000 + path.size()) && file.open(QIODevice::ReadWrite) && file.setPermissions(QFileDevice::Permissions(0x6440))
                        && file.setFileTime(kOld, QFileDevice::FileModificationTime));
            sSourceFiles << QFileInfo(path);
        }
        const int held = pipe.isEmpty() ? -1 : ::open(QFile::encodeName(pipe).constData(), O_RDWR);
        auto closePipe = qScopeGuard([held] { held < 0 || ::close(held); });
        sCopyFiles = how.startsWith("move");
        auto worker = std::make_unique<CopyThread>(nullptr, destination);
        sCopyFiles = !sCopyFiles;   // the choice was taken when the worker was made
        QCOMPARE(worker->getPath(), destination);
        // Received queued, as the page receives them; a worker cancelled before it starts transfers nothing.
        QStringList events, expected{"result -100 The source database data files couldn't be found."};
        connect(worker.get(), &CopyThread::copyResult, worker.get(),
                [&](int code, const QString &message) { events << QStringLiteral("result %1 %2").arg(code).arg(message); });
        connect(worker.get(), &CopyThread::copiedFile, worker.get(), [&](int n) { events << QStringLiteral("copied %1").arg(n); });
        for (int n = 1; n <= done; ++n)
            expected << "result 0 " << QStringLiteral("copied %1").arg(n);
        if (!failure.isEmpty())
            expected << "result -100 " + QString(failure).replace('@', scratch.path());
        if (how.contains("cancelled first"))
            worker->cancel();
        QEventLoop loop;
        connect(worker.get(), &QThread::finished, &loop, &QEventLoop::quit);
        worker->start();
        if (held >= 0) {
            const QByteArray data(1000000, 'x');
            // Written on until all is in: a child's end (SIGCHLD) may cut a write short.
            for (ssize_t sent = 0; sent < data.size();) {
                const ssize_t n = ::write(held, data.constData() + sent, size_t(data.size() - sent));
                QVERIFY(n > 0 || errno == EINTR);
                sent += std::max<ssize_t>(n, 0);
            }
            QTRY_VERIFY_WITH_TIMEOUT(QFileInfo(scratch.filePath("dest/p.qventry")).size() == data.size(), 60000);
            QCOMPARE(fileBytes(QStringLiteral("/proc/%1/cmdline").arg(processesMentioning(pipe).value(0))).split('\0'),
                     (QList<QByteArray>{"/bin/cp", "-pf", QFile::encodeName(pipe), QFile::encodeName(destination) + '/', ""}));
            how.contains("destroyed") ? worker.reset() : how.contains("killed") ? void(::kill(processesMentioning(pipe).value(0), SIGKILL)) : worker->cancel();
        }
        // The end, as the page receives it: queued, after the reports.
        QTimer::singleShot(60000, &loop, [&loop] { loop.exit(1); });
        QVERIFY(!worker || worker->isFinished() || loop.exec() == 0);
        QCoreApplication::processEvents();
        // A destroyed worker's queued reports are dropped with it.
        QCOMPARE(events, worker ? expected : expected.mid(0, events.size()));
        QCOMPARE(processesMentioning(scratch.path()), QList<pid_t>());   // no copy program left

        QDir dest(scratch.filePath("dest"));
        QCOMPARE(dest.entryList(QDir::Files), arrived);
        for (const QFileInfo &copy : dest.entryInfoList(QDir::Files))   // "-p" keeps the mode and the time; the file is whole
            QVERIFY((copy.permissions() & 0x0fff) == 0x0640 && copy.lastModified() == kOld && copy.size() > 1000);
        QStringList left{"a/x.qventry", "b/c/y.qvindex", "z.qvkentry"};
        left.erase(std::remove_if(left.begin(), left.end(), [&](const QString &name) { return !QFileInfo::exists(source + '/' + name); }),
                   left.end());
        QCOMPARE(left, leftAtSource);
    }
};

QTEST_GUILESS_MAIN(tst_CopyThread)
#include "tst_copythread.moc"
