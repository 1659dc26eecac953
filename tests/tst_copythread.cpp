#include "pages/pagestate.h"
#include "testsupport.h"
#include "workers/copythread.h"

static const QDateTime kOld = QDateTime::fromSecsSinceEpoch(1000000000);

// The names of the regular files below folder, at any depth, in Latin-1 for their bytes, sorted.
static QStringList namesBelow(const QString &folder)
{
    QProcess find;
    find.start("find", {folder, "-type", "f", "-printf", "%f\\0"});
    find.waitForFinished();
    QStringList names;
    for (const QByteArray &name : find.readAllStandardOutput().split('\0'))
        if (!name.isEmpty())
            names << QString::fromLatin1(name);
    names.sort();
    return names;
}

class tst_CopyThread : public QObject
{
    Q_OBJECT

private slots:
    void init() { sSourceFiles.clear(); sUnreadableFolders.clear(); sCopyFiles = false; }

    void transfer_data()
    {
        QTest::addColumn<QString>("how");           // "copy" or "move", "into dest/" (the page's other spelling), "on a small disk"
                                                    // (a 256 KiB one, in a namespace of the row's own), and "cancelled first",
                                                    // "cancelled", "destroyed" or "killed in the pipe", "no program"
        QTest::addColumn<QStringList>("listed");    // below the source, names in Latin-1 for their bytes; "-" before a name:
                                                    // listed but missing; "|": a pipe; "!": mode 000; "@": in a folder deeper
                                                    // than PATH_MAX; "#": 300,000 bytes of data; "=": not listed, but in the
                                                    // destination before the run
        QTest::addColumn<int>("done");              // files reported done, each after a result 0
        QTest::addColumn<QString>("failure");       // the message of the closing -100 result, "" for none
        QTest::addColumn<QStringList>("arrived");   // the destination's files afterwards
        QTest::addColumn<QStringList>("leftAtSource");   // the names of the source's files afterwards

        const QStringList three{"a/x.qventry", "b/c/y.qvindex", "z.qvkentry"}, flat{"x.qventry", "y.qvindex", "z.qvkentry"};
        const QStringList z{"z.qvkentry"}, twice{"z.qvkentry", "z.qvkentry"}, piped{"a/x.qventry", "|p.qventry", "z.qvkentry"};
        const QStringList x{"x.qventry"}, xz{"x.qventry", "z.qvkentry"};
        const QString noSuch = "Error message is:\n%1: cannot stat '@/src/%2': No such file or directory\n";
        const QString noRoom = "Error message is:\n/bin/cp: error writing '/mnt/dest/big.qventry': No space left on device\n";
        const QString odd = QString::fromLatin1("\xff\xfe odd.qventry");
        QTest::newRow("nothing to transfer") << "copy" << QStringList() << 0 << "" << QStringList() << QStringList();
        QTest::newRow("copy: flat, in list order") << "copy" << three << 3 << "" << flat << flat;
        QTest::newRow("move") << "move" << three << 3 << "" << flat << QStringList();
        QTest::newRow("cancelled before it starts") << "copy, cancelled first" << three << 0 << "" << QStringList() << flat;
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
        QTest::newRow("killed over a file that was there before: it stays")
            << "copy, killed in the pipe" << piped + QStringList{"=p.qventry"} << 1 << "/bin/cp: crashed." << QStringList{"p.qventry", "x.qventry"} << xz;
        QTest::newRow("a copy program that cannot be started") << "copy, no program" << three << 0 << "/bin/cp: failed to start." << QStringList() << flat;
        // Faults of the file system and of names.
        QTest::newRow("the disk fills: the cut copy goes") << "copy on a small disk" << QStringList{"a/x.qventry", "#big.qventry", "z.qvkentry"}
                                                           << 1 << noRoom << x << QStringList{"big.qventry", "x.qventry", "z.qvkentry"};
        QTest::newRow("the disk fills over a file that was there before: it stays")
            << "copy on a small disk" << QStringList{"a/x.qventry", "#big.qventry", "=big.qventry"} << 1 << noRoom
            << QStringList{"big.qventry", "x.qventry"} << QStringList{"big.qventry", "x.qventry"};
        QTest::newRow("copy: deeper than PATH_MAX, a name that is not UTF-8, mode 000")
            << "copy" << QStringList{"@deep.qventry", odd, "!closed.qvindex"} << 3 << "" << QStringList{"closed.qvindex", "deep.qventry", odd}
            << QStringList{"closed.qvindex", "deep.qventry", odd};
        QTest::newRow("move: deeper than PATH_MAX, a name that is not UTF-8, mode 000")
            << "move" << QStringList{"@deep.qventry", odd, "!closed.qvindex"} << 3 << "" << QStringList{"closed.qvindex", "deep.qventry", odd}
            << QStringList();
    }

