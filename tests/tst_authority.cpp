#include "platform/authority.h"
#include "platform/authpolicy.h"
#include "platform/authprotocol.h"
#include "privilegedsupport.h"
#include "testsupport.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QtTest>

#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

// The privileged cases run the support probe as the ordinary users of
// privilegedsupport.h, through the real "sudo -n".

namespace {

const QString kHelper = QStringLiteral(VELD_AUTHHELPER);
const QString kProbe = QStringLiteral(VELD_SUPPORTPROBE);

// The frames of a helper's output, as "R", "S<status>" and "O<text>".
QStringList framesOf(const QByteArray &stream)
{
    QStringList frames;
    for (int at = 0; at + 5 <= stream.size();) {
        const quint32 length = (quint8(stream[at]) << 24) | (quint8(stream[at + 1]) << 16) | (quint8(stream[at + 2]) << 8)
                               | quint8(stream[at + 3]);
        const QByteArray payload = stream.mid(at + 5, int(length) - 1);
        const char type = stream[at + 4];
        int32_t status = 0;
        if (type == authproto::kDone && authproto::decodeStatus(payload.toStdString(), &status))
            frames << QStringLiteral("S%1").arg(status);
        else
            frames << QString(QLatin1Char(type)) + QString::fromUtf8(payload);
        at += 4 + int(length);
    }
    return frames;
}

QByteArray frame(char type, const std::string &payload)
{
    const quint32 length = quint32(payload.size() + 1);
    QByteArray out;
    out.append(char(length >> 24)).append(char(length >> 16)).append(char(length >> 8)).append(char(length));
    return out.append(type).append(payload.data(), int(payload.size()));
}

} // namespace

class tst_Authority : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void policy_data();
    void policy();
    void helperFrames_data();
    void helperFrames();
    void freeNull();
    void severalCommands();
    void refusals_data();
    void refusals();
    void silentAndLogged();
    void refusedLauncher_data();
    void refusedLauncher();
    void helperEndsWithClient_data();
    void helperEndsWithClient();
    void directAsRoot();

private:
    QString launcher() const { return m_launcher.path(); }
    int launches() const { return m_launcher.launches(); }
    ProcessResult probeAs(const char *user, const QStringList &args, const QString &launcherCommand = QString());

    QTemporaryDir m_dir;
    CountingLauncher m_launcher;
    QString m_scratch;   // root's, readable by everyone, writable by no one else
    QString m_file;      // 300 bytes that a tool prints
};

void tst_Authority::initTestCase()
{
    QVERIFY(QFileInfo(kHelper).isExecutable());
    QVERIFY(QFile::setPermissions(m_dir.path(), QFileDevice::Permissions(0x7755)));
    QVERIFY(m_launcher.create(m_dir.path()));
    m_file = m_dir.filePath(QStringLiteral("printed.txt"));
    QFile printed(m_file);
    QVERIFY(printed.open(QIODevice::WriteOnly));
    for (int i = 0; i < 10; ++i)
        printed.write("line relayed through the helper\n");
    printed.close();
    printed.setPermissions(QFileDevice::Permissions(0x6444));
}

void tst_Authority::init()
{
    QVERIFY(m_launcher.reset());
    static int serial = 0;
    m_scratch = m_dir.filePath(QStringLiteral("scratch-%1").arg(++serial));
    QVERIFY(QDir().mkpath(m_scratch));
    QVERIFY(QFile::setPermissions(m_scratch, QFileDevice::Permissions(0x7555)));
}

// No test leaves a root helper behind.
void tst_Authority::cleanup()
{
    QVERIFY(allGone(helperProcesses(kHelper)));
}

ProcessResult tst_Authority::probeAs(const char *user, const QStringList &args, const QString &launcherCommand)
{
    const QStringList command = asUser(QString::fromLatin1(user), kProbe, args);
    return runProcess(command.first(), command.mid(1), m_launcher.environment(kHelper, launcherCommand));
}

