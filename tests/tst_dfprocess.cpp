#include "workers/cdfprocess.h"
#include "testsupport.h"

class tst_DfProcess : public QObject
{
    Q_OBJECT

private slots:
    void report_data()
    {
        QTest::addColumn<QByteArray>("report");
        QTest::addColumn<qint64>("mebibytes");
        const QByteArray header = "Filesystem     1024-blocks      Used Available Capacity  Mounted on\n";
        QTest::newRow("runs of blanks") << header + "/dev/vda    264212084   17211776    83125412  18% /\n" << qint64(81177);
        QTest::newRow("under 1024 KiB") << header + "tmpfs 2048 1025 1023 50% /run\n" << qint64(0);
        QTest::newRow("header without newline") << header.trimmed() << qint64(0);
        QTest::newRow("long device name on its own line")
            << header + "server.example:/exports/a/very/long/name\n 976762584 1000 976761584 1% /mnt\n" << qint64(0);
        QTest::newRow("tabs are not separators") << header + "/dev/sda1\t100\t50\t4096 x y z\n" << qint64(0);
        QTest::newRow("negative") << header + "/dev/sda1 100 50 -2048 0% /\n" << qint64(-2);
        QTest::newRow("largest") << header + "/dev/sda1 1 1 9223372036854775807 1% /\n" << qint64(9007199254740991);
        QTest::newRow("too large") << header + "/dev/sda1 1 1 9223372036854775808 1% /\n" << qint64(0);
    }

    void report()
    {
        QFETCH(QByteArray, report);
        QFETCH(qint64, mebibytes);
        QCOMPARE(availableMebibytes(report), mebibytes);
    }

    void standIn_data()
    {
        QTest::addColumn<QByteArray>("body");   // of a stand-in df alone on PATH; empty: no df at all
        QTest::addColumn<QString>("folder");
        QTest::addColumn<qint64>("mebibytes");
        const QByteArray reply = "echo 'Filesystem 1024-blocks Used Available Capacity Mounted on'\n";
        QTest::newRow("a big disk, blanks and non-ASCII in the folder") << reply + "echo '/dev/sdz1 9 1 9999999998 1% /x'\n"
                                                                        << "/Volumes/Big D\u00efsk/VELDV400/" << qint64(9765624);
        QTest::newRow("report on standard error only") << "{ " + reply + "echo 'x 1 2 4096 5%'; } >&2\nexit 1\n" << "/e" << qint64(0);
        QTest::newRow("fails, with a report") << reply + "echo '/dev/sdz1 1 1 2048 1% /'\nexit 1\n" << "/f" << qint64(2);
        QTest::newRow("df missing from PATH") << QByteArray() << "/m" << qint64(0);
        // Waits for its standard input, which stays open: given 50 seconds, then killed.
        QTest::newRow("never answers") << QByteArray("read line\n") << "/" << qint64(0);
    }

    // df is found through PATH, run as "df -k FOLDER", only its standard output
    // counts, and no df is left running or unreaped once the answer is given.
    void standIn()
    {
        QFETCH(QByteArray, body);
        QFETCH(QString, folder);
        QFETCH(qint64, mebibytes);
        QTemporaryDir bin;
        // Shell built-ins only: it records its pid and arguments, one a line, in "ran".
        QVERIFY(body.isEmpty() || writeFile(bin.filePath("df"), "#!/bin/sh\nprintf '%s\\n' $$ \"$@\" > \"${0%/*}/ran\"\n" + body, 0755));
        const QByteArray path = qgetenv("PATH");
        const auto restore = qScopeGuard([&] { qputenv("PATH", path); });
        qputenv("PATH", QFile::encodeName(bin.path()));
        QElapsedTimer timer;
        timer.start();
        CDfProcess df(nullptr);
        df.Run(folder);
        QCOMPARE(df.TotalAvailable(), mebibytes);
        // A df that never answers is given its 50 seconds, however quick the machine.
        QVERIFY(!body.startsWith("read") || timer.elapsed() >= 49000);
        if (body.isEmpty())
            return;
        QStringList ran = fileText(bin.filePath("ran")).split('\n');
        const pid_t pid = pid_t(ran.takeFirst().toInt());
        QCOMPARE(ran, (QStringList{"-k", folder, QString()}));
        QVERIFY(pid > 0 && ::kill(pid, 0) == -1);   // gone, and reaped
    }
};

QTEST_GUILESS_MAIN(tst_DfProcess)
#include "tst_dfprocess.moc"
