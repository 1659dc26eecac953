#include "platform/users.h"
#include "testsupport.h"

#include <QRegularExpression>
#include <QtTest>

#include <pwd.h>

class tst_Users : public QObject
{
    Q_OBJECT

private slots:
    void groups_data()
    {
        QTest::addColumn<int>("members");   // of the group "veldbig" (id 4242)
        QTest::addColumn<uint>("id");       // what its lookup finds
        // Each member name takes 16 bytes of the entry. The lookup's buffer starts at
        // 1 KiB and may double nine times, to 512 KiB.
        QTest::newRow("a few doublings") << 2000 << 4242u;
        QTest::newRow("the tenth attempt") << 20000 << 4242u;
        QTest::newRow("beyond ten attempts") << 40000 << uint(kUnknownGroupId);
    }

    // In a private mount namespace whose /etc/group is the row's own.
    void groups()
    {
        QFETCH(int, members);
        QFETCH(uint, id);
        if (!inChild()) {
            QTemporaryDir dir;
            QByteArray database = "root:x:0:\nveldbig:x:4242:";
            for (int i = 0; i < members; ++i)
                database += (i ? ",member" : "member") + QByteArray::number(i).rightJustified(9, '0');
            QVERIFY(writeFile(dir.filePath("group"), database + '\n'));
            runRowInChild({QString(), {inPrivateMounts("mount --bind \"$1\" /etc/group", {dir.filePath("group")})}});
            return;
        }
        QCOMPARE(getGroupId("root"), 0u);
        QCOMPARE(getGroupId("veldbig"), id);
        QCOMPARE(getGroupId("veld-no-such-group"), kUnknownGroupId);
        QCOMPARE(getGroupId(nullptr), kUnknownGroupId);
    }

    // A user without an entry reads as empty, with the system's complaint on standard error.
    void users()
    {
        uid_t unknown = 3999999;
        while (getpwuid(unknown))
            ++unknown;
        QCOMPARE(getUserName(0), std::string("root"));
        QCOMPARE(getUserName(getpwnam("nobody")->pw_uid), std::string("nobody"));
        std::string name = "x";
        const QByteArray complaint = standardErrorOf([&] { name = getUserName(unknown); });
        QCOMPARE(name, std::string());
        QVERIFY2(QRegularExpression("^System call 'getpwuid_r' failed with errno=-?\\d+\\n    [^\\n]*\\n$").match(complaint).hasMatch(),
                 complaint.constData());
    }
};

QTEST_GUILESS_MAIN(tst_Users)
#include "tst_users.moc"
