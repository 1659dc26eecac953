#include "platform/authority.h"
#include "platform/log.h"
#include "platform/privileges.h"
#include "platform/users.h"
#include "privilegedsupport.h"
#include "service/launchdaemon.h"
#include "testsupport.h"
#include "wizarddriver.h"

#include <QApplication>
#include <QMessageBox>
#include <QRegularExpression>
#include <QtTest>

#include <grp.h>
#include <pwd.h>
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

// ---- The child: one call as the user, dialogs answered, outcome printed ----

// --call [--scope N] [--log PATH] [--reason TEXT] [--escape] [--authority] FUNCTION ARGS...
int callMain(int argc, char **argv)
{
    QApplication app(argc, argv);
    QStringList args = app.arguments().mid(2);
    bool escape = false;
    bool authority = false;
    umask(022);
    while (!args.isEmpty() && args.first().startsWith(QLatin1String("--"))) {
        const QString option = args.takeFirst();
        if (option == QLatin1String("--scope"))
            gSystemScope = args.takeFirst().toInt();
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

    const QString function = args.value(0);
    const QByteArray first = QFile::encodeName(args.value(1));
    const QByteArray second = QFile::encodeName(args.value(2));
    int result = -1;
    if (function == QLatin1String("group"))
        result = isUserInGroup(first.constData()) ? 1 : 0;
    else if (function == QLatin1String("establish"))
        result = establishPrivsForSetup();
    else if (function == QLatin1String("fixup"))
        result = fixupDirectory(first.constData());
    else if (function == QLatin1String("product"))
        result = createProductDirectory(first.constData());
    else if (function == QLatin1String("resource"))
        result = createResourceDirectory(first.constData(), second.constData());
    else if (function == QLatin1String("verify"))
        result = verifyResourceDirectory(first.constData(), second.constData());
    else if (function == QLatin1String("launchd"))
        result = createLaunchDaemonAgent(first.constData(), args.value(2) == QLatin1String("1"), true);
    printf("result=%d\n", result);
    if (gMacAuthorizationRef)
        freeAuthority(&gMacAuthorizationRef);
    return 0;
}

// ---- The test's side ----

QString adminName()
{
    return QString::fromLatin1(adminGroupName());
}

QString adminGidText()
{
    return QString::number(int32_t(getGroupId(adminGroupName())));
}

// The log lines of isUserInGroup(admin group) for a member and for someone who is not.
QStringList memberLines()
{
    return {QStringLiteral("isUserInGroup: getGroupId %A returned %G"),
            QStringLiteral("isUserInGroup: mkstemp(/tmp/qv_computecontrol.*) returned *"),
            QStringLiteral("isUserInGroup: fchown succeeded")};
}

QStringList outsiderLines()
{
    return {QStringLiteral("isUserInGroup: getGroupId %A returned %G"),
            QStringLiteral("isUserInGroup: mkstemp(/tmp/qv_computecontrol.*) returned *"),
            QStringLiteral("isUserInGroup: fchown(*, -1, %G) returned -1"), QString(),
            QStringLiteral("Operation not permitted")};
}

QString infoBox(const QString &reason)
{
    return QStringLiteral("VELD Installer Install|") + reason + QStringLiteral("||OK|64x64");
}

const QString kOutsiderBox = QStringLiteral(
    "VELD Installer Install|VELD Installer must be installed by a user who is allowed to administer this computer "
    "(your account does not have this capability).\\n\\nFor the Name/password prompts that follow, you will need "
    "to supply the name and and password of ANOTHER user with admistrator privileges. ||*Cancel Installation|64x64");

// "REL owner:group MODE" for what is at folder/rel, with ids named as the fixtures name them.
QString describe(const QString &folder, const QString &rel, const QString &user)
{
    struct stat status;
    if (lstat(QFile::encodeName(folder + '/' + rel).constData(), &status) != 0)
        return rel + QStringLiteral(" absent");
    const passwd *account = getpwnam(user.toLatin1().constData());
    const auto owner = [&](uid_t uid) {
        return uid == 0 ? QStringLiteral("root") : account && uid == account->pw_uid ? QStringLiteral("user") : QString::number(uid);
    };
    const auto group = [&](gid_t gid) {
        return gid == 0                                         ? QStringLiteral("root")
               : gid == gid_t(getGroupId(adminGroupName()))      ? QStringLiteral("admin")
               : account && gid == account->pw_gid              ? QStringLiteral("user")
                                                                : QString::number(gid);
    };
    return QStringLiteral("%1 %2:%3 %4").arg(rel, owner(status.st_uid), group(status.st_gid))
        .arg(status.st_mode & 07777, 4, 8, QLatin1Char('0'));
}

// Makes "REL KIND OWNER:GROUP MODE" (KIND d or f) below folder, as root.
bool makeEntry(const QString &folder, const QString &entry, const QString &user)
{
    const QStringList parts = entry.split(QLatin1Char(' '));
    const QByteArray path = QFile::encodeName(folder + '/' + parts[0]);
    const QStringList ids = parts[2].split(':');
    const passwd *account = getpwnam(user.toLatin1().constData());
    const uid_t uid = ids[0] == QLatin1String("user") ? account->pw_uid : 0;
    const gid_t gid = ids[1] == QLatin1String("user")    ? account->pw_gid
                      : ids[1] == QLatin1String("admin") ? gid_t(getGroupId(adminGroupName()))
                                                         : 0;
    const bool made = parts[1] == QLatin1String("d") ? mkdir(path.constData(), 0700) == 0 : makeFile(QFile::decodeName(path), 10);
    return made && chown(path.constData(), uid, gid) == 0 && chmod(path.constData(), mode_t(parts[3].toUInt(nullptr, 8))) == 0;
}

QString expand(QString text, const QString &folder, const QString &user)
{
    return text.replace('@', folder).replace(QLatin1String("%A"), adminName()).replace(QLatin1String("%G"), adminGidText())
        .replace(QLatin1String("%U"), QString::number(userId(user.toLatin1().constData())));
}

bool matches(const QString &pattern, const QString &line)
{
    QString escaped = QRegularExpression::escape(pattern);
    escaped.replace(QLatin1String("\\*"), QLatin1String(".*"));
    return QRegularExpression(QRegularExpression::anchoredPattern(escaped)).match(line).hasMatch();
}

} // namespace

