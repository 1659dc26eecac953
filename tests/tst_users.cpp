#include "platform/users.h"
#include "testsupport.h"

#include <QFile>
#include <QtTest>

#include <pwd.h>

class tst_Users : public QObject
{
    Q_OBJECT

private slots:
    void lookups_data();
    void lookups();
};

void tst_Users::lookups_data()
{
    QTest::addColumn<int>("members");        // of the group "veldbig" (id 4242) beside "root"
    QTest::addColumn<QStringList>("args");   // for the probe
    QTest::addColumn<QString>("out");
    QTest::addColumn<QString>("err");        // a pattern

    const QStringList groups{"gid", "root", "gid", "veldbig", "gid", "veld-no-such-group"};
    const QString gids = "gid=0\ngid=%1\ngid=" + QString::number(kUnknownGroupId) + "\n";
    // Each member name takes 16 bytes of the entry. The lookup's buffer starts at
    // 1 KiB and may double nine times, to 512 KiB.
    QTest::newRow("group needing a few doublings") << 2000 << groups << gids.arg(4242) << "";
    QTest::newRow("group needing the tenth attempt") << 20000 << groups << gids.arg(4242) << "";
    QTest::newRow("group beyond ten attempts") << 40000 << groups << gids.arg(kUnknownGroupId) << "";
    uid_t unknown = 3999999;
    while (getpwuid(unknown))
        ++unknown;
    QTest::newRow("users") << 0
                           << QStringList{"user", "0", "user", QString::number(getpwnam("nobody")->pw_uid), "user",
                                          QString::number(unknown)}
                           << "user=root\nuser=nobody\nuser=\n"
                           << "System call 'getpwuid_r' failed with errno=-?\\d+\\n    [^\\n]*\\n";
}

// The probe runs in a private mount namespace whose /etc/group is a file of the
// test's own; a failed user lookup is reported on its standard error.
void tst_Users::lookups()
{
    QFETCH(int, members);
    QFETCH(QStringList, args);
    QFETCH(QString, out);
    QFETCH(QString, err);
    QCOMPARE(getGroupId(nullptr), kUnknownGroupId);
    QTemporaryDir dir;
    QByteArray line = "veldbig:x:4242:";
    for (int i = 0; i < members; ++i)
        line += (i ? ",member" : "member") + QByteArray::number(i).rightJustified(9, '0');
    QFile group(dir.filePath(QStringLiteral("group")));
    QVERIFY(group.open(QIODevice::WriteOnly));
    group.write("root:x:0:\n" + line + "\n");
    group.close();
    const QStringList command = withGroupDatabase(group.fileName(), placeProbe(dir.filePath("probe")), args);
    const ProcessResult run = runProcess(command.first(), command.mid(1));
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.out, out);
    const QRegularExpression report(QRegularExpression::anchoredPattern(err));
    QVERIFY2(report.match(run.err).hasMatch(), qPrintable(run.err));
}

QTEST_GUILESS_MAIN(tst_Users)
#include "tst_users.moc"
