#include "platform/authority.h"
#include "platform/log.h"
#include "platform/privileges.h"
#include "platform/users.h"
#include "privilegedsupport.h"
#include "service/launchdaemon.h"
#include "testsupport.h"
#include "wizarddriver.h"

#include <QApplication>
#include <QRegularExpression>
#include <QtTest>

#include <sys/stat.h>
#include <unistd.h>

// Every case runs this program again as an ordinary user ("--call"), on
// folders with real owners, groups and modes made here by root, and checks
// the result code, the folders afterwards, the log, standard error, the
// dialogs shown and the number of password prompts.

namespace {

const QString kHelper = QStringLiteral(VELD_AUTHHELPER);
const QString kReason = QStringLiteral("Rights are needed to prepare the database folder.");
const QString kAdmin = QStringLiteral("veldadmin");
const QString kGuest = QStringLiteral("veldguest");

// --call [--scope] [--log PATH] [--reason TEXT] [--escape] [--authority] FUNCTION ARGS...
int callMain(int argc, char **argv)
{
    QApplication app(argc, argv);
    QStringList args = app.arguments().mid(2);
    bool escape = false, authority = false;
    umask(022);
    while (!args.isEmpty() && args.first().startsWith(QLatin1String("--"))) {
        const QString option = args.takeFirst();
        if (option == QLatin1String("--scope"))
            gSystemScope = 1;
        else if (option == QLatin1String("--log"))
            OpenMacLog(QFile::encodeName(args.takeFirst()).constData());
        else if (option == QLatin1String("--reason"))
            gPrivilegeReason = args.takeFirst();
        else
            (option == QLatin1String("--escape") ? escape : authority) = true;
    }
    gAdminGid = getGroupId(adminGroupName());
    answerMessageBoxes(escape);
    if (authority)
        printf("authority=%d\n", createAuthority(&gMacAuthorizationRef) ? 1 : 0);
    const QString f = args.value(0);
    const QByteArray first = QFile::encodeName(args.value(1)), second = QFile::encodeName(args.value(2));
    const char *a = first.constData(), *b = second.constData();
    const int result = f == "group" ? int(isUserInGroup(a)) : f == "establish" ? establishPrivsForSetup()
                       : f == "fixup"    ? fixupDirectory(a)            : f == "product" ? createProductDirectory(a)
                       : f == "resource" ? createResourceDirectory(a, b) : f == "verify"  ? verifyResourceDirectory(a, b)
                       : f == "launchd"  ? createLaunchDaemonAgent(a, args.value(2) == "1", true) : -1;
    printf("result=%d\n", result);
    if (gMacAuthorizationRef)
        freeAuthority(&gMacAuthorizationRef);
    return 0;
}

// The log lines of isUserInGroup(the administrators' group) for a member and for someone who is not;
// a log entry "<member>" or "<outsider>" stands for them.
const QStringList kMemberLines{"isUserInGroup: getGroupId %A returned %G",
                               "isUserInGroup: mkstemp(/tmp/qv_computecontrol.*) returned *",
                               "isUserInGroup: fchown succeeded"};
const QStringList kOutsiderLines = kMemberLines.mid(0, 2)
    + QStringList{"isUserInGroup: fchown(*, -1, %G) returned -1", "", "Operation not permitted"};

// "@" is the case's folder, %A the administrators' group, %G its id, %u the user (and the user's group), %U its id.
QString expand(QString text, const QString &folder, const QString &user)
{
    return text.replace('@', folder).replace(QLatin1String("%u"), user)
        .replace(QLatin1String("%A"), QString::fromLatin1(adminGroupName()))
        .replace(QLatin1String("%G"), QString::number(int32_t(getGroupId(adminGroupName()))))
        .replace(QLatin1String("%U"), QString::number(userId(user.toLatin1().constData())));
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
        QVERIFY(m_launcher.create(m_dir.path()));
        // A launcher that ends as a dismissed password dialog does; a group database without the administrators'.
        QCOMPARE(runProcess("sh", {"-c", "printf '#!/bin/sh\\nexit 126\\n' >\"$0/dismiss\" && chmod 555 \"$0/dismiss\" && "
                                         "grep -Ev '^(sudo|wheel|admin):' /etc/group >\"$0/group\" && chmod 644 \"$0/group\"",
                                   m_dir.path()}).exitCode, 0);
    }
    void cleanup() { QVERIFY(allGone(helperProcesses(kHelper))); } // no case leaves a root helper behind
    void steps_data();
    void steps();
};