class tst_Privileges : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();
    void steps_data();
    void steps();
    void launchDefinition_data();
    void launchDefinition();

private:
    void steps_data_columns();

    QTemporaryDir m_dir;
    CountingLauncher m_launcher;
};

void tst_Privileges::initTestCase()
{
    QVERIFY(m_dir.isValid());
    QVERIFY(QFile::setPermissions(m_dir.path(), QFileDevice::Permissions(0x7755)));
    QVERIFY(m_launcher.create(m_dir.path()));
}

// No case leaves a root helper behind.
void tst_Privileges::cleanup()
{
    QVERIFY(allGone(helperProcesses(kHelper)));
}

void tst_Privileges::steps_data_columns()
{
    QTest::addColumn<QString>("user");
    QTest::addColumn<QString>("special");      // "readonly": the case's folder is read-only; "nogroup":
                                               // no administrators' group; "dismissed": the dialog's 126
    QTest::addColumn<QStringList>("fixture");  // made below the case's folder "@" (root's, 0755)
    QTest::addColumn<QStringList>("call");     // options and the function, as the child takes them
    QTest::addColumn<int>("result");
    QTest::addColumn<QStringList>("after");
    QTest::addColumn<QStringList>("log");      // the whole log; "*" stands for any text
    QTest::addColumn<int>("launches");
    QTest::addColumn<QStringList>("dialogs");
}