    void transfer()
    {
        QFETCH(QString, how);
        QFETCH(QStringList, listed);
        QFETCH(int, done);
        QFETCH(QString, failure);
        QFETCH(QStringList, arrived);
        QFETCH(QStringList, leftAtSource);
        if (how.contains("no program") && !inChild())   // the copy program's file made one that cannot run
            return runRowInChild({QString(), {inPrivateMounts("mount --bind \"$1\" \"$(readlink -f /bin/cp)\"", {QFINDTESTDATA("tst_copythread.cpp")})}});
        if (how.contains("small disk") && !inChild())
            return runRowInChild({QString(), {inPrivateMounts("mount -t tmpfs -o size=256k tmpfs /mnt")}});
        if (listed.join("").contains('!') && ::geteuid() != 0)
            QSKIP("copying a mode-000 file needs root");
        QTemporaryDir scratch;
        auto removeDeep = qScopeGuard([&] { runProcess({"rm", "-rf", scratch.path()}); });   // deeper than the toolkit removes
        const QString source = scratch.filePath("src"), destRoot = how.contains("small disk") ? "/mnt" : scratch.path();
        const QString destination = destRoot + (how.contains("dest/") ? "/dest/" : "/dest");
        QVERIFY(QDir().mkpath(destRoot + "/dest"));
        QString pipe;
        QSet<QString> closed;
        for (const QString &entry : listed) {
            const QChar kind = entry.at(0);
            const QString name = QString("-|!@#=").contains(kind) ? entry.mid(1) : entry;
            if (kind == '=') {
                QVERIFY(writeFile(destRoot + "/dest/" + name, "theirs"));
                continue;
            }
            QByteArray path = QFile::encodeName(source) + '/' + name.toLatin1();
            QVERIFY(QDir().mkpath(QFileInfo(QFile::decodeName(path)).path()));
            if (kind == '@') {   // one folder at a time, relative to the last
                int fd = ::open(QFile::encodeName(source).constData(), O_RDONLY | O_DIRECTORY);
                const QByteArray folder(150, 'd');
                for (int level = 0; level < 30; ++level) {
                    QVERIFY(fd >= 0 && ::mkdirat(fd, folder.constData(), 0755) == 0);
                    const int next = ::openat(fd, folder.constData(), O_RDONLY | O_DIRECTORY);
                    ::close(fd);
                    fd = next;
                    path = path.left(path.lastIndexOf('/') + 1) + folder + '/' + name.toLatin1();
                }
                const int out = ::openat(fd, name.toLatin1().constData(), O_WRONLY | O_CREAT, 0664);
                QVERIFY(out >= 0 && ::fchmod(out, 0664) == 0 && ::ftruncate(out, 2000) == 0);
                const timespec times[2] = {{kOld.toSecsSinceEpoch(), 0}, {kOld.toSecsSinceEpoch(), 0}};
                QVERIFY(::futimens(out, times) == 0 && ::close(out) == 0 && ::close(fd) == 0 && path.size() > PATH_MAX);
            } else if (kind == '|') {
                QVERIFY(::mkfifo((pipe = QFile::decodeName(path)).toLocal8Bit().constData(), 0644) == 0);
            } else if (kind != '-' && ::access(path.constData(), F_OK) != 0) {
                const int out = ::open(path.constData(), O_WRONLY | O_CREAT, 0664);
                QVERIFY(out >= 0 && ::fchmod(out, kind == '!' ? 0 : 0664) == 0);
                const QByteArray data(kind == '#' ? 300000 : 1000 + path.size(), 'x');
                QVERIFY(::write(out, data.constData(), size_t(data.size())) == data.size());
                const timespec times[2] = {{kOld.toSecsSinceEpoch(), 0}, {kOld.toSecsSinceEpoch(), 0}};
                QVERIFY(::futimens(out, times) == 0 && ::close(out) == 0);
            }
            if (kind == '!')
                closed << name;
            sSourceFiles << SourceFile{path, 0};
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

        // What arrived is whole, with its time ("-p"), and readable by all: its own mode, or 0644 for one that was not.
        QCOMPARE(namesBelow(destRoot + "/dest"), arrived);
        for (const QString &name : arrived) {
            struct stat copy;
            QVERIFY(::stat(QFile::encodeName(destRoot + "/dest/").append(name.toLatin1()).constData(), &copy) == 0);
            if (!listed.contains('=' + name))
                QVERIFY2((copy.st_mode & 07777) == (closed.contains(name) ? 0644 : 0664) && copy.st_mtime == kOld.toSecsSinceEpoch() && copy.st_size >= 1000,
                         qPrintable(QStringLiteral("%1: %2 %3 %4").arg(name).arg(copy.st_mode, 0, 8).arg(copy.st_mtime).arg(copy.st_size)));
        }
        QCOMPARE(namesBelow(source), leftAtSource);
    }

    void outcome_data()
    {
        QTest::addColumn<QStringList>("unreadable");   // folders the scan could not read
        QTest::addColumn<QString>("outcome");          // the closing result, paths whole
        const QString folder = "The folder %1 of the source database could not be read, so its data files were not installed.";
        QTest::newRow("all read, moved") << QStringList() << "0 ";
        QTest::newRow("a folder not read") << QStringList{"/src/ä"} << "-100 " + folder.arg("/src/ä");
        QTest::newRow("two") << QStringList{"/src/a", "/src/b"} << "-100 " + folder.arg("/src/a") + " One other folder of it could not be read either.";
        QTest::newRow("three, one very long") << QStringList{"/" + QString(300, 'l') + "/x", "/b", "/c"}
                                              << "-100 " + folder.arg("/" + QString(300, 'l') + "/x")
                                                     + " 2 other folders of it could not be read either.";
        QTest::newRow("a file that cannot be made readable for all") << QStringList() << "-100 The installed file /mnt/dest/o.qventry could not be made readable for all users.";
    }

    // After the transfer, the outcome says what is missing or not readable. The file of the last row is root's, with
    // mode 000, moved by an ordinary user, who may not change its mode: it arrives whole all the same.
    void outcome()
    {
        QFETCH(QStringList, unreadable);
        QFETCH(QString, outcome);
        const bool others = outcome.contains("/mnt/");
        if (others && !inChild()) {
            if (::geteuid() != 0)
                QSKIP("needs root, to give the file to root and move it as another user");
            return runRowInChild({QString(), {asOrdinaryUser(), inPrivateMounts("mount -t tmpfs -o mode=0777 tmpfs /mnt && mkdir -m 0777 /mnt/src "
                                                                                "/mnt/dest && : > /mnt/src/o.qventry && chmod 000 /mnt/src/o.qventry")}});
        }
        QTemporaryDir scratch;
        const QString source = others ? "/mnt/src/o.qventry" : scratch.filePath("o.qventry"), dest = others ? "/mnt/dest" : scratch.path() + "/dest";
        QVERIFY(others || (writeFile(source, "data") && QDir().mkpath(dest)));
        sSourceFiles = {SourceFile{QFile::encodeName(source), 4}};
        for (const QString &folder : unreadable)
            sUnreadableFolders << folder.toUtf8();
        sCopyFiles = true;
        CopyThread worker(nullptr, dest);
        QString last;
        connect(&worker, &CopyThread::copyResult, &worker, [&](int code, const QString &message) { last = QStringLiteral("%1 %2").arg(code).arg(message); });
        worker.start();
        QVERIFY(worker.wait(60000));
        QCoreApplication::processEvents();
        QCOMPARE(last, outcome);
        QVERIFY(QFileInfo::exists(dest + "/o.qventry") && !QFileInfo::exists(source));
    }
};

QTEST_GUILESS_MAIN(tst_CopyThread)
#include "tst_copythread.moc"