void tst_Authority::policy_data()
{
    QTest::addColumn<QString>("tool");
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<QString>("refusal");   // the start of the reason, or "" when allowed

    const QString shape = QStringLiteral("not a form");
    QTest::newRow("mkdir") << "/bin/mkdir" << QStringList{"-m", "775", "/a/b"} << "";
    QTest::newRow("mkdir, four digits") << "/bin/mkdir" << QStringList{"-m", "0755", "/a b/é;$(x)`y`\nz"} << "";
    QTest::newRow("chmod") << "/bin/chmod" << QStringList{"0775", "/a"} << "";
    QTest::newRow("chgrp") << "/usr/bin/chgrp" << QStringList{"27", "/a"} << "";
    QTest::newRow("chown") << "/bin/chown" << QStringList{"1000:27", "/a"} << "";
    QTest::newRow("cp") << "/bin/cp" << QStringList{"/tmp/x.plist", "/etc/y.plist"} << "";
    QTest::newRow("defaults write") << "/h/veld-defaults" << QStringList{"write", "/etc/xdg/d", "k", "v=1\n"} << "";
    QTest::newRow("defaults delete") << "/h/veld-defaults" << QStringList{"delete", "/etc/xdg/d", "k"} << "";
    QTest::newRow("another tool") << "/bin/sh" << QStringList{"-c", "id"} << "not a tool";
    QTest::newRow("the macOS chown path") << "/usr/sbin/chown" << QStringList{"1:2", "/a"} << "not a tool";
    QTest::newRow("veld-defaults elsewhere") << "/tmp/veld-defaults" << QStringList{"delete", "/a", "k"} << "not a tool";
    QTest::newRow("relative tool") << "bin/mkdir" << QStringList{"-m", "775", "/a"} << "the tool's path is not absolute";
    QTest::newRow("tool through ..") << "/usr/../bin/mkdir" << QStringList{"-m", "775", "/a"} << "the tool's path contains";
    QTest::newRow("mkdir -p") << "/bin/mkdir" << QStringList{"-p", "/a"} << shape;
    QTest::newRow("mkdir, two paths") << "/bin/mkdir" << QStringList{"-m", "775", "/a", "/b"} << shape;
    QTest::newRow("mkdir, symbolic mode") << "/bin/mkdir" << QStringList{"-m", "u+s", "/a"} << shape;
    QTest::newRow("chmod -R") << "/bin/chmod" << QStringList{"-R", "0777", "/a"} << shape;
    QTest::newRow("chmod, five digits") << "/bin/chmod" << QStringList{"04777", "/a"} << shape;
    QTest::newRow("chgrp by name") << "/usr/bin/chgrp" << QStringList{"sudo", "/a"} << shape;
    QTest::newRow("chown without group") << "/bin/chown" << QStringList{"0", "/a"} << shape;
    QTest::newRow("relative path") << "/bin/chmod" << QStringList{"0775", "a/b"} << shape;
    QTest::newRow("path through ..") << "/bin/chmod" << QStringList{"0775", "/a/../etc"} << shape;
    QTest::newRow("path ending in ..") << "/bin/cp" << QStringList{"/a", "/b/.."} << shape;
    QTest::newRow("cp with an option") << "/bin/cp" << QStringList{"-r", "/a", "/b"} << shape;
    QTest::newRow("defaults read") << "/h/veld-defaults" << QStringList{"read", "/etc/xdg/d", "k"} << shape;
    QTest::newRow("defaults, empty key") << "/h/veld-defaults" << QStringList{"delete", "/etc/xdg/d", ""} << shape;
}

void tst_Authority::policy()
{
    QFETCH(QString, tool);
    QFETCH(QStringList, args);
    QFETCH(QString, refusal);
    std::vector<std::string> list;
    for (const QString &arg : args)
        list.push_back(arg.toStdString());
    const QString reason = QString::fromStdString(refusalReason(tool.toStdString(), list, "/h"));
    if (refusal.isEmpty())
        QCOMPARE(reason, QString());
    else
        QVERIFY2(reason.startsWith(refusal), qPrintable(reason));
}