void tst_Privileges::steps_data()
{
    steps_data_columns();
    const QStringList none;
    const QStringList member = memberLines();
    const QStringList outsider = outsiderLines();
    const QStringList info{infoBox(kReason)};
    const QStringList refusedBox{kOutsiderBox};
    const QString succeeded = QStringLiteral("fixupDirectory: succeeded");
    const auto row = [](const char *name, const QString &user, const QStringList &fixture, const QStringList &call,
                        int result, const QStringList &after, const QStringList &log, int launches = 0,
                        const QStringList &dialogs = {}, const QString &special = QString()) {
        QTest::newRow(name) << user << special << fixture << call << result << after << log << launches << dialogs;
    };

    // Membership, by experiment.
    row("member of the administrators' group", kAdmin, none, {"group", "%A"}, 1, none, member);
    row("outside the administrators' group", kGuest, none, {"group", "%A"}, 0, none, outsider);
    row("a group that exists but is not the user's", kAdmin, none, {"group", "veldguest"}, 0, none,
        {"isUserInGroup: getGroupId veldguest returned *", "isUserInGroup: mkstemp(/tmp/qv_computecontrol.*) returned *",
         "isUserInGroup: fchown(*, -1, *) returned -1", "", "Operation not permitted"});
    row("root is in every group", "root", none, {"group", "veldguest"}, 1, none,
        {"isUserInGroup: getGroupId veldguest returned *", "isUserInGroup: mkstemp(/tmp/qv_computecontrol.*) returned *",
         "isUserInGroup: fchown succeeded"});
    row("no such group: no file made", kAdmin, none, {"group", "veld-no-such-group"}, 0, none,
        {"isUserInGroup: getGroupId veld-no-such-group returned -1"});

    // Asking for rights.
    row("administrator: told why, then asked once", kAdmin, none, {"establish"}, 0, none, member, 1, info);
    row("administrator, no reason: the box still shows", kAdmin, none, {"--reason", "", "establish"}, 0, none, member, 1,
        {infoBox(QString())});
    row("not an administrator: cancellation only", kGuest, none, {"establish"}, 1, none, outsider, 0, refusedBox);
    row("not an administrator, box closed with Escape", kGuest, none, {"--escape", "establish"}, 1, none, outsider, 0,
        refusedBox);
    row("password dialog dismissed", kAdmin, none, {"establish"}, 1, none, member, 0, info, "dismissed");

    // fixupDirectory.
    const QStringList fixup{"--scope", "1", "fixup", "@/d"};
    const QString chownTry = QStringLiteral("fixupDirectory: trying to set chown group-admin perms on @/d");
    const QString chmodTry = QStringLiteral("fixupDirectory: trying to set chmod group-admin perms on @/d");
    row("fixup, not system-wide: nothing touched or logged", kAdmin, {"d d root:root 0700"}, {"fixup", "@/d"}, 0,
        {"d root:root 0700"}, none);
    row("fixup, already the group's and writable: silent", kAdmin, {"d d user:admin 0775"}, fixup, 0,
        {"d user:admin 0775"}, none);
    row("fixup, group changed, already writable", kAdmin, {"d d user:user 0775"}, fixup, 0, {"d user:admin 0775"},
        {succeeded});
    row("fixup, group write added", kAdmin, {"d d user:admin 0750"}, fixup, 0, {"d user:admin 0775"}, {succeeded});
    row("fixup, group and mode by the user", kAdmin, {"d d user:user 0700"}, fixup, 0, {"d user:admin 0775"}, {succeeded});
    row("fixup, group with rights", kAdmin, {"d d root:root 0775"}, fixup, 0, {"d root:admin 0775"},
        QStringList{chownTry} + member + QStringList{succeeded}, 1, info);
    row("fixup, mode with rights", kAdmin, {"d d root:admin 0755"}, fixup, 0, {"d root:admin 0775"},
        QStringList{chmodTry} + member + QStringList{succeeded}, 1, info);
    row("fixup, group and mode with one password", kAdmin, {"d d root:root 0700"}, fixup, 0, {"d root:admin 0775"},
        QStringList{chownTry} + member + QStringList{chmodTry, succeeded}, 1, info);
    row("fixup, missing", kAdmin, none, fixup, 1, {"d absent"},
        {"fixupDirectory: Unable to determine status of directory...", "    @/d", "No such file or directory"});
    row("fixup, in a folder that cannot be searched", kAdmin, {"x d root:root 0700", "x/d d root:root 0775"},
        {"--scope", "1", "fixup", "@/x/d"}, 1, {"x/d root:root 0775"},
        {"fixupDirectory: Unable to determine status of directory...", "    @/x/d", "Permission denied"});
    row("fixup, a file", kAdmin, {"d f user:user 0644"}, fixup, 2, {"d user:user 0644"},
        {"fixupDirectory: @/d is not a directory."});
    row("fixup, not an administrator", kGuest, {"d d root:root 0775"}, fixup, 4, {"d root:root 0775"},
        QStringList{chownTry} + outsider, 0, refusedBox);
    row("fixup, password dialog dismissed", kAdmin, {"d d root:root 0775"}, fixup, 4, {"d root:root 0775"},
        QStringList{chownTry} + member, 0, info, "dismissed");
    row("fixup, privileged chgrp not started", kAdmin, {"x d root:root 0755", "d d root:root 0775"},
        {"--scope", "1", "fixup", "@/x/../d"}, 3, {"d root:root 0775"},
        QStringList{"fixupDirectory: trying to set chown group-admin perms on @/x/../d"} + member
            + QStringList{"fixupDirectory: Unable to change group to 'admin' on directory @/x/../d"},
        1, info);
    row("fixup, privileged chmod not started", kAdmin, {"x d root:root 0755", "d d root:admin 0755"},
        {"--scope", "1", "fixup", "@/x/../d"}, 5, {"d root:admin 0755"},
        QStringList{"fixupDirectory: trying to set chmod group-admin perms on @/x/../d"} + member
            + QStringList{"fixupDirectory: Unable to add group write permission on directory @/x/../d"},
        1, info);
    row("fixup, read-only file system: group", kAdmin, {"d d user:user 0755"}, fixup, 4, {"d user:user 0755"},
        {"fixupDirectory: Unable to change group to 'admin' on directory...", "    @/d", "Read-only file system"}, 0,
        none, "readonly");
    row("fixup, read-only file system: mode", kAdmin, {"d d user:admin 0755"}, fixup, 6, {"d user:admin 0755"},
        {"fixupDirectory: Unable to add group write permission on directory...", "    @/d", "Read-only file system"}, 0,
        none, "readonly");

    // createProductDirectory.
    const QString trampoline = QStringLiteral("createProductDirectory: trying to mkdir @/d with trampoline");
    const QString denied = QStringLiteral("createProductDirectory: Unable to mkdir @/d, Permission denied");
    const QStringList product{"--scope", "1", "product", "@/d"};
    row("product, not system-wide, refused", kAdmin, none, {"product", "@/d"}, 3, {"d absent"},
        {denied, "createProductDirectory: gSystemScope = 0, user not privileged"});
    row("product, not system-wide, made by the user", kAdmin, {"w d user:user 0755"}, {"product", "@/w/d"}, 0,
        {"w/d user:user 0755"}, {"createProductDirectory: made dir @/w/d w/o needing privs, checking for fixup"});
    row("product, made by the user, then fixed up", kAdmin, {"w d user:user 0755"}, {"--scope", "1", "product", "@/w/d"},
        0, {"w/d user:admin 0775"},
        {"createProductDirectory: made dir @/w/d w/o needing privs, checking for fixup", succeeded});
    row("product, made with rights", kAdmin, none, product, 0, {"d user:admin 0775"},
        QStringList{denied, trampoline} + member + QStringList{"createProductDirectory: succeeded"}, 1, info);
    row("product, existing folder given to the user", kAdmin, {"d d root:root 0700"}, product, 0, {"d user:admin 0700"},
        QStringList{"createProductDirectory: Unable to mkdir @/d, File exists", trampoline} + member
            + QStringList{"createProductDirectory: succeeded"},
        1, info);
    row("product, not an administrator", kGuest, none, product, 4, {"d absent"},
        QStringList{denied, trampoline} + outsider, 0, refusedBox);
    row("product, privileged mkdir not started", kAdmin, {"x d root:root 0755"}, {"--scope", "1", "product", "@/x/../d"},
        1, {"d absent"},
        QStringList{"createProductDirectory: Unable to mkdir @/x/../d, Permission denied",
                    "createProductDirectory: trying to mkdir @/x/../d with trampoline"}
            + member + QStringList{"createProductDirectory: runCommandWithAuthority(/bin/mkdir -m 775 @/x/../d) failed"},
        1, info);
    row("product, privileged chown not started", kAdmin, none, {"--authority", "--scope", "1", "product", "@/d"}, 2,
        {"d root:root 0775"},
        {denied, trampoline, "createProductDirectory: runCommandWithAuthority(/bin/usr/sbin/chown %U:-1 @/d) failed"}, 1,
        none, "nogroup");

    // createResourceDirectory.
    const QStringList resource{"--scope", "1", "resource", "@/p", "n"};
    const QString parentDenied = QStringLiteral("createResourceDirectory: Unable to mkdir @/p, Permission denied");
    const QString parentTrampoline = QStringLiteral("createResourceDirectory: trying to mkdir @/p with trampoline");
    const QStringList userMade{"createResourceDirectory: made dir @/w/p w/o needing privs, checking for fixup",
                               "createResourceDirectory: making dir @/w/p/n w/o needing privs",
                               "createProductDirectory: made dir @/w/p/n w/o needing privs, checking for fixup"};
    row("resource, not system-wide, made by the user", kAdmin, {"w d user:user 0755"}, {"resource", "@/w/p", "n"}, 0,
        {"w/p user:user 0755", "w/p/n user:user 0755"}, userMade);
    row("resource, not system-wide, refused", kAdmin, none, {"resource", "@/p", "n"}, 5, {"p absent"},
        {parentDenied, "createResourceDirectory: gSystemScope = 0, user not privileged"});
    row("resource, made by the user, then fixed up", kAdmin, {"w d user:user 0755"},
        {"--scope", "1", "resource", "@/w/p", "n"}, 0, {"w/p user:admin 0775", "w/p/n user:admin 0775"},
        {userMade[0], succeeded, userMade[1], userMade[2], succeeded});
    row("resource, made with rights", kAdmin, none, resource, 0, {"p root:admin 0775", "p/n user:admin 0775"},
        QStringList{parentDenied, parentTrampoline} + member + QStringList{"createResourceDirectory: succeeded"}, 1, info);
    row("resource, not an administrator", kGuest, none, resource, 4, {"p absent"},
        QStringList{parentDenied, parentTrampoline} + outsider, 0, refusedBox);
    row("resource, privileged mkdir of the parent not started", kAdmin, {"x d root:root 0755"},
        {"--scope", "1", "resource", "@/x/../p", "n"}, 1, {"p absent"},
        QStringList{"createResourceDirectory: Unable to mkdir @/x/../p, Permission denied",
                    "createResourceDirectory: trying to mkdir @/x/../p with trampoline"}
            + member
            + QStringList{"createResourceDirectory: runCommandWithAuthority(/bin/mkdir -m 775 @/x/../p) failed"},
        1, info);
    row("resource, privileged chgrp not started", kAdmin, none, {"--authority", "--scope", "1", "resource", "@/p", "n"},
        2, {"p root:root 0775", "p/n absent"},
        {parentDenied, parentTrampoline, "createResourceDirectory: runCommandWithAuthority(/usr/bin/chgrp -1 @/p) failed"},
        1, none, "nogroup");
    row("resource, privileged mkdir of the folder not started", kAdmin, none,
        {"--scope", "1", "resource", "@/p", ".."}, 3, {"p root:admin 0775"},
        QStringList{parentDenied, parentTrampoline} + member
            + QStringList{"createResourceDirectory: runCommandWithAuthority(/bin/mkdir -m 775 @/p/..) failed"},
        1, info);

    // verifyResourceDirectory.
    const QStringList verify{"--scope", "1", "verify", "@/p", "n"};
    const QString fixedParent = QStringLiteral("verifyResourceDirectory: fixup of @/p returned 0");
    const QStringList madeByUser{"verifyResourceDirectory: @/p/n does not exist, creating",
                                 "createProductDirectory: made dir @/p/n w/o needing privs, checking for fixup", succeeded};
    row("verify, parent missing: both made", kAdmin, {"w d user:user 0755"}, {"--scope", "1", "verify", "@/w/p", "n"}, 0,
        {"w/p user:admin 0775", "w/p/n user:admin 0775"},
        {"verifyResourceDirectory: @/w/p does not exist, creating", userMade[0], succeeded, userMade[1], userMade[2],
         succeeded});
    row("verify, parent cannot be examined", kAdmin, {"x d root:root 0700"}, {"--scope", "1", "verify", "@/x/p", "n"}, 1,
        none, {"verifyResourceDirectory: Unable to determine status of file...", "    @/x/p", "Permission denied"});
    row("verify, second installation: the folder made by the user", kAdmin, {"p d root:admin 0775"}, verify, 0,
        {"p root:admin 0775", "p/n user:admin 0775"}, QStringList{fixedParent} + madeByUser);
    row("verify, parent's group and mode reported and fixed", kAdmin, {"p d root:root 0755"}, verify, 0,
        {"p root:admin 0775", "p/n user:admin 0775"},
        QStringList{"verifyResourceDirectory: \"@/p\" exists and has owner 0 group 0 and mode 40755",
                    "fixupDirectory: trying to set chown group-admin perms on @/p"}
            + member
            + QStringList{"fixupDirectory: trying to set chmod group-admin perms on @/p", succeeded, fixedParent}
            + madeByUser,
        1, info);
    row("verify, existing folder fixed up", kAdmin, {"p d root:admin 0775", "p/n d user:user 0755"}, verify, 0,
        {"p/n user:admin 0775"}, {fixedParent, "verifyResourceDirectory: checking @/p/n for fixup", succeeded});
    row("verify, the folder is a file", kAdmin, {"p d root:admin 0775", "p/n f user:user 0644"}, verify, 2,
        {"p/n user:user 0644"},
        {fixedParent, "verifyResourceDirectory: checking @/p/n for fixup", "fixupDirectory: @/p/n is not a directory."});
    row("verify, not system-wide, folder cannot be examined", kAdmin, {"p d root:root 0700"}, {"verify", "@/p", "n"}, 1,
        {"p root:root 0700"},
        {fixedParent, "verifyResourceDirectory: Unable to determine status of directory...", "    @/p/n",
         "Permission denied"});
}

