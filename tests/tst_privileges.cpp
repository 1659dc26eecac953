#include "platform/authority.h"
#include "platform/log.h"
#include "platform/privileges.h"
#include "platform/users.h"
#include "service/launchdaemon.h"
#include "testsupport.h"
#include "wizarddriver.h"

#include <QApplication>
#include <QRegularExpression>
#include <QtTest>

#include <sys/stat.h>
#include <unistd.h>

// Each row runs in a child process as an ordinary user, on folders with real
// owners, groups and modes made here by root, and checks the result code, the
// folders afterwards, the dialogs shown and the number of password prompts;
// where a row gives one, the whole log too, and that its failures also went to
// standard error.

namespace {

const QString kReason = QStringLiteral("Rights are needed to prepare the database folder.");
const QString kAdmin = QStringLiteral("veldadmin");
const QString kGuest = QStringLiteral("veldguest");

// The log lines of isUserInGroup(the administrators' group) for a member and for someone who is not;
// a log entry "<member>" or "<outsider>" stands for them.
const QStringList kMemberLines{"isUserInGroup: getGroupId %A returned %G",
                               "isUserInGroup: mkstemp(/tmp/qv_computecontrol.*) returned *",
                               "isUserInGroup: fchown succeeded"};
const QStringList kOutsiderLines = kMemberLines.mid(0, 2)
    + QStringList{"isUserInGroup: fchown(*, -1, %G) returned -1", "", "Operation not permitted"};

// "@" is the row's folder, %A the administrators' group, %G its id, %u the user (and the user's group), %U its id.
QString expand(QString text, const QString &folder, const QString &user)
{
    return text.replace('@', folder).replace("%u", user).replace("%A", QString::fromLatin1(adminGroupName()))
        .replace("%G", QString::number(int32_t(getGroupId(adminGroupName()))))
        .replace("%U", QString::number(userId(user)));
}

int temporaryFiles()
{
    return QDir("/tmp").entryList({"qv_computecontrol.*"}, QDir::Files | QDir::Hidden).size();
}

} // namespace

class tst_Privileges : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    CountingLauncher m_launcher;

private slots:
    void initTestCase()
    {
        if (inChild())
            return;
        QVERIFY(m_launcher.create(m_dir.path()));
        // A launcher that ends as a dismissed password dialog does; a group database without the administrators'.
        QVERIFY(writeScript(m_dir.filePath("dismiss"), "exit 126\n"));
        QCOMPARE(runProcess({"sh", "-c", "grep -Ev '^(sudo|wheel|admin):' /etc/group >\"$0/group\" && chmod 644 \"$0/group\"",
                             m_dir.path()}).exitCode, 0);
    }
    void cleanup() { QVERIFY(allGone(processesMentioning(VELD_AUTHHELPER))); }   // no row leaves a root helper behind
    void steps_data();
    void steps();
};