void tst_Authority::helperFrames_data()
{
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<QStringList>("frames");   // what the helper answers
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("complaint");    // on its standard error

    const std::string folder = QDir::tempPath().toStdString();
    const QByteArray good = frame(authproto::kRun, authproto::encodeRun("/bin/chmod", {"0755", "/nonexistent-veld"}));
    std::vector<std::string> many(17, "/a");
    QTest::newRow("nothing") << QByteArray() << QStringList{"R"} << 0 << "";
    QTest::newRow("unknown type, then a request")
        << frame('Q', "x") + good << QStringList{"R", "S-60005", "S0"} << 0 << "refused: malformed request";
    QTest::newRow("no final NUL") << frame(authproto::kRun, "/bin/chmod") + good << QStringList{"R", "S-60005", "S0"}
                                  << 0 << "refused: malformed request";
    QTest::newRow("too many arguments") << frame(authproto::kRun, authproto::encodeRun("/bin/cp", many))
                                        << QStringList{"R", "S-60005"} << 0 << "refused: malformed request";
    QTest::newRow("oversized") << QByteArray("\x00\x10\x00\x00X", 5) + QByteArray(100, 'a') << QStringList{"R", "S-60005"}
                               << 1 << "refused: request larger than 65536 bytes";
    QTest::newRow("length 0") << QByteArray(4, '\0') + good << QStringList{"R"} << 1 << "request stream is broken";
    QTest::newRow("cut short") << good.left(9) << QStringList{"R"} << 1 << "request stream is broken";
}

// The helper itself, fed frames as they may arrive; it never needs root for this.
void tst_Authority::helperFrames()
{
    QFETCH(QByteArray, input);
    QFETCH(QStringList, frames);
    QFETCH(int, exitCode);
    QFETCH(QString, complaint);
    QProcess helper;
    helper.start(kHelper, QStringList());
    QVERIFY(helper.waitForStarted());
    helper.write(input);
    // Input that ends while a tool runs means the installer is gone: wait for the answers first.
    QByteArray output;
    while (framesOf(output).size() < frames.size() && helper.waitForReadyRead(5000))
        output += helper.readAllStandardOutput();
    helper.closeWriteChannel();
    QVERIFY(helper.waitForFinished(10000));
    output += helper.readAllStandardOutput();
    QCOMPARE(framesOf(output), frames);
    QCOMPARE(helper.exitCode(), exitCode);
    const QString err = QString::fromUtf8(helper.readAllStandardError());
    QVERIFY2(complaint.isEmpty() ? !err.contains(QLatin1String("refused")) : err.contains(complaint), qPrintable(err));
}

void tst_Authority::freeNull()
{
    AuthorizationRef ref = nullptr;
    QCOMPARE(freeAuthority(&ref), OSStatus(errAuthorizationInvalidRef));
    QVERIFY(!ref);
}

// One authority, several commands, one start of the launcher; then a request
// with the released reference is refused.
void tst_Authority::severalCommands()
{
    REQUIRE_PRIVILEGED();
    const QString a = m_scratch + QStringLiteral("/a");
    const QString copy = m_scratch + QStringLiteral("/copy");
    const QString uid = QString::number(userId("veldadmin"));
    const QString gid = QString::number(getgrnam("veldguest")->gr_gid);
    const ProcessResult result = probeAs(
        "veldadmin", {"auth", "run", "/bin/mkdir", "3", "-m", "0750", a, "run", "/bin/chmod", "2", "0705", a,
                      "run", "/usr/bin/chgrp", "2", gid, a, "run", "/bin/chown", "2", uid + ":" + gid, a,
                      "run", "/bin/cp", "2", m_file, copy, "run", "/bin/cp", "2", m_file, "/dev/stdout",
                      "free", "runreleased", "/bin/mkdir", "3", "-m", "0755", m_scratch + "/late"});
    QCOMPARE(result.out, QStringLiteral("\nauth=1 ref=set\nrun=1\nrun=1\nrun=1\nrun=1\nrun=1\nrun=1\n"
                                        "free=0 ref=null\nrunreleased=0\n"));
    QCOMPARE(launches(), 1);
    struct stat info;
    QCOMPARE(::stat(QFile::encodeName(a).constData(), &info), 0);
    QCOMPARE(info.st_mode & 07777, mode_t(0705));
    QCOMPARE(QString::number(info.st_uid), uid);
    QCOMPARE(QString::number(info.st_gid), gid);
    QCOMPARE(::stat(QFile::encodeName(copy).constData(), &info), 0);
    QCOMPARE(info.st_uid, uid_t(0));
    QFile printed(m_file);
    QVERIFY(printed.open(QIODevice::ReadOnly));
    QCOMPARE(result.err.count(QString::fromUtf8(printed.readAll())), 1);
    QVERIFY(result.err.contains(QLatin1String("refused: the authority was released: /bin/mkdir")));
    QVERIFY(!QFileInfo::exists(m_scratch + QStringLiteral("/late")));
}