void tst_Privileges::launchDefinition_data()
{
    steps_data_columns();
    const QStringList fixture{"ld d root:root 0755"};
    const QString trampoline =
        QStringLiteral("createLaunchDaemonAgent: trying to cp /tmp/qv_computecontrol.* to @/ld/x.plist with trampoline");
    QTest::newRow("system-wide in root's folder: copied into place with rights")
        << kAdmin << QString() << fixture << QStringList{"launchd", "@/ld/x.plist", "1"} << 0
        << QStringList{"ld/x.plist root:root 0644"} << QStringList{trampoline} + memberLines() << 1
        << QStringList{infoBox(kReason)};
    QTest::newRow("system-wide, rights refused") << kGuest << QString() << fixture
                                                 << QStringList{"launchd", "@/ld/x.plist", "1"} << 2
                                                 << QStringList{"ld/x.plist absent"}
                                                 << QStringList{trampoline} + outsiderLines() << 0
                                                 << QStringList{kOutsiderBox};
    QTest::newRow("per user in root's folder") << kAdmin << QString() << fixture
                                               << QStringList{"launchd", "@/ld/x.plist", "0"} << 6
                                               << QStringList{"ld/x.plist absent"}
                                               << QStringList{"Error trying to create @/ld/x.plist, Permission denied"}
                                               << 0 << QStringList();
}