void tst_Privileges::steps_data()
{
    QTest::addColumn<QString>("user");
    QTest::addColumn<QString>("special");      // "readonly" folder, "nogroup" for administrators, password "dismissed"
    QTest::addColumn<QStringList>("fixture");  // "REL d|f OWNER:GROUP MODE" below the case's folder "@" (root's, 0755)
    QTest::addColumn<QStringList>("call");     // options and the function, as the child takes them
    QTest::addColumn<int>("result");
    QTest::addColumn<QStringList>("after");    // "REL OWNER:GROUP MODE" or "REL absent"
    QTest::addColumn<QStringList>("log");      // the whole log; "*" stands for any text
    QTest::addColumn<int>("launches");
    QTest::addColumn<QStringList>("dialogs");
    const auto infoBox = [](const QString &reason) { return "VELD Installer Install|" + reason + "||OK|64x64"; };
    const QStringList none, info{infoBox(kReason)};
    const QStringList refused{
        "VELD Installer Install|VELD Installer must be installed by a user who is allowed to administer this computer "
        "(your account does not have this capability).\\n\\nFor the Name/password prompts that follow, you will need "
        "to supply the name and and password of ANOTHER user with admistrator privileges. ||*Cancel Installation|64x64"};
    const QString succeeded = QStringLiteral("fixupDirectory: succeeded");
    const auto row = [](const char *name, const QString &user, const QStringList &fixture, const QStringList &call,
                        int result, const QStringList &after, const QStringList &log, int launches = 0,
                        const QStringList &dialogs = {}, const QString &special = QString()) {
        QTest::newRow(name) << user << special << fixture << call << result << after << log << launches << dialogs;
    };

    // Membership, by experiment (the administrators' group itself in the rows that ask for rights).
    row("a group that exists but is not the user's", kAdmin, none, {"group", "veldguest"}, 0, none,
        {"isUserInGroup: getGroupId veldguest returned *", "isUserInGroup: mkstemp(/tmp/qv_computecontrol.*) returned *",
         "isUserInGroup: fchown(*, -1, *) returned -1", "", "Operation not permitted"});
    row("root is in every group", "root", none, {"group", "veldguest"}, 1, none,
        {"isUserInGroup: getGroupId veldguest returned *", "isUserInGroup: mkstemp(/tmp/qv_computecontrol.*) returned *",
         "isUserInGroup: fchown succeeded"});
    row("no such group: no file made", kAdmin, none, {"group", "veld-no-such-group"}, 0, none,
        {"isUserInGroup: getGroupId veld-no-such-group returned -1"});

    // Asking for rights (asked for, refused and dismissed in the rows below that need rights).
    row("administrator, no reason: the box still shows", kAdmin, none, {"--reason", "", "establish"}, 0, none,
        {"<member>"}, 1, {infoBox(QString())});
    row("not an administrator, box closed with Escape", kGuest, none, {"--escape", "establish"}, 1, none,
        {"<outsider>"}, 0, refused);

    // fixupDirectory. Group and mode changed with one password: in "verify, parent's group and mode ...".
    const QStringList fixup{"--scope", "fixup", "@/d"};
    const QString chownTry = QStringLiteral("fixupDirectory: trying to set chown group-admin perms on @/d");
    const QString chmodTry = QStringLiteral("fixupDirectory: trying to set chmod group-admin perms on @/d");
    row("fixup, not system-wide: nothing touched or logged", kAdmin, {"d d root:root 0700"}, {"fixup", "@/d"}, 0,
        {"d root:root 700"}, none);
    row("fixup, already the group's and writable: silent", kAdmin, {"d d %u:%A 0775"}, fixup, 0, {"d %u:%A 775"}, none);
    row("fixup, group changed by the user, already writable", kAdmin, {"d d %u:%u 0775"}, fixup, 0,
        {"d %u:%A 775"}, {succeeded});
    row("fixup, group write added by the user", kAdmin, {"d d %u:%A 0750"}, fixup, 0, {"d %u:%A 775"}, {succeeded});
    row("fixup, group with rights", kAdmin, {"d d root:root 0775"}, fixup, 0, {"d root:%A 775"},
        {chownTry, "<member>", succeeded}, 1, info);
    row("fixup, mode with rights", kAdmin, {"d d root:%A 0755"}, fixup, 0, {"d root:%A 775"},
        {chmodTry, "<member>", succeeded}, 1, info);
    row("fixup, missing", kAdmin, none, fixup, 1, {"d absent"},
        {"fixupDirectory: Unable to determine status of directory...", "    @/d", "No such file or directory"});
    row("fixup, a file", kAdmin, {"d f %u:%u 0644"}, fixup, 2, {"d %u:%u 644"},
        {"fixupDirectory: @/d is not a directory."});
    row("fixup, not an administrator", kGuest, {"d d root:root 0775"}, fixup, 4, {"d root:root 775"},
        {chownTry, "<outsider>"}, 0, refused);
    row("fixup, password dialog dismissed", kAdmin, {"d d root:root 0775"}, fixup, 4, {"d root:root 775"},
        {chownTry, "<member>"}, 0, info, "dismissed");
    row("fixup, privileged chgrp not started", kAdmin, {"x d root:root 0755", "d d root:root 0775"},
        {"--scope", "fixup", "@/x/../d"}, 3, {"d root:root 775"},
        {"fixupDirectory: trying to set chown group-admin perms on @/x/../d", "<member>",
         "fixupDirectory: Unable to change group to 'admin' on directory @/x/../d"}, 1, info);
    row("fixup, privileged chmod not started", kAdmin, {"x d root:root 0755", "d d root:%A 0755"},
        {"--scope", "fixup", "@/x/../d"}, 5, {"d root:%A 755"},
        {"fixupDirectory: trying to set chmod group-admin perms on @/x/../d", "<member>",
         "fixupDirectory: Unable to add group write permission on directory @/x/../d"}, 1, info);
    row("fixup, read-only file system: group", kAdmin, {"d d %u:%u 0755"}, fixup, 4, {"d %u:%u 755"},
        {"fixupDirectory: Unable to change group to 'admin' on directory...", "    @/d", "Read-only file system"}, 0,
        none, "readonly");
    row("fixup, read-only file system: mode", kAdmin, {"d d %u:%A 0755"}, fixup, 6, {"d %u:%A 755"},
        {"fixupDirectory: Unable to add group write permission on directory...", "    @/d", "Read-only file system"}, 0,
        none, "readonly");

    // createProductDirectory.
    const QString trampoline = QStringLiteral("createProductDirectory: trying to mkdir @/d with trampoline");
    const QString denied = QStringLiteral("createProductDirectory: Unable to mkdir @/d, Permission denied");
    const QStringList product{"--scope", "product", "@/d"};
    row("product, not system-wide, refused", kAdmin, none, {"product", "@/d"}, 3, {"d absent"},
        {denied, "createProductDirectory: gSystemScope = 0, user not privileged"});
    row("product, not system-wide, made by the user", kAdmin, {"w d %u:%u 0755"}, {"product", "@/w/d"}, 0,
        {"w/d %u:%u 755"}, {"createProductDirectory: made dir @/w/d w/o needing privs, checking for fixup"});
    row("product, made by the user, then fixed up", kAdmin, {"w d %u:%u 0755"}, {"--scope", "product", "@/w/d"}, 0,
        {"w/d %u:%A 775"}, {"createProductDirectory: made dir @/w/d w/o needing privs, checking for fixup", succeeded});
    row("product, made with rights", kAdmin, none, product, 0, {"d %u:%A 775"},
        {denied, trampoline, "<member>", "createProductDirectory: succeeded"}, 1, info);
    row("product, existing folder given to the user", kAdmin, {"d d root:root 0700"}, product, 0, {"d %u:%A 700"},
        {"createProductDirectory: Unable to mkdir @/d, File exists", trampoline, "<member>",
         "createProductDirectory: succeeded"}, 1, info);
    row("product, not an administrator", kGuest, none, product, 4, {"d absent"}, {denied, trampoline, "<outsider>"}, 0,
        refused);
    row("product, privileged mkdir not started", kAdmin, {"x d root:root 0755"}, {"--scope", "product", "@/x/../d"}, 1,
        {"d absent"},
        {"createProductDirectory: Unable to mkdir @/x/../d, Permission denied",
         "createProductDirectory: trying to mkdir @/x/../d with trampoline", "<member>",
         "createProductDirectory: runCommandWithAuthority(/bin/mkdir -m 775 @/x/../d) failed"}, 1, info);
    row("product, privileged chown not started", kAdmin, none, {"--authority", "--scope", "product", "@/d"}, 2,
        {"d root:root 775"},
        {denied, trampoline, "createProductDirectory: runCommandWithAuthority(/bin/usr/sbin/chown %U:-1 @/d) failed"}, 1,
        none, "nogroup");

    // createResourceDirectory.
    const QStringList resource{"--scope", "resource", "@/p", "n"};
    const QString parentDenied = QStringLiteral("createResourceDirectory: Unable to mkdir @/p, Permission denied");
    const QString parentTrampoline = QStringLiteral("createResourceDirectory: trying to mkdir @/p with trampoline");
    const QStringList userMade{"createResourceDirectory: made dir @/w/p w/o needing privs, checking for fixup",
                               "createResourceDirectory: making dir @/w/p/n w/o needing privs",
                               "createProductDirectory: made dir @/w/p/n w/o needing privs, checking for fixup"};
    row("resource, not system-wide, refused", kAdmin, none, {"resource", "@/p", "n"}, 5, {"p absent"},
        {parentDenied, "createResourceDirectory: gSystemScope = 0, user not privileged"});
    row("resource, made by the user, then fixed up", kAdmin, {"w d %u:%u 0755"}, {"--scope", "resource", "@/w/p", "n"},
        0, {"w/p %u:%A 775", "w/p/n %u:%A 775"}, {userMade[0], succeeded, userMade[1], userMade[2], succeeded});
    row("resource, made with rights", kAdmin, none, resource, 0, {"p root:%A 775", "p/n %u:%A 775"},
        {parentDenied, parentTrampoline, "<member>", "createResourceDirectory: succeeded"}, 1, info);
    row("resource, not an administrator", kGuest, none, resource, 4, {"p absent"},
        {parentDenied, parentTrampoline, "<outsider>"}, 0, refused);
    row("resource, privileged mkdir of the parent not started", kAdmin, {"x d root:root 0755"},
        {"--scope", "resource", "@/x/../p", "n"}, 1, {"p absent"},
        {"createResourceDirectory: Unable to mkdir @/x/../p, Permission denied",
         "createResourceDirectory: trying to mkdir @/x/../p with trampoline", "<member>",
         "createResourceDirectory: runCommandWithAuthority(/bin/mkdir -m 775 @/x/../p) failed"}, 1, info);
    row("resource, privileged chgrp not started", kAdmin, none, {"--authority", "--scope", "resource", "@/p", "n"}, 2,
        {"p root:root 775", "p/n absent"},
        {parentDenied, parentTrampoline, "createResourceDirectory: runCommandWithAuthority(/usr/bin/chgrp -1 @/p) failed"},
        1, none, "nogroup");
    row("resource, privileged mkdir of the folder not started", kAdmin, none, {"--scope", "resource", "@/p", ".."}, 3,
        {"p root:%A 775"},
        {parentDenied, parentTrampoline, "<member>",
         "createResourceDirectory: runCommandWithAuthority(/bin/mkdir -m 775 @/p/..) failed"}, 1, info);

    // verifyResourceDirectory.
    const QStringList verify{"--scope", "verify", "@/p", "n"};
    const QString fixedParent = QStringLiteral("verifyResourceDirectory: fixup of @/p returned 0");
    const QString creating = QStringLiteral("verifyResourceDirectory: @/p/n does not exist, creating");
    const QString userMadeN = QStringLiteral("createProductDirectory: made dir @/p/n w/o needing privs, checking for fixup");
    row("verify, parent missing: both made", kAdmin, {"w d %u:%u 0755"}, {"--scope", "verify", "@/w/p", "n"}, 0,
        {"w/p %u:%A 775", "w/p/n %u:%A 775"},
        {"verifyResourceDirectory: @/w/p does not exist, creating", userMade[0], succeeded, userMade[1], userMade[2],
         succeeded});
    row("verify, parent cannot be examined", kAdmin, {"x d root:root 0700"}, {"--scope", "verify", "@/x/p", "n"}, 1,
        none, {"verifyResourceDirectory: Unable to determine status of file...", "    @/x/p", "Permission denied"});
    row("verify, second installation: the folder made by the user", kAdmin, {"p d root:%A 0775"}, verify, 0,
        {"p root:%A 775", "p/n %u:%A 775"}, {fixedParent, creating, userMadeN, succeeded});
    row("verify, parent's group and mode reported and fixed with one password", kAdmin, {"p d root:root 0755"}, verify,
        0, {"p root:%A 775", "p/n %u:%A 775"},
        {"verifyResourceDirectory: \"@/p\" exists and has owner 0 group 0 and mode 40755",
         "fixupDirectory: trying to set chown group-admin perms on @/p", "<member>",
         "fixupDirectory: trying to set chmod group-admin perms on @/p", succeeded, fixedParent, creating, userMadeN,
         succeeded}, 1, info);
    row("verify, existing folder fixed up", kAdmin, {"p d root:%A 0775", "p/n d %u:%u 0755"}, verify, 0,
        {"p/n %u:%A 775"}, {fixedParent, "verifyResourceDirectory: checking @/p/n for fixup", succeeded});
    row("verify, the folder is a file", kAdmin, {"p d root:%A 0775", "p/n f %u:%u 0644"}, verify, 2, {"p/n %u:%u 644"},
        {fixedParent, "verifyResourceDirectory: checking @/p/n for fixup", "fixupDirectory: @/p/n is not a directory."});
    row("verify, not system-wide, folder cannot be examined", kAdmin, {"p d root:root 0700"}, {"verify", "@/p", "n"}, 1,
        {"p root:root 700"},
        {fixedParent, "verifyResourceDirectory: Unable to determine status of directory...", "    @/p/n",
         "Permission denied"});

    // The service's launch definition, written through a temporary file.
    const QStringList ld{"ld d root:root 0755"};
    const QString cp = "createLaunchDaemonAgent: trying to cp /tmp/qv_computecontrol.* to @/ld/x.plist with trampoline";
    row("launchd, system-wide in root's folder: copied into place with rights", kAdmin, ld,
        {"launchd", "@/ld/x.plist", "1"}, 0, {"ld/x.plist root:root 644"}, {cp, "<member>"}, 1, info);
    row("launchd, system-wide, rights refused", kGuest, ld, {"launchd", "@/ld/x.plist", "1"}, 2, {"ld/x.plist absent"},
        {cp, "<outsider>"}, 0, refused);
    row("launchd, per user in root's folder", kAdmin, ld, {"launchd", "@/ld/x.plist", "0"}, 6, {"ld/x.plist absent"},
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
    QFETCH(QStringList, log);
    QFETCH(int, launches);
    QFETCH(QStringList, dialogs);

    static int serial = 0;
    const QString folder = m_dir.filePath(QStringLiteral("case-%1").arg(++serial));
    const QString logFile = folder + QStringLiteral(".log");
    QVERIFY(QDir().mkdir(folder));
    for (const QString &entry : fixture) {
        const QStringList p = expand(entry, folder, user).split(QRegularExpression("[ :]")); // REL KIND OWNER GROUP MODE
        QCOMPARE(runProcess("install", {"-o", p[2], "-g", p[3], "-m", p[4], p[1] == "d" ? "-d" : "/dev/null",
                                        folder + '/' + p[0]}).exitCode, 0);
    }
    QCOMPARE(runProcess("install", {"-m", "666", "/dev/null", logFile}).exitCode, 0);
    QVERIFY(m_launcher.reset());

    QStringList args{QStringLiteral("--call"), QStringLiteral("--log"), logFile, QStringLiteral("--reason"), kReason};
    for (const QString &word : call)
        args << expand(word, folder, user);
    QStringList command = asUser(user, QCoreApplication::applicationFilePath(), args);
    if (special == QLatin1String("readonly"))
        command = inPrivateMounts(QStringLiteral("mount --bind \"$1\" \"$1\" && mount -o remount,bind,ro \"$1\""), {folder},
                                  command.first(), command.mid(1));
    else if (special == QLatin1String("nogroup"))
        command = withGroupDatabase(m_dir.filePath(QStringLiteral("group")), command.first(), command.mid(1));
    QProcessEnvironment env =
        m_launcher.environment(kHelper, special == QLatin1String("dismissed") ? m_dir.filePath("dismiss") : QString());
    env.remove(QStringLiteral("XDG_RUNTIME_DIR"));
    const ProcessResult run = runProcess(command.first(), command.mid(1), env);

    const QString context = run.out + run.err;
    QVERIFY2(run.exitCode == 0, qPrintable(context));
    QStringList out = run.out.split('\n', Qt::SkipEmptyParts);
    QVERIFY2(out.removeAll(QStringLiteral("result=%1").arg(result)) == 1, qPrintable(context));
    out.removeAll(QStringLiteral("authority=1"));
    for (QString &dialog : dialogs)
        dialog.prepend(QStringLiteral("dialog="));
    QCOMPARE(out, dialogs);
    QCOMPARE(m_launcher.launches(), launches);
    for (const QString &entry : after) {
        const QString rel = entry.section(' ', 0, 0);
        const ProcessResult status = runProcess("stat", {"-c", "%U:%G %a", folder + '/' + rel});
        QCOMPARE(rel + ' ' + (status.exitCode == 0 ? status.out.trimmed() : QStringLiteral("absent")), expand(entry, folder, user));
    }

    QStringList expectedLog;
    for (const QString &line : log)
        expectedLog << (line == "<member>" ? kMemberLines : line == "<outsider>" ? kOutsiderLines : QStringList{line});
    const QStringList written = logMessages(logFile);
    QVERIFY2(written.size() == expectedLog.size(), qPrintable(written.join('\n')));
    for (int i = 0; i < written.size(); ++i) {
        const QString expected = expand(expectedLog[i], folder, user);
        const QString pattern = QRegularExpression::escape(expected).replace(QLatin1String("\\*"), QLatin1String(".*"));
        QVERIFY2(QRegularExpression(QRegularExpression::anchoredPattern(pattern)).match(written[i]).hasMatch(),
                 qPrintable(written[i] + QStringLiteral("\n  expected: ") + expected));
        // Failures go to standard error as well, with the same text.
        if (expected.contains(QLatin1String("Unable")) || expected.contains(QLatin1String("not a directory"))
            || expected.contains(QLatin1String("exists and has owner")))
            QVERIFY2(run.err.contains(expected + '\n'), qPrintable(run.err));
        // The experiment's file does not outlive it, nor does a definition's once copied into place.
        static const QRegularExpression probe(QStringLiteral("(mkstemp\\(|trying to cp )(/tmp/qv_computecontrol\\.[^) ]+)"));
        const QRegularExpressionMatch made = probe.match(written[i]);
        if (made.hasMatch() && (made.captured(1).startsWith(QLatin1String("mkstemp")) || result == 0))
            QVERIFY2(!QFileInfo::exists(made.captured(2)), qPrintable(made.captured(2)));
    }
}

int main(int argc, char **argv)
{
    if (argc > 1 && strcmp(argv[1], "--call") == 0)
        return callMain(argc, argv);
    QApplication app(argc, argv);
    tst_Privileges test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_privileges.moc"