void tst_Privileges::steps_data()
{
    QTest::addColumn<QString>("user");
    QTest::addColumn<QString>("special");      // "readonly" folder, "nogroup" for administrators, password "dismissed"
    QTest::addColumn<QStringList>("fixture");  // "REL d|f OWNER:GROUP MODE" below the row's folder "@" (root's, 0755)
    QTest::addColumn<QStringList>("call");     // options and the function
    QTest::addColumn<int>("result");
    QTest::addColumn<QStringList>("after");    // "REL OWNER:GROUP MODE" or "REL absent"
    QTest::addColumn<int>("launches");
    QTest::addColumn<QString>("dialog");       // "info", "refused" or none
    QTest::addColumn<QStringList>("log");      // the whole log ("*" stands for any text), "-" for none; empty: not checked
    const QStringList none, nothing{"-"};
    const auto row = [](const char *name, const QString &user, const QStringList &fixture, const QStringList &call, int result,
                        const QStringList &after, int launches = 0, const QString &dialog = QString(),
                        const QStringList &log = QStringList(), const QString &special = QString()) {
        QTest::newRow(name) << user << special << fixture << call << result << after << launches << dialog << log;
    };
    const QString succeeded = "fixupDirectory: succeeded";

    // Membership, by experiment (the administrators' group itself in the rows that ask for rights).
    row("a group that exists but is not the user's", kAdmin, none, {"group", "veldguest"}, 0, none, 0, "",
        {"isUserInGroup: getGroupId veldguest returned *", "isUserInGroup: mkstemp(/tmp/qv_computecontrol.*) returned *",
         "isUserInGroup: fchown(*, -1, *) returned -1", "", "Operation not permitted"});
    row("root is in every group", "root", none, {"group", "veldguest"}, 1, none);
    row("no such group: no file made", kAdmin, none, {"group", "veld-no-such-group"}, 0, none, 0, "",
        {"isUserInGroup: getGroupId veld-no-such-group returned -1"});

    // Asking for rights (asked for, refused and dismissed in the rows below that need rights).
    row("administrator, no reason: the box still shows", kAdmin, none, {"--reason", "", "establish"}, 0, none, 1, "info",
        {"<member>"});
    row("not an administrator, box closed with Escape", kGuest, none, {"--escape", "establish"}, 1, none, 0, "refused",
        {"<outsider>"});

    // fixupDirectory. Group and mode changed with one password: in "verify, parent's group and mode ...".
    const QStringList fixup{"--scope", "fixup", "@/d"}, through{"--scope", "fixup", "@/x/../d"};
    row("fixup, not system-wide: nothing touched or logged", kAdmin, {"d d root:root 0700"}, {"fixup", "@/d"}, 0,
        {"d root:root 700"}, 0, "", nothing);
    row("fixup, already the group's and writable: silent", kAdmin, {"d d %u:%A 0775"}, fixup, 0, {"d %u:%A 775"}, 0, "",
        nothing);
    row("fixup, group changed by the user, already writable", kAdmin, {"d d %u:%u 0775"}, fixup, 0, {"d %u:%A 775"}, 0, "",
        {succeeded});
    row("fixup, group write added by the user", kAdmin, {"d d %u:%A 0750"}, fixup, 0, {"d %u:%A 775"});
    row("fixup, group with rights", kAdmin, {"d d root:root 0775"}, fixup, 0, {"d root:%A 775"}, 1, "info",
        {"fixupDirectory: trying to set chown group-admin perms on @/d", "<member>", succeeded});
    row("fixup, mode with rights", kAdmin, {"d d root:%A 0755"}, fixup, 0, {"d root:%A 775"}, 1, "info");
    row("fixup, missing", kAdmin, none, fixup, 1, {"d absent"}, 0, "",
        {"fixupDirectory: Unable to determine status of directory...", "    @/d", "No such file or directory"});
    row("fixup, a file", kAdmin, {"d f %u:%u 0644"}, fixup, 2, {"d %u:%u 644"}, 0, "",
        {"fixupDirectory: @/d is not a directory."});
    row("fixup, not an administrator", kGuest, {"d d root:root 0775"}, fixup, 4, {"d root:root 775"}, 0, "refused");
    row("fixup, password dialog dismissed", kAdmin, {"d d root:root 0775"}, fixup, 4, {"d root:root 775"}, 0, "info",
        none, "dismissed");
    row("fixup, privileged chgrp not started", kAdmin, {"x d root:root 0755", "d d root:root 0775"}, through, 3,
        {"d root:root 775"}, 1, "info",
        {"fixupDirectory: trying to set chown group-admin perms on @/x/../d", "<member>",
         "fixupDirectory: Unable to change group to 'admin' on directory @/x/../d"});
    row("fixup, privileged chmod not started", kAdmin, {"x d root:root 0755", "d d root:%A 0755"}, through, 5,
        {"d root:%A 755"}, 1, "info");
    row("fixup, read-only file system: group", kAdmin, {"d d %u:%u 0755"}, fixup, 4, {"d %u:%u 755"}, 0, "",
        {"fixupDirectory: Unable to change group to 'admin' on directory...", "    @/d", "Read-only file system"}, "readonly");
    row("fixup, read-only file system: mode", kAdmin, {"d d %u:%A 0755"}, fixup, 6, {"d %u:%A 755"}, 0, "",
        {"fixupDirectory: Unable to add group write permission on directory...", "    @/d", "Read-only file system"},
        "readonly");

    // createProductDirectory.
    const QString trampoline = "createProductDirectory: trying to mkdir @/d with trampoline";
    const QString denied = "createProductDirectory: Unable to mkdir @/d, Permission denied";
    const QStringList product{"--scope", "product", "@/d"};
    row("product, not system-wide, refused", kAdmin, none, {"product", "@/d"}, 3, {"d absent"}, 0, "",
        {denied, "createProductDirectory: gSystemScope = 0, user not privileged"});
    row("product, not system-wide, made by the user", kAdmin, {"w d %u:%u 0755"}, {"product", "@/w/d"}, 0, {"w/d %u:%u 755"});
    row("product, made by the user, then fixed up", kAdmin, {"w d %u:%u 0755"}, {"--scope", "product", "@/w/d"}, 0,
        {"w/d %u:%A 775"}, 0, "",
        {"createProductDirectory: made dir @/w/d w/o needing privs, checking for fixup", succeeded});
    row("product, made with rights", kAdmin, none, product, 0, {"d %u:%A 775"}, 1, "info",
        {denied, trampoline, "<member>", "createProductDirectory: succeeded"});
    row("product, existing folder given to the user", kAdmin, {"d d root:root 0700"}, product, 0, {"d %u:%A 700"}, 1, "info");
    row("product, not an administrator", kGuest, none, product, 4, {"d absent"}, 0, "refused");
    row("product, privileged mkdir not started", kAdmin, {"x d root:root 0755"}, {"--scope", "product", "@/x/../d"}, 1,
        {"d absent"}, 1, "info");
    row("product, privileged chown not started", kAdmin, none, {"--authority", "--scope", "product", "@/d"}, 2,
        {"d root:root 775"}, 1, "",
        {denied, trampoline, "createProductDirectory: runCommandWithAuthority(/bin/usr/sbin/chown %U:-1 @/d) failed"},
        "nogroup");

    // createResourceDirectory.
    const QStringList resource{"--scope", "resource", "@/p", "n"};
    const QString parentDenied = "createResourceDirectory: Unable to mkdir @/p, Permission denied";
    const QString parentTrampoline = "createResourceDirectory: trying to mkdir @/p with trampoline";
    row("resource, not system-wide, refused", kAdmin, none, {"resource", "@/p", "n"}, 5, {"p absent"});
    row("resource, made by the user, then fixed up", kAdmin, {"w d %u:%u 0755"}, {"--scope", "resource", "@/w/p", "n"}, 0,
        {"w/p %u:%A 775", "w/p/n %u:%A 775"}, 0, "",
        {"createResourceDirectory: made dir @/w/p w/o needing privs, checking for fixup", succeeded,
         "createResourceDirectory: making dir @/w/p/n w/o needing privs",
         "createProductDirectory: made dir @/w/p/n w/o needing privs, checking for fixup", succeeded});
    row("resource, made with rights", kAdmin, none, resource, 0, {"p root:%A 775", "p/n %u:%A 775"}, 1, "info",
        {parentDenied, parentTrampoline, "<member>", "createResourceDirectory: succeeded"});
    row("resource, not an administrator", kGuest, none, resource, 4, {"p absent"}, 0, "refused");
    row("resource, privileged mkdir of the parent not started", kAdmin, {"x d root:root 0755"},
        {"--scope", "resource", "@/x/../p", "n"}, 1, {"p absent"}, 1, "info");
    row("resource, privileged chgrp not started", kAdmin, none, {"--authority", "--scope", "resource", "@/p", "n"}, 2,
        {"p root:root 775", "p/n absent"}, 1, "", none, "nogroup");
    row("resource, privileged mkdir of the folder not started", kAdmin, none, {"--scope", "resource", "@/p", ".."}, 3,
        {"p root:%A 775"}, 1, "info");

    // verifyResourceDirectory.
    const QStringList verify{"--scope", "verify", "@/p", "n"};
    const QString fixedParent = "verifyResourceDirectory: fixup of @/p returned 0";
    row("verify, parent missing: both made", kAdmin, {"w d %u:%u 0755"}, {"--scope", "verify", "@/w/p", "n"}, 0,
        {"w/p %u:%A 775", "w/p/n %u:%A 775"});
    row("verify, parent cannot be examined", kAdmin, {"x d root:root 0700"}, {"--scope", "verify", "@/x/p", "n"}, 1, none, 0,
        "", {"verifyResourceDirectory: Unable to determine status of file...", "    @/x/p", "Permission denied"});
    row("verify, second installation: the folder made by the user", kAdmin, {"p d root:%A 0775"}, verify, 0,
        {"p root:%A 775", "p/n %u:%A 775"});
    row("verify, parent's group and mode reported and fixed with one password", kAdmin, {"p d root:root 0755"}, verify, 0,
        {"p root:%A 775", "p/n %u:%A 775"}, 1, "info",
        {"verifyResourceDirectory: \"@/p\" exists and has owner 0 group 0 and mode 40755",
         "fixupDirectory: trying to set chown group-admin perms on @/p", "<member>",
         "fixupDirectory: trying to set chmod group-admin perms on @/p", succeeded, fixedParent,
         "verifyResourceDirectory: @/p/n does not exist, creating",
         "createProductDirectory: made dir @/p/n w/o needing privs, checking for fixup", succeeded});
    row("verify, existing folder fixed up", kAdmin, {"p d root:%A 0775", "p/n d %u:%u 0755"}, verify, 0, {"p/n %u:%A 775"},
        0, "", {fixedParent, "verifyResourceDirectory: checking @/p/n for fixup", succeeded});
    row("verify, the folder is a file", kAdmin, {"p d root:%A 0775", "p/n f %u:%u 0644"}, verify, 2, {"p/n %u:%u 644"});
    row("verify, not system-wide, folder cannot be examined", kAdmin, {"p d root:root 0700"}, {"verify", "@/p", "n"}, 1,
        {"p root:root 700"});

    // The service's launch definition, written through a temporary file.
    const QStringList ld{"ld d root:root 0755"};
    row("launchd, system-wide in root's folder: copied into place with rights", kAdmin, ld, {"launchd", "@/ld/x.plist", "1"},
        0, {"ld/x.plist root:root 644"}, 1, "info",
        {"createLaunchDaemonAgent: trying to cp /tmp/qv_computecontrol.* to @/ld/x.plist with trampoline", "<member>"});
    row("launchd, system-wide, rights refused", kGuest, ld, {"launchd", "@/ld/x.plist", "1"}, 2, {"ld/x.plist absent"}, 0,
        "refused");
    row("launchd, per user in root's folder", kAdmin, ld, {"launchd", "@/ld/x.plist", "0"}, 6, {"ld/x.plist absent"}, 0, "",
        {"Error trying to create @/ld/x.plist, Permission denied"});
}