void tst_Privileges::launchDefinition()
{
    steps();
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
    QVERIFY(QDir().mkdir(folder));
    for (const QString &entry : fixture)
        QVERIFY2(makeEntry(folder, entry, user), qPrintable(entry));
    const QString logFile = m_dir.filePath(QStringLiteral("case-%1.log").arg(serial));
    QVERIFY(makeFile(logFile, 0));
    QVERIFY(QFile::setPermissions(logFile, QFileDevice::Permissions(0x6666)));
    QVERIFY(m_launcher.reset());

    QStringList args{QStringLiteral("--call"), QStringLiteral("--log"), logFile, QStringLiteral("--reason"), kReason};
    for (const QString &word : call)
        args << expand(word, folder, user);
    QStringList command = asUser(user, QCoreApplication::applicationFilePath(), args);
    QString launcher;
    if (special == QLatin1String("readonly")) {
        command = inPrivateMounts(QStringLiteral("mount --bind \"$1\" \"$1\" && mount -o remount,bind,ro \"$1\""), {folder},
                                  command.first(), command.mid(1));
    } else if (special == QLatin1String("nogroup")) {
        QFile groups(QStringLiteral("/etc/group"));
        QVERIFY(groups.open(QIODevice::ReadOnly));
        QByteArray kept;
        for (const QByteArray &line : groups.readAll().split('\n'))
            if (!line.startsWith("sudo:") && !line.startsWith("wheel:") && !line.startsWith("admin:"))
                kept += line + '\n';
        const QString groupFile = m_dir.filePath(QStringLiteral("group-%1").arg(serial));
        QVERIFY(makeFile(groupFile, 0));
        QFile out(groupFile);
        QVERIFY(out.open(QIODevice::WriteOnly) && out.write(kept) == kept.size());
        out.close();
        command = withGroupDatabase(groupFile, command.first(), command.mid(1));
    } else if (special == QLatin1String("dismissed")) {
        launcher = m_dir.filePath(QStringLiteral("dismiss"));
        QFile script(launcher);
        QVERIFY(script.open(QIODevice::WriteOnly));
        script.write("#!/bin/sh\nexit 126\n");
        script.close();
        QVERIFY(script.setPermissions(QFileDevice::Permissions(0x7555)));
    }
    QProcessEnvironment env = m_launcher.environment(kHelper, launcher);
    env.remove(QStringLiteral("XDG_RUNTIME_DIR"));
    const ProcessResult run = runProcess(command.first(), command.mid(1), env);

    const QString context = run.out + run.err;
    QVERIFY2(run.exitCode == 0, qPrintable(context));
    QStringList out = run.out.split('\n', Qt::SkipEmptyParts);
    QVERIFY2(out.removeAll(QStringLiteral("result=%1").arg(result)) == 1, qPrintable(context));
    out.removeAll(QStringLiteral("authority=1"));
    QStringList expectedDialogs;
    for (const QString &dialog : dialogs)
        expectedDialogs << QStringLiteral("dialog=") + dialog;
    QCOMPARE(out, expectedDialogs);
    QCOMPARE(m_launcher.launches(), launches);
    for (const QString &entry : after)
        QCOMPARE(describe(folder, entry.section(' ', 0, 0), user), entry);

    const QStringList written = logMessages(logFile);
    QVERIFY2(written.size() == log.size(), qPrintable(written.join('\n')));
    for (int i = 0; i < log.size(); ++i) {
        const QString expected = expand(log[i], folder, user);
        QVERIFY2(matches(expected, written[i]), qPrintable(written[i] + QStringLiteral("\n  expected: ") + expected));
        // Failures go to standard error as well, with the same text.
        if (expected.contains(QLatin1String("Unable")) || expected.contains(QLatin1String("not a directory"))
            || expected.contains(QLatin1String("exists and has owner")))
            QVERIFY2(run.err.contains(expected + '\n'), qPrintable(run.err));
        // The experiment's file does not outlive it, nor does a definition's once copied into place.
        static const QRegularExpression probe(
            QStringLiteral("(mkstemp\\(|trying to cp )(/tmp/qv_computecontrol\\.[^) ]+)"));
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
