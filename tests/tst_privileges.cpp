#include "platform/authority.h"
#include "platform/locations.h"
#include "platform/log.h"
#include "platform/privileges.h"
#include "platform/users.h"
#include "service/launchdaemon.h"
#include "testsupport.h"

#include <QApplication>

// Each row runs as an ordinary user on folders made here by root, and checks the result, the folders afterwards, the
// dialogs and the password prompts; where it gives one, the whole log, its failures also on standard error.

namespace {

// "@" is the row's folder, %A the administrators' group, %G its id, %u the user (and the user's group), %U its id.
QString expand(QString text, const QString &folder, const QString &user)
{
    return text.replace('@', folder).replace("%u", user).replace("%A", QString::fromLatin1(adminGroupName()))
        .replace("%G", QString::number(int32_t(getGroupId(adminGroupName()))))
        .replace("%U", QString::number(userId(user)));
}

} // namespace

class tst_Privileges : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir{"/var/tmp/tst_privileges-XXXXXX"};   // outside /tmp, which each row has to itself

private slots:
    void initTestCase()
    {
        if (inChild())
            return;
        // A launcher that ends as a dismissed password dialog does; a group database without the administrators'.
        QVERIFY(writeFile(m_dir.filePath("dismiss"), "#!/bin/sh\nexit 126\n", 0755) && QDir().mkdir(m_dir.filePath("tmp")));
        QCOMPARE(runProcess({"sh", "-c", "grep -Ev '^(sudo|wheel|admin):' /etc/group >\"$0/group\" && chmod 644 \"$0/group\"",
                             m_dir.path()}).exitCode, 0);
    }
    void cleanup() { QVERIFY(allGone(processesMentioning(VELD_AUTHHELPER))); }   // no row leaves a root helper behind

    void steps_data()
    {
        QTest::addColumn<QString>("user");
        QTest::addColumn<QStringList>("fixture");  // "REL d|f OWNER:GROUP MODE" below the row's folder "@" (root's, 0755)
        QTest::addColumn<QStringList>("call");     // options and the function
        QTest::addColumn<int>("result");
        QTest::addColumn<QStringList>("after");    // "REL OWNER:GROUP MODE" or "REL absent"
        QTest::addColumn<QString>("prompts");      // password prompts and the dialog ("info", "refused"), then the special
                                                   // case: a "readonly" folder, "nogroup" for administrators, "dismissed"
        QTest::addColumn<QStringList>("log");      // the whole log ("*" stands for any text; "-": none); empty: not checked
        const QString admin = "veldadmin", guest = "veldguest", succeeded = "fixupDirectory: succeeded";
        const QStringList none, fixup{"--scope", "fixup", "@/d"}, through{"--scope", "fixup", "@/x/../d"};
        const QStringList product{"--scope", "product", "@/d"}, resource{"--scope", "resource", "@/p", "n"};
        const QStringList verify{"--scope", "verify", "@/p", "n"}, ld{"ld d root:root 0755"};
        const QStringList member{"isUserInGroup: getGroupId %A returned %G", "isUserInGroup: mkstemp(/tmp/qv_computecontrol.*) returned *",
                                 "isUserInGroup: fchown succeeded"};
        const auto row = [](const char *name, const QString &user, const QStringList &fixture, const QStringList &call, int result,
                            const QStringList &after, const QString &prompts = "0", const QStringList &log = QStringList()) {
            QTest::newRow(name) << user << fixture << call << result << after << prompts << log;
        };

        // Membership, by experiment (the administrators' group itself in the rows that ask for rights).
        row("a group that exists but is not the user's", admin, none, {"group", "veldguest"}, 0, none, "0",
            {"isUserInGroup: getGroupId veldguest returned *", "isUserInGroup: mkstemp(/tmp/qv_computecontrol.*) returned *",
             "isUserInGroup: fchown(*, -1, *) returned -1", "", "Operation not permitted"});
        row("root is in every group", "root", none, {"group", "veldguest"}, 1, none);
        row("no such group: no file made", admin, none, {"group", "veld-no-such-group"}, 0, none);
        // Asking for rights (asked for, refused and dismissed in the rows below that need rights).
        row("administrator, no reason: the box still shows", admin, none, {"--noreason", "establish"}, 0, none, "1 info");
        row("not an administrator, box closed with Escape", guest, none, {"--escape", "establish"}, 1, none, "0 refused");

        // fixupDirectory. Group and mode changed with one password: in "verify, parent's group and mode ...".
        row("fixup, not system-wide: nothing touched or logged", admin, {"d d root:root 0700"}, {"fixup", "@/d"}, 0,
            {"d root:root 700"}, "0", {"-"});
        row("fixup, group and mode by the user", admin, {"d d %u:%u 0750"}, fixup, 0, {"d %u:%A 775"});
        row("fixup, group with rights", admin, {"d d root:root 0775"}, fixup, 0, {"d root:%A 775"}, "1 info",
            QStringList{"fixupDirectory: trying to set chown group-admin perms on @/d"} + member + QStringList{succeeded});
        row("fixup, mode with rights", admin, {"d d root:%A 0755"}, fixup, 0, {"d root:%A 775"}, "1 info");
        row("fixup, missing", admin, none, fixup, 1, {"d absent"});
        row("fixup, a file", admin, {"d f %u:%u 0644"}, fixup, 2, {"d %u:%u 644"});
        row("fixup, not an administrator", guest, {"d d root:root 0775"}, fixup, 4, {"d root:root 775"}, "0 refused");
        row("fixup, password dialog dismissed", admin, {"d d root:root 0775"}, fixup, 4, {"d root:root 775"}, "0 info dismissed");
        row("fixup, privileged chgrp not started", admin, {"x d root:root 0755", "d d root:root 0775"}, through, 3,
            {"d root:root 775"}, "1 info");
        row("fixup, privileged chmod not started", admin, {"x d root:root 0755", "d d root:%A 0755"}, through, 5,
            {"d root:%A 755"}, "1 info");
        row("fixup, read-only file system: group", admin, {"d d %u:%u 0755"}, fixup, 4, {"d %u:%u 755"}, "0 - readonly");
        row("fixup, read-only file system: mode", admin, {"d d %u:%A 0755"}, fixup, 6, {"d %u:%A 755"}, "0 - readonly");

        // createProductDirectory.
        row("product, not system-wide, refused", admin, none, {"product", "@/d"}, 3, {"d absent"});
        row("product, made by the user, then fixed up", admin, {"w d %u:%u 0755"}, {"--scope", "product", "@/w/d"}, 0,
            {"w/d %u:%A 775"});
        row("product, made with rights", admin, none, product, 0, {"d %u:%A 775"}, "1 info");
        row("product, existing folder given to the user", admin, {"d d root:root 0700"}, product, 0, {"d %u:%A 700"}, "1 info");
        row("product, not an administrator", guest, none, product, 4, {"d absent"}, "0 refused");
        row("product, privileged mkdir not started", admin, {"x d root:root 0755"}, {"--scope", "product", "@/x/../d"}, 1,
            {"d absent"}, "1 info");
        row("product, privileged chown not started", admin, none, {"--authority", "--scope", "product", "@/d"}, 2,
            {"d root:root 775"}, "1 - nogroup",
            {"createProductDirectory: Unable to mkdir @/d, Permission denied",
             "createProductDirectory: trying to mkdir @/d with trampoline",
             "createProductDirectory: runCommandWithAuthority(/bin/usr/sbin/chown %U:-1 @/d) failed"});

        // createResourceDirectory.
        row("resource, not system-wide, refused", admin, none, {"resource", "@/p", "n"}, 5, {"p absent"});
        row("resource, made by the user, then fixed up", admin, {"w d %u:%u 0755"}, {"--scope", "resource", "@/w/p", "n"}, 0,
            {"w/p %u:%A 775", "w/p/n %u:%A 775"});
        row("resource, made with rights", admin, none, resource, 0, {"p root:%A 775", "p/n %u:%A 775"}, "1 info");
        row("resource, not an administrator", guest, none, resource, 4, {"p absent"}, "0 refused");
        row("resource, privileged mkdir of the parent not started", admin, {"x d root:root 0755"},
            {"--scope", "resource", "@/x/../p", "n"}, 1, {"p absent"}, "1 info");
        row("resource, privileged chgrp not started", admin, none, {"--authority", "--scope", "resource", "@/p", "n"}, 2,
            {"p root:root 775", "p/n absent"}, "1 - nogroup");
        row("resource, privileged mkdir of the folder not started", admin, none, {"--scope", "resource", "@/p", ".."}, 3,
            {"p root:%A 775"}, "1 info");

        // verifyResourceDirectory.
        row("verify, parent missing: both made", admin, {"w d %u:%u 0755"}, {"--scope", "verify", "@/w/p", "n"}, 0,
            {"w/p %u:%A 775", "w/p/n %u:%A 775"});
        row("verify, parent cannot be examined", admin, {"x d root:root 0700"}, {"--scope", "verify", "@/x/p", "n"}, 1, none);
        row("verify, second installation: the folder made by the user", admin, {"p d root:%A 0775"}, verify, 0,
            {"p root:%A 775", "p/n %u:%A 775"});
        row("verify, parent's group and mode reported and fixed with one password", admin, {"p d root:root 0755"}, verify, 0,
            {"p root:%A 775", "p/n %u:%A 775"}, "1 info",
            QStringList{"verifyResourceDirectory: \"@/p\" exists and has owner 0 group 0 and mode 40755",
                        "fixupDirectory: trying to set chown group-admin perms on @/p"} + member
                + QStringList{"fixupDirectory: trying to set chmod group-admin perms on @/p", succeeded,
                              "verifyResourceDirectory: fixup of @/p returned 0", "verifyResourceDirectory: @/p/n does not exist, creating",
                              "createProductDirectory: made dir @/p/n w/o needing privs, checking for fixup", succeeded});
        row("verify, existing folder fixed up", admin, {"p d root:%A 0775", "p/n d %u:%u 0755"}, verify, 0, {"p/n %u:%A 775"});
        row("verify, not system-wide, folder cannot be examined", admin, {"p d root:root 0700"}, {"verify", "@/p", "n"}, 1,
            {"p root:root 700"});

        // The service's launch definition, written through a temporary file.
        // Rights cover the launch definition locations only: here the copy is refused, and the temporary file stays.
        row("launchd, system-wide in another folder of root's: refused with rights", admin, ld, {"launchd", "@/ld/x.plist", "1"},
            3, {"ld/x.plist absent"}, "1 info");
        row("launchd, system-wide, rights refused", guest, ld, {"launchd", "@/ld/x.plist", "1"}, 2, {"ld/x.plist absent"},
            "0 refused");
        row("launchd, per user in root's folder", admin, ld, {"launchd", "@/ld/x.plist", "0"}, 6, {"ld/x.plist absent"});
    }

    void steps()
    {
        REQUIRE_PRIVILEGED();
        QFETCH(QString, user);
        QFETCH(QStringList, fixture);
        QFETCH(QStringList, call);
        QFETCH(int, result);
        QFETCH(QStringList, after);
        QFETCH(QString, prompts);
        QFETCH(QStringList, log);
        const int launches = prompts.section(' ', 0, 0).toInt();
        const QString dialog = prompts.section(' ', 1, 1), special = prompts.section(' ', 2, 2);
        if (!inChild()) {
            static int serial = 0;
            const QString folder = m_dir.filePath(QStringLiteral("case-%1").arg(++serial));
            QVERIFY(QDir().mkdir(folder) && writeFile(folder + ".log", QByteArray(), 0666) && createCountingLauncher(m_dir.path()));
            for (const QString &entry : fixture) {
                const QStringList p = expand(entry, folder, user).split(QRegularExpression("[ :]"));   // REL KIND OWNER GROUP MODE
                QCOMPARE(runProcess({"install", "-o", p[2], "-g", p[3], "-m", p[4], p[1] == "d" ? "-d" : "/dev/null", folder + '/' + p[0]})
                         .exitCode, 0);
            }
            QProcessEnvironment env = withLauncher(VELD_AUTHHELPER, m_dir.filePath(special == "dismissed" ? "dismiss" : "launch"));
            env.remove("XDG_RUNTIME_DIR");
            env.insert("VELD_CASE", folder);
            // A /tmp of the row's own, so that the temporary files there are its own; the build and source folders stay.
            QList<Wrap> wraps{asUser(user), atMakersFolder(folder), inPrivateMounts("s=$1 && mount --bind /tmp \"$s\" && mount -t tmpfs -o mode=1777 tmpfs /tmp && for p in "
                                                            "\"$2\" \"$3\"; do case $p in /tmp/?*) d=${p#/tmp/} && d=/tmp/${d%%/*} && { [ -d \"$d\" ] "
                                                            "|| { mkdir \"$d\" && mount --bind \"$s${d#/tmp}\" \"$d\"; }; } ;; esac; done",
                                                            {m_dir.filePath("tmp"), QCoreApplication::applicationDirPath(), __FILE__})};
            if (special == "readonly")
                wraps << inPrivateMounts("mount --bind \"$1\" \"$1\" && mount -o remount,bind,ro \"$1\"", {folder});
            else if (special == "nogroup")
                wraps << inPrivateMounts("mount --bind \"$1\" /etc/group", {m_dir.filePath("group")});
            runRowInChild({QString(), wraps, env});
            QCOMPARE(::launches(m_dir.path()), launches);
            return;
        }

        // The call, as the user, on the row's folder standing at the maker's folder.
        const QString folder = kMakersFolder;
        QStringList args;
        for (const QString &word : call)
            args << expand(word, folder, user);
        umask(022);
        OpenMacLog(QFile::encodeName(qEnvironmentVariable("VELD_CASE") + ".log").constData());
        gSystemScope = args.contains("--scope");
        gPrivilegeReason = args.contains("--noreason") ? QString() : "Rights are needed to prepare the database folder.";
        gAdminGid = getGroupId(adminGroupName());
        answerMessageBoxes(args.contains("--escape"));
        QVERIFY(!args.contains("--authority") || createAuthority(&gMacAuthorizationRef));
        args = args.filter(QRegularExpression("^(?!--)"));
        const QString f = args.value(0);
        const QByteArray first = QFile::encodeName(args.value(1)), second = QFile::encodeName(args.value(2));
        const char *a = first.constData(), *b = second.constData();
        int returned = -1;
        const QString err = standardErrorOf([&] {
            returned = f == "group" ? int(isUserInGroup(a)) : f == "establish" ? establishPrivsForSetup()
                       : f == "fixup"    ? fixupDirectory(a)             : f == "product" ? createProductDirectory(a)
                       : f == "resource" ? createResourceDirectory(a, b) : f == "verify"  ? verifyResourceDirectory(a, b)
                                         : createLaunchDaemonAgent(a, args.value(2) == "1", true);
        });
        if (gMacAuthorizationRef)
            freeAuthority(&gMacAuthorizationRef);
        QCOMPARE(returned, result);
        QStringList state;
        for (const QString &entry : after)
            state << entry.section(' ', 0, 0) + ' ' + ownership(folder + '/' + entry.section(' ', 0, 0));
        QCOMPARE(state, expand(after.join('\n'), folder, user).split('\n', Qt::SkipEmptyParts));
        // The experiment's file does not outlive it, nor does a definition's once copied into place (this /tmp is the row's own).
        QVERIFY(result != 0 || QDir("/tmp").entryList({"qv_computecontrol.*"}, QDir::Files | QDir::Hidden).isEmpty());

        const QString infoBox = "VELD Installer Install|" + gPrivilegeReason + "||OK|64x64";
        const QString refusedBox =
            "VELD Installer Install|VELD Installer must be installed by a user who is allowed to administer this computer "
            "(your account does not have this capability).\n\nFor the Name/password prompts that follow, you will need "
            "to supply the name and and password of ANOTHER user with admistrator privileges. ||*Cancel Installation|64x64";
        QCOMPARE(answeredMessageBoxes, dialog == "info" ? QStringList{infoBox} : dialog == "refused" ? QStringList{refusedBox}
                                                                                                       : QStringList());
        if (log.isEmpty())
            return;
        QStringList expected = log;
        expected.removeAll("-");
        const QStringList written = logMessages(qEnvironmentVariable("VELD_CASE") + ".log");
        QVERIFY2(written.size() == expected.size(), qPrintable(written.join('\n')));
        for (int i = 0; i < written.size(); ++i) {
            const QString line = expand(expected[i], folder, user);
            QVERIFY2(matchesGlob(written[i], line), qPrintable(written[i] + "\n  expected: " + line));
            // Failures go to standard error as well, with the same text.
            if (line.contains("Unable") || line.contains("not a directory") || line.contains("exists and has owner"))
                QVERIFY2(err.contains(line + '\n'), qPrintable(err));
        }
    }
};

QTEST_MAIN(tst_Privileges)
#include "tst_privileges.moc"