void tst_Authority::refusals_data()
{
    QTest::addColumn<QString>("tool");
    QTest::addColumn<QStringList>("args");   // "@" stands for the scratch folder
    QTest::addColumn<QString>("made");       // what the tool makes below it, or "" when refused
    QTest::addColumn<int>("launches");

    const QString shellMade = QStringLiteral("@/x; touch pwned");
    QTest::newRow("a tool outside the list") << "/bin/sh" << QStringList{"-c", "touch @/pwned"} << "" << 1;
    QTest::newRow("an unused shape") << "/bin/mkdir" << QStringList{"-p", "@/p/q"} << "" << 1;
    QTest::newRow("a relative tool") << "bin/mkdir" << QStringList{"-m", "0755", "@/r"} << "" << 1;
    QTest::newRow("a tool through ..") << "/usr/../bin/mkdir" << QStringList{"-m", "0755", "@/r"} << "" << 1;
    QTest::newRow("a path through ..") << "/bin/mkdir" << QStringList{"-m", "0755", "@/../r"} << "" << 1;
    QTest::newRow("; is text") << "/bin/mkdir" << QStringList{"-m", "0755", "@/x; touch pwned"} << "x; touch pwned" << 1;
    QTest::newRow("$() is text") << "/bin/mkdir" << QStringList{"-m", "0755", "@/$(touch pwned)"} << "$(touch pwned)" << 1;
    QTest::newRow("backquotes are text") << "/bin/mkdir" << QStringList{"-m", "0755", "@/`touch pwned`"} << "`touch pwned`"
                                         << 1;
    QTest::newRow("a newline is text") << "/bin/mkdir" << QStringList{"-m", "0755", "@/x\ntouch pwned"} << "x\ntouch pwned"
                                       << 1;
    QTest::newRow("oversized") << "/bin/mkdir" << QStringList{"-m", "0755", "@/" + QString(70000, QLatin1Char('x'))} << ""
                               << 1;
}

// Each refusal runs nothing, says so on standard error, and leaves a helper
// that takes the next command.
void tst_Authority::refusals()
{
    REQUIRE_PRIVILEGED();
    QFETCH(QString, tool);
    QFETCH(QStringList, args);
    QFETCH(QString, made);
    QFETCH(int, launches);
    for (QString &arg : args)
        arg.replace(QLatin1Char('@'), m_scratch);
    const QString after = m_scratch + QStringLiteral("/after");
    const ProcessResult result = probeAs("veldadmin", QStringList{"auth", "run", tool, QString::number(args.size())} + args
                                                          + QStringList{"run", "/bin/mkdir", "3", "-m", "0700", after, "free"});
    QCOMPARE(result.out, QStringLiteral("\nauth=1 ref=set\nrun=%1\nrun=1\nfree=0 ref=null\n").arg(made.isEmpty() ? 0 : 1));
    if (made.isEmpty())
        QVERIFY2(result.err.contains(QLatin1String("veld-authhelper: refused: ")), qPrintable(result.err));
    QStringList expected{QStringLiteral("after")};
    if (!made.isEmpty())
        expected << made;
    QStringList present = QDir(m_scratch).entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
    expected.sort();
    present.sort();
    QCOMPARE(present, expected);
    QVERIFY(!QFileInfo::exists(QStringLiteral("/pwned")));
    QCOMPARE(this->launches(), launches);
}

