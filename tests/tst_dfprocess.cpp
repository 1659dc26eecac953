#include "workers/cdfprocess.h"
#include "testsupport.h"

#include <QElapsedTimer>
#include <QFile>
#include <QtTest>

#include <csignal>
#include <sys/statvfs.h>

namespace {

// A stand-in for df, first on PATH, for the reports no real disk gives. It
// records its arguments, one per line, and its pid beside itself.
void placeFakeDf(const QString &folder, const QByteArray &body)
{
    QFile script(folder + QStringLiteral("/df"));
    QVERIFY(script.open(QIODevice::WriteOnly));
    // Shell built-ins only: the tests' PATH may hold nothing but this folder.
    script.write("#!/bin/sh\nprintf '%s\\n' \"$@\" > \"${0%/*}/args\"\necho $$ > \"${0%/*}/pid\"\n" + body);
    script.close();
    QVERIFY(script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
}

} // namespace

class tst_DfProcess : public QObject
{
    Q_OBJECT

private slots:
    void init() { m_path = qgetenv("PATH"); }
    void cleanup() { qputenv("PATH", m_path); }

    void report_data();
    void report();
    void realDf();
    void fakeDf_data();
    void fakeDf();
    void hangingDfIsKilled();

private:
    QByteArray m_path;
};

void tst_DfProcess::report_data()
{
    QTest::addColumn<QByteArray>("report");
    QTest::addColumn<qint64>("mebibytes");
    const QByteArray header = "Filesystem     1024-blocks      Used Available Capacity  Mounted on\n";
    QTest::newRow("the usual line") << header + "/dev/disk1 487867392 411222444 76388948 85% /\n" << qint64(74598);
    QTest::newRow("runs of blanks") << header + "/dev/vda    264212084   17211776    83125412  18% /\n" << qint64(81177);
    QTest::newRow("under 1024 KiB") << header + "tmpfs 2048 1025 1023 50% /run\n" << qint64(0);
    QTest::newRow("exactly 1024 KiB") << header + "tmpfs 2048 1024 1024 50% /run\n" << qint64(1);
    QTest::newRow("header only") << header << qint64(0);
    QTest::newRow("header without newline") << header.trimmed() << qint64(0);
    QTest::newRow("nothing") << QByteArray() << qint64(0);
    QTest::newRow("device name with blanks") << header + "/dev/my disk 100 50 2048 50% /x\n" << qint64(0);
    QTest::newRow("long device name on its own line")
        << header + "server.example:/exports/a/very/long/name\n 976762584 1000 976761584 1% /mnt\n" << qint64(0);
    QTest::newRow("fourth field not a number") << header + "/dev/sda1 100 50 lots 50% /\n" << qint64(0);
    QTest::newRow("garbage") << QByteArray("\x01\xff garbage\n\x02 \x03 \x04 \x05\n") << qint64(0);
    QTest::newRow("cut at a NUL byte") << header + QByteArray("/dev/sda1 100\0 50 4096 1% /\n", 29) << qint64(0);
    QTest::newRow("tabs are not separators") << header + "/dev/sda1\t100\t50\t4096 x y z\n" << qint64(0);
    QTest::newRow("negative") << header + "/dev/sda1 100 50 -2048 0% /\n" << qint64(-2);
    QTest::newRow("largest") << header + "/dev/sda1 1 1 9223372036854775807 1% /\n" << qint64(9007199254740991);
    QTest::newRow("too large") << header + "/dev/sda1 1 1 9223372036854775808 1% /\n" << qint64(0);
}

void tst_DfProcess::report()
{
    QFETCH(QByteArray, report);
    QFETCH(qint64, mebibytes);
    QCOMPARE(availableMebibytes(report), mebibytes);
}

// The real df on a real folder agrees with the file system's own count.
void tst_DfProcess::realDf()
{
    QTemporaryDir dir;
    CDfProcess df(nullptr);
    df.Run(dir.path());
    const qint64 measured = df.TotalAvailable();
    struct statvfs fs;
    QVERIFY(::statvfs(QFile::encodeName(dir.path()).constData(), &fs) == 0);
    const qint64 expected = qint64(fs.f_bavail) * qint64(fs.f_frsize) / 1024 / 1024;
    QVERIFY2(measured > 0 && qAbs(measured - expected) <= 64,
             qPrintable(QStringLiteral("df %1 MiB, statvfs %2 MiB").arg(measured).arg(expected)));
}

void tst_DfProcess::fakeDf_data()
{
    QTest::addColumn<QByteArray>("body");   // the fake df's script, or empty for none on PATH
    QTest::addColumn<QString>("folder");
    QTest::addColumn<qint64>("mebibytes");
    const QByteArray reply = "echo 'Filesystem 1024-blocks Used Available Capacity Mounted on'\n";
    QTest::newRow("a big disk, blanks and non-ASCII in the folder")
        << reply + "echo '/dev/sdz1 9999999999 1 9999999998 1% /x'\n" << "/Volumes/Big D\u00efsk/VELDV400/" << qint64(9765624);
    QTest::newRow("report on standard error only") << QByteArray("echo 'x 1 2 4096 5' >&2\nexit 1\n") << "/e" << qint64(0);
    QTest::newRow("header only") << reply << "/h" << qint64(0);
    QTest::newRow("fails, with a report") << reply + "echo '/dev/sdz1 1 1 2048 1% /'\nexit 1\n" << "/f" << qint64(2);
    QTest::newRow("df missing from PATH") << QByteArray() << "/m" << qint64(0);
}

// df is found through PATH, run as "df -k FOLDER", and only its standard output counts.
void tst_DfProcess::fakeDf()
{
    QFETCH(QByteArray, body);
    QFETCH(QString, folder);
    QFETCH(qint64, mebibytes);
    QTemporaryDir bin;
    if (!body.isEmpty())
        placeFakeDf(bin.path(), body);
    qputenv("PATH", QFile::encodeName(bin.path()));
    CDfProcess df(nullptr);
    df.Run(folder);
    QCOMPARE(df.TotalAvailable(), mebibytes);
    if (!body.isEmpty()) {
        QFile args(bin.path() + QStringLiteral("/args"));
        QVERIFY(args.open(QIODevice::ReadOnly));
        QCOMPARE(QString::fromUtf8(args.readAll()), QStringLiteral("-k\n") + folder + QLatin1Char('\n'));
    }
}

// A df that never answers is given 50 seconds, then killed: 0, and no process left.
void tst_DfProcess::hangingDfIsKilled()
{
    QTemporaryDir bin;
    placeFakeDf(bin.path(), "exec sleep 600\n");
    qputenv("PATH", QFile::encodeName(bin.path()) + ":/usr/bin:/bin");
    QElapsedTimer timer;
    timer.start();
    CDfProcess df(nullptr);
    df.Run(QStringLiteral("/"));
    QCOMPARE(df.TotalAvailable(), qint64(0));
    const qint64 waited = timer.elapsed();
    QVERIFY2(waited >= 49000 && waited < 60000, qPrintable(QString::number(waited)));
    QFile pidFile(bin.path() + QStringLiteral("/pid"));
    QVERIFY(pidFile.open(QIODevice::ReadOnly));
    const pid_t pid = pid_t(pidFile.readAll().trimmed().toInt());
    QVERIFY(pid > 0);
    QCOMPARE(::kill(pid, 0), -1);   // gone, and reaped
}

QTEST_GUILESS_MAIN(tst_DfProcess)
#include "tst_dfprocess.moc"
