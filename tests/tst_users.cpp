#include "platform/users.h"
#include "testsupport.h"

#include <pwd.h>

class tst_Users : public QObject
{
    Q_OBJECT

private slots:
    // In a private mount namespace whose /etc/group is the test's own. Each member name takes 16 bytes;
    // the lookup's buffer starts at 1 KiB and may double nine times, to 512 KiB.
    void groups()
    {
        if (!inChild()) {
            QTemporaryDir dir;
            QByteArray database = "root:x:0:\n";
            for (const int members : {20000, 40000}) {   // the tenth attempt, beyond it
                database += "veld" + QByteArray::number(members) + ":x:" + QByteArray::number(members) + ':';
                for (int i = 0; i < members; ++i)
                    database += (i ? ",member" : "member") + QByteArray::number(i).rightJustified(9, '0');
                database += '\n';
            }
            QVERIFY(writeFile(dir.filePath("group"), database));
            return runRowInChild({QString(), {inPrivateMounts("mount --bind \"$1\" /etc/group", {dir.filePath("group")})}});
        }
        QCOMPARE(getGroupId("root") + getGroupId("veld20000"), 20000u);
        QCOMPARE(getGroupId("veld40000") & getGroupId("veld-no-such-group") & getGroupId(nullptr), kUnknownGroupId);
    }

    // A user without an entry reads as empty, with the system's complaint on standard error.
    void users()
    {
        uid_t unknown = 3999999;
        while (getpwuid(unknown))
            ++unknown;
        QCOMPARE(getUserName(0) + getUserName(getpwnam("nobody")->pw_uid), std::string("rootnobody"));
        std::string name = "x";
        const QByteArray complaint = standardErrorOf([&] { name = getUserName(unknown); });
        QVERIFY2(name.empty() && QRegularExpression("^System call 'getpwuid_r' failed with errno=-?\\d+\\n    [^\\n]*\\n$")
                                     .match(complaint).hasMatch(), complaint.constData());
    }
};

QTEST_GUILESS_MAIN(tst_Users)
#include "tst_users.moc"