void tst_Authority::silentAndLogged()
{
    REQUIRE_PRIVILEGED();
    const QString log = m_dir.filePath(QStringLiteral("silent.log"));
    QFile(log).open(QIODevice::WriteOnly);
    QFile::setPermissions(log, QFileDevice::Permissions(0x6666));
    const ProcessResult result = probeAs(
        "veldadmin", {"runlog", "/bin/chmod", "2", "0755", m_scratch, "macopen", log, "auth",
                      "run", "/bin/chmod", "2", "0755", m_scratch, "runlog", "/bin/chmod", "2", "0755", m_scratch,
                      "runlog", "/bin/cp", "2", m_file, "/dev/stdout", "run", "/bin/mkdir", "0", "free"});
    QCOMPARE(result.out, QStringLiteral("runlog=0\nmacopen=1\n\nauth=1 ref=set\nrun=1\nrunlog=0\nrunlog=1\nrun=0\n"
                                        "free=0 ref=null\n"));
    QVERIFY(result.err.startsWith(QLatin1String("Requested runCommandWithAuthorityWithLog, but log is not open\n")));
    QVERIFY(result.err.contains(QLatin1String("AuthorizationExecuteWithPrivileges failed: /bin/mkdir\n status=-60005\n")));
    QFile file(log);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QFile printed(m_file);
    QVERIFY(printed.open(QIODevice::ReadOnly));
    const QString stamp = kLogDateStampPattern + QStringLiteral(": ");
    const QString pattern = QStringLiteral("^%1Executing AuthorizationExecuteWithPrivileges: /bin/chmod \"0755\" \"%2\"\n"
                                           "%1No STDOUT output returned from command- handling as error\n"
                                           "%1Executing AuthorizationExecuteWithPrivileges: /bin/cp \"%3\" \"/dev/stdout\"\n"
                                           "%1STDOUT command output:\n%4$")
                                .arg(stamp, QRegularExpression::escape(m_scratch), QRegularExpression::escape(m_file),
                                     QRegularExpression::escape(QString::fromUtf8(printed.readAll())));
    const QString written = QString::fromUtf8(file.readAll());
    QVERIFY2(QRegularExpression(pattern).match(written).hasMatch(), qPrintable(written));
}

void tst_Authority::refusedLauncher_data()
{
    QTest::addColumn<QString>("user");
    QTest::addColumn<QString>("launcher");   // "exit N": a stand-in that ends with N
    QTest::addColumn<int>("status");
    QTest::newRow("sudo refuses a user without the rule") << "veldguest" << "sudo -n" << -60005;
    QTest::newRow("no such launcher") << "veldadmin" << "/nonexistent/launcher" << -60031;
    QTest::newRow("dialog dismissed") << "veldadmin" << "exit 126" << -60006;
    QTest::newRow("not authorized") << "veldadmin" << "exit 127" << -60005;
}

