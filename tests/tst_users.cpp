#include "platform/users.h"
#include "testsupport.h"

#include <QFile>
#include <QtTest>

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

class tst_Users : public QObject
{
    Q_OBJECT

private slots:
    void groupId_data();
    void groupId();
    void userName_data();
    void userName();
    void unknownUserReportsOnStandardError();
    void largeGroupEntries_data();
    void largeGroupEntries();
};

void tst_Users::groupId_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<bool>("known");
    QTest::newRow("root") << QByteArray("root") << true;
    QTest::newRow("own primary group") << QByteArray(getgrgid(getgid())->gr_name) << true;
    QTest::newRow("unknown") << QByteArray("veld-no-such-group") << false;
    QTest::newRow("empty name") << QByteArray("") << false;
}

void tst_Users::groupId()
{
    QFETCH(QByteArray, name);
    QFETCH(bool, known);
    const group *entry = getgrnam(name.constData());
    QCOMPARE(entry != nullptr, known);
    QCOMPARE(getGroupId(name.constData()), known ? static_cast<uint32_t>(entry->gr_gid) : kUnknownGroupId);
    QCOMPARE(getGroupId(nullptr), kUnknownGroupId);
}

void tst_Users::userName_data()
{
    QTest::addColumn<uint>("uid");
    QTest::newRow("root") << 0u;
    QTest::newRow("self") << static_cast<uint>(getuid());
}

void tst_Users::userName()
{
    QFETCH(uint, uid);
    QCOMPARE(QByteArray(getUserName(uid).c_str()), QByteArray(getpwuid(uid)->pw_name));
}

void tst_Users::unknownUserReportsOnStandardError()
{
    uid_t unknown = 3999999;
    while (getpwuid(unknown))
        ++unknown;
    const ProcessResult run = runProcess(QStringLiteral(VELD_SUPPORTPROBE), {"user", QString::number(unknown)});
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.out, QStringLiteral("user=\n"));
    QVERIFY2(QRegularExpression(QStringLiteral("^System call 'getpwuid_r' failed with errno=-?\\d+\\n    [^\\n]*\\n$"))
                 .match(run.err)
                 .hasMatch(),
             qPrintable(run.err));
}

void tst_Users::largeGroupEntries_data()
{
    QTest::addColumn<int>("members");
    QTest::addColumn<bool>("found");
    // Each member name takes 16 bytes of the entry. The lookup's buffer starts at
    // 1 KiB and may double nine times, to 512 KiB.
    QTest::newRow("needs a few doublings") << 2000 << true;
    QTest::newRow("needs the tenth attempt") << 20000 << true;
    QTest::newRow("beyond ten attempts") << 40000 << false;
}

// A group entry larger than the first buffer, in a private mount namespace
// whose /etc/group is a file of the test's own.
void tst_Users::largeGroupEntries()
{
    QFETCH(int, members);
    QFETCH(bool, found);
    QTemporaryDir dir;
    QFile group(dir.filePath(QStringLiteral("group")));
    QVERIFY(group.open(QIODevice::WriteOnly));
    group.write("root:x:0:\n");
    QByteArray line = "veldbig:x:4242:";
    for (int i = 0; i < members; ++i)
        line += QByteArray("member") + QByteArray::number(i).rightJustified(9, '0') + (i + 1 < members ? "," : "");
    group.write(line + "\n");
    group.close();
    const QString probe = placeProbe(dir.filePath(QStringLiteral("probe")));

    const QStringList command = withGroupDatabase(group.fileName(), probe, {"gid", "veldbig", "gid", "root"});
    const ProcessResult run = runProcess(command.first(), command.mid(1));
    QVERIFY2(run.exitCode == 0, qPrintable(run.err));
    QCOMPARE(run.out, QStringLiteral("gid=%1\ngid=0\n").arg(found ? 4242u : kUnknownGroupId));
}

QTEST_GUILESS_MAIN(tst_Users)
#include "tst_users.moc"