void tst_Privileges::steps()
{
    REQUIRE_PRIVILEGED();
    QFETCH(QString, user);
    QFETCH(QString, special);
    QFETCH(QStringList, fixture);
    QFETCH(QStringList, call);
    QFETCH(int, result);
    QFETCH(QStringList, after);
    QFETCH(int, launches);
    QFETCH(QString, dialog);
    QFETCH(QStringList, log);

    if (!inChild()) {
        static int serial = 0;
        const QString folder = m_dir.filePath(QStringLiteral("case-%1").arg(++serial));
        QVERIFY(QDir().mkdir(folder));
        for (const QString &entry : fixture) {
            const QStringList p = expand(entry, folder, user).split(QRegularExpression("[ :]"));   // REL KIND OWNER GROUP MODE
            QCOMPARE(runProcess({"install", "-o", p[2], "-g", p[3], "-m", p[4], p[1] == "d" ? "-d" : "/dev/null",
                                 folder + '/' + p[0]}).exitCode, 0);
        }
        QVERIFY(writeFile(folder + ".log", QByteArray(), 0666));
        QVERIFY(m_launcher.reset());
        QProcessEnvironment env = m_launcher.environment(VELD_AUTHHELPER, special == "dismissed" ? m_dir.filePath("dismiss") : "");
        env.remove("XDG_RUNTIME_DIR");
        env.insert("VELD_CASE", folder);
        QList<Wrap> wraps{asUser(user)};
        if (special == "readonly")
            wraps << inPrivateMounts("mount --bind \"$1\" \"$1\" && mount -o remount,bind,ro \"$1\"", {folder});
        else if (special == "nogroup")
            wraps << inPrivateMounts("mount --bind \"$1\" /etc/group", {m_dir.filePath("group")});
        runRowInChild({QString(), wraps, env});
        QCOMPARE(m_launcher.launches(), launches);
        return;
    }

    // The call, as the user.
    const QString folder = qEnvironmentVariable("VELD_CASE");
    QStringList args;
    for (const QString &word : call)
        args << expand(word, folder, user);
    bool escape = false, authority = false;
    umask(022);
    OpenMacLog(QFile::encodeName(folder + ".log").constData());
    gPrivilegeReason = kReason;
    while (args.first().startsWith("--")) {
        const QString option = args.takeFirst();
        gSystemScope = gSystemScope || option == "--scope";
        escape = escape || option == "--escape";
        authority = authority || option == "--authority";
        if (option == "--reason")
            gPrivilegeReason = args.takeFirst();
    }
    gAdminGid = getGroupId(adminGroupName());
    answerMessageBoxes(escape);
    QVERIFY(!authority || createAuthority(&gMacAuthorizationRef));
    const QString f = args.value(0);
    const QByteArray first = QFile::encodeName(args.value(1)), second = QFile::encodeName(args.value(2));
    const char *a = first.constData(), *b = second.constData();
    const int temporaries = temporaryFiles();
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
    QCOMPARE(state, after.replaceInStrings("%u", user).replaceInStrings("%A", QString::fromLatin1(adminGroupName())));
    // The experiment's file does not outlive it, nor does a definition's once copied into place.
    QVERIFY(result != 0 || temporaryFiles() == temporaries);

    const QString infoBox = "VELD Installer Install|" + gPrivilegeReason + "||OK|64x64";
    const QString refusedBox =
        "VELD Installer Install|VELD Installer must be installed by a user who is allowed to administer this computer "
        "(your account does not have this capability).\n\nFor the Name/password prompts that follow, you will need "
        "to supply the name and and password of ANOTHER user with admistrator privileges. ||*Cancel Installation|64x64";
    QCOMPARE(answeredMessageBoxes(), dialog == "info" ? QStringList{infoBox} : dialog == "refused" ? QStringList{refusedBox}
                                                                                                   : QStringList());
    if (log.isEmpty())
        return;
    QStringList expected;
    for (const QString &line : log) {
        if (line != "-")
            expected << (line == "<member>" ? kMemberLines : line == "<outsider>" ? kOutsiderLines : QStringList{line});
    }
    const QStringList written = logMessages(folder + ".log");
    QVERIFY2(written.size() == expected.size(), qPrintable(written.join('\n')));
    for (int i = 0; i < written.size(); ++i) {
        const QString line = expand(expected[i], folder, user);
        QVERIFY2(matchesGlob(written[i], line), qPrintable(written[i] + "\n  expected: " + line));
        // Failures go to standard error as well, with the same text.
        if (line.contains("Unable") || line.contains("not a directory") || line.contains("exists and has owner"))
            QVERIFY2(err.contains(line + '\n'), qPrintable(err));
    }
}

QTEST_MAIN(tst_Privileges)
#include "tst_privileges.moc"