// A refused right leaves the reference set; the next command asks again.
void tst_Authority::refusedLauncher()
{
    REQUIRE_PRIVILEGED();
    QFETCH(QString, user);
    QFETCH(QString, launcher);
    QFETCH(int, status);
    if (launcher.startsWith(QLatin1String("exit "))) {
        const QString standIn = m_scratch + QStringLiteral("-standin");
        QFile script(standIn);
        QVERIFY(script.open(QIODevice::WriteOnly));
        script.write("#!/bin/sh\n" + launcher.toUtf8() + "\n");
        script.close();
        QVERIFY(script.setPermissions(QFileDevice::Permissions(0x7555)));
        launcher = standIn;
    }
    const QString path = m_scratch + QStringLiteral("/g");
    const ProcessResult result =
        probeAs(user.toLatin1().constData(), {"auth", "run", "/bin/mkdir", "3", "-m", "0755", path, "free"}, launcher);
    QCOMPARE(result.out, QStringLiteral("\nauth=0 ref=set\nrun=0\nfree=0 ref=null\n"));
    const QString refused = QStringLiteral("AuthorizationCopyRights failed: status=%1").arg(status);
    const int at = result.err.indexOf(refused);
    QVERIFY2(at >= 0, qPrintable(result.err));
    QVERIFY(result.err.mid(at + refused.size(), 1) != QLatin1String("\n"));
    QVERIFY(result.err.endsWith(QStringLiteral("AuthorizationExecuteWithPrivileges failed: /bin/mkdir\n -m\n 0755\n %1\n"
                                               " status=%2\n").arg(path).arg(status)));
    QVERIFY(!QFileInfo::exists(path));
}

void tst_Authority::helperEndsWithClient_data()
{
    QTest::addColumn<bool>("killed");
    QTest::newRow("freeAuthority") << false;
    QTest::newRow("kill -9 of the client") << true;
}

void tst_Authority::helperEndsWithClient()
{
    REQUIRE_PRIVILEGED();
    QFETCH(bool, killed);
    QProcess client;
    client.setProcessEnvironment(m_launcher.environment(kHelper));
    const QStringList command = asUser(QStringLiteral("veldadmin"), kProbe, {"auth", "wait", "free", "wait"});
    client.start(command.first(), command.mid(1));
    const auto waitFor = [&](const char *text) {
        QByteArray out;
        while (!out.contains(text) && client.waitForReadyRead(10000))
            out += client.readAllStandardOutput();
        return out.contains(text);
    };
    QVERIFY(waitFor("waiting"));
    const QList<pid_t> helpers = helperProcesses(kHelper);
    QCOMPARE(helpers.size(), 2);   // the launcher and the helper
    if (killed) {
        ::kill(pid_t(client.processId()), SIGKILL);
        QVERIFY(client.waitForFinished(5000));
    } else {
        client.write("\n");
        QVERIFY(waitFor("free=0 ref=null"));
    }
    QVERIFY(allGone(helpers));
    client.write("\n");
    client.waitForFinished(5000);
}

// A process that already runs as root starts the helper itself: no launcher.
// This helper's folder has no veld-defaults, so that tool cannot be started.
void tst_Authority::directAsRoot()
{
    if (geteuid() != 0)
        QSKIP("needs root");
    const QString helper = m_scratch + QStringLiteral("/bin/veld-authhelper");
    QVERIFY(copyFileTo(kHelper, helper));
    QVERIFY(QFile::setPermissions(helper, QFileDevice::Permissions(0x7500)));
    const QProcessEnvironment env = m_launcher.environment(helper);
    const QString made = m_scratch + QStringLiteral("/r");
    const QString defaults = m_scratch + QStringLiteral("/bin/veld-defaults");
    const ProcessResult result = runProcess(kProbe, {"auth", "run", "/bin/mkdir", "3", "-m", "0700", made, "run", defaults,
                                                     "3", "delete", "/nonexistent/d", "k", "free"}, env);
    QCOMPARE(result.out, QStringLiteral("\nauth=1 ref=set\nrun=1\nrun=0\nfree=0 ref=null\n"));
    QVERIFY2(result.err.contains(QStringLiteral("veld-authhelper: cannot start %1: ").arg(defaults)), qPrintable(result.err));
    QVERIFY(result.err.endsWith(QLatin1String(" status=-60031\n")));
    QVERIFY(QFileInfo(made).isDir());
    QCOMPARE(QFileInfo(made).permissions() & QFileDevice::ReadOther, QFileDevice::Permissions());
    QCOMPARE(launches(), 0);
}

QTEST_GUILESS_MAIN(tst_Authority)
#include "tst_authority.moc"
