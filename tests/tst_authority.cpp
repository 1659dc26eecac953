#include "platform/authority.h"
#include "platform/authpolicy.h"
#include "platform/authprotocol.h"
#include "testsupport.h"

#include <grp.h>

// The privileged rows run call sequences of the support probe as the test users, through the real "sudo -n".

namespace {

const QString kHelper = QStringLiteral(VELD_AUTHHELPER), kProbe = QStringLiteral(VELD_SUPPORTPROBE);

QByteArray frame(char type, const std::string &payload)
{
    QByteArray out(4, '\0');
    qToBigEndian(quint32(payload.size() + 1), out.data());
    return out.append(type).append(payload.data(), int(payload.size()));
}

} // namespace

class tst_Authority : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(writeFile(m_file, QByteArray("line relayed through the helper\n").repeated(10), 0444)); }

    // A scratch folder of root's, readable by everyone and writable by no one else.
    void init()
    {
        static int serial = 0;
        m_scratch = m_dir.filePath(QString("scratch-%1").arg(++serial));
        QVERIFY(createCountingLauncher(m_dir.path()) && QDir().mkpath(m_scratch));
        QVERIFY(QFile::setPermissions(m_scratch, QFileDevice::Permissions(0x7555)));
    }

    void cleanup() { QVERIFY(allGone(processesMentioning(kHelper))); }   // no test leaves a root helper behind

    void policy_data()
    {
        QTest::addColumn<QString>("tool");
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QString>("refusal");   // the start of the reason, or "" when allowed

        const QString shape = QStringLiteral("not a form");
        QTest::newRow("mkdir, four digits") << "/bin/mkdir" << QStringList{"-m", "0755", "/a b/é;$(x)`y`\nz"} << "";
        QTest::newRow("chmod, three digits") << "/bin/chmod" << QStringList{"775", "/a"} << "";
        QTest::newRow("veld-defaults elsewhere") << "/tmp/veld-defaults" << QStringList{"delete", "/a", "k"} << "not a tool";
        QTest::newRow("another program of /bin") << "/bin/sh" << QStringList{"-c", "/a"} << "not a tool";
        QTest::newRow("relative tool") << "bin/mkdir" << QStringList{"-m", "775", "/a"} << "the tool's path is not absolute";
        QTest::newRow("tool through ..") << "/usr/../bin/mkdir" << QStringList{"-m", "775", "/a"} << "the tool's path contains";
        QTest::newRow("mkdir, two paths") << "/bin/mkdir" << QStringList{"-m", "775", "/a", "/b"} << shape;
        QTest::newRow("mkdir, symbolic mode") << "/bin/mkdir" << QStringList{"-m", "u+s", "/a"} << shape;
        QTest::newRow("chmod, five digits") << "/bin/chmod" << QStringList{"04777", "/a"} << shape;
        QTest::newRow("chgrp by name") << "/usr/bin/chgrp" << QStringList{"sudo", "/a"} << shape;
        QTest::newRow("chown without group") << "/bin/chown" << QStringList{"0", "/a"} << shape;
        QTest::newRow("relative path") << "/bin/chmod" << QStringList{"0775", "a/b"} << shape;
        QTest::newRow("path ending in ..") << "/bin/cp" << QStringList{"/a", "/b/.."} << shape;
        QTest::newRow("cp with an option") << "/bin/cp" << QStringList{"-r", "/a", "/b"} << shape;
        QTest::newRow("defaults read") << "/h/veld-defaults" << QStringList{"read", "/etc/xdg/d", "k"} << shape;
        QTest::newRow("defaults, empty key") << "/h/veld-defaults" << QStringList{"delete", "/etc/xdg/d", ""} << shape;
    }

    void policy()
    {
        QFETCH(QString, tool);
        QFETCH(QStringList, args);
        QFETCH(QString, refusal);
        std::vector<std::string> list;
        for (const QString &arg : args)
            list.push_back(arg.toStdString());
        const QString reason = QString::fromStdString(refusalReason(tool.toStdString(), list, "/h"));
        QVERIFY2(refusal.isEmpty() ? reason.isEmpty() : reason.startsWith(refusal), qPrintable(reason));
    }

    void helperFrames_data()
    {
        using namespace authproto;
        QTest::addColumn<QByteArray>("input");
        QTest::addColumn<QByteArray>("output");   // the helper's answers
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("complaint");   // on its standard error

        const QByteArray good = frame(kRun, encodeRun("/bin/chmod", {"0755", "/nonexistent-veld"}));
        const QByteArray ready = frame(kReady, ""), ran = frame(kDone, encodeStatus(0));
        const QByteArray refused = frame(kDone, encodeStatus(-60005));
        const QString malformed = QStringLiteral("refused: malformed request");
        QTest::newRow("nothing") << QByteArray() << ready << 0 << "";
        QTest::newRow("unknown type, then a request") << frame('Q', "x") + good << ready + refused + ran << 0 << malformed;
        QTest::newRow("too many arguments") << frame(kRun, encodeRun("/bin/cp", std::vector<std::string>(17, "/a")))
                                            << ready + refused << 0 << malformed;
        QTest::newRow("oversized") << QByteArray("\x00\x01\x00\x01X", 5) + QByteArray(100, 'a') << ready + refused << 1
                                   << "refused: request larger than 65536 bytes";
        QTest::newRow("length 0") << QByteArray(4, '\0') + good << ready << 1 << "request stream is broken";
        QTest::newRow("cut short") << good.left(9) << ready << 1 << "request stream is broken";
    }

    // The helper itself, fed frames as they may arrive; it never needs root for this.
    void helperFrames()
    {
        QFETCH(QByteArray, input);
        QFETCH(QByteArray, output);
        QFETCH(int, exitCode);
        QFETCH(QString, complaint);
        QProcess helper;
        helper.start(kHelper, QStringList());
        helper.write(input);
        // Input that ends while a tool runs means the installer is gone: wait for the answers first.
        QByteArray answers;
        while (answers.size() < output.size() && helper.waitForReadyRead(60000))
            answers += helper.readAllStandardOutput();
        helper.closeWriteChannel();
        QVERIFY(helper.waitForFinished(60000) && helper.exitCode() == exitCode);
        QCOMPARE(answers + helper.readAllStandardOutput(), output);
        const QString err = QString::fromUtf8(helper.readAllStandardError());
        QVERIFY2(complaint.isEmpty() ? !err.contains("refused") : err.contains(complaint), qPrintable(err));
    }

    // One authority, every tool, one start of the launcher: their output relayed to standard error,
    // or to the log, where a silent tool fails; then a request with the released reference is refused.
    // Releasing a null reference, or logging before the log is open, is refused too.
    void severalCommands()
    {
        REQUIRE_PRIVILEGED();
        const QString a = m_scratch + "/a", copy = m_scratch + "/copy", log = m_dir.filePath("tools.log");
        QVERIFY(writeFile(log, QByteArray(), 0666));
        const QString uid = QString::number(userId("veldadmin"));
        const QString gid = QString::number(getgrnam("veldguest")->gr_gid);   // another group, given with rights
        const ProcessResult result = probeAs(
            "veldadmin", {"free", "runlog", "/bin/chmod", "2", "0755", a, "macopen", log, "auth",
                          "run", "/bin/mkdir", "3", "-m", "0750", a, "run", "/bin/chmod", "2", "0705", a,
                          "run", "/usr/bin/chgrp", "2", gid, a, "run", "/bin/chown", "2", uid + ":" + gid, a,
                          "run", "/bin/cp", "2", m_file, copy, "run", "/bin/cp", "2", m_file, "/dev/stdout",
                          "runlog", "/bin/chmod", "2", "0705", a, "runlog", "/bin/cp", "2", m_file, "/dev/stdout",
                          "run", "/bin/mkdir", "0", "free", "runreleased", "/bin/mkdir", "3", "-m", "0755", m_scratch + "/late"});
        QCOMPARE(result.out, QStringLiteral("free=-60002 ref=null\nrunlog=0\nmacopen=1\n\nauth=1 ref=set\nrun=1\nrun=1\nrun=1\n"
                                            "run=1\nrun=1\nrun=1\nrunlog=0\nrunlog=1\nrun=0\nfree=0 ref=null\nrunreleased=0\n"));
        QCOMPARE(launches(m_dir.path()), 1);
        QCOMPARE(ownership(a), "veldadmin:veldguest 705");
        QCOMPARE(ownership(copy).section(' ', 0, 0), "root:root");
        QVERIFY(!QFileInfo::exists(m_scratch + "/late"));
        QVERIFY(result.err.startsWith("Requested runCommandWithAuthorityWithLog, but log is not open\n"));
        QCOMPARE(result.err.count(fileText(m_file)), 1);
        QVERIFY(result.err.contains("AuthorizationExecuteWithPrivileges failed: /bin/mkdir\n status=-60005\n"));
        QVERIFY(result.err.contains("refused: the authority was released: /bin/mkdir"));
        QCOMPARE(logMessages(log), QStringList({"Executing AuthorizationExecuteWithPrivileges: /bin/chmod \"0705\" \"" + a + '"',
                                                "No STDOUT output returned from command- handling as error",
                                                "Executing AuthorizationExecuteWithPrivileges: /bin/cp \"" + m_file + "\" \"/dev/stdout\"",
                                                "STDOUT command output:"}) + fileText(m_file).split('\n').mid(0, 10));
    }

    void refusals_data()
    {
        QTest::addColumn<QString>("user");
        QTest::addColumn<QString>("launcher");      // "": the counting one; "exit N": a stand-in that ends with N
        QTest::addColumn<QStringList>("command");   // the tool and its arguments; "@" stands for the scratch folder
        QTest::addColumn<QString>("made");          // what the tool makes below it, or "" when refused
        QTest::addColumn<int>("status");            // when the right is refused

        const QStringList mkdir{"/bin/mkdir", "-m", "0755", "@/g"};
        const QString admin = QStringLiteral("veldadmin");
        QTest::newRow("a tool outside the list") << admin << "" << QStringList{"/bin/sh", "-c", "touch @/pwned"} << "" << 0;
        // Unquoted, double-quoted or split into lines, this would run touch.
        const QString text = QStringLiteral("x; touch pwned $(touch pwned) `touch pwned`\ntouch pwned");
        QTest::newRow("shell and line syntax is text") << admin << "" << QStringList{"/bin/mkdir", "-m", "0755", "@/" + text}
                                                       << text << 0;
        QTest::newRow("oversized") << admin << "" << QStringList{"/bin/mkdir", "-m", "0755", "@/" + QString(70000, 'x')} << ""
                                   << 0;
        QTest::newRow("sudo refuses a user without the rule") << "veldguest" << "sudo -n" << mkdir << "" << -60005;
        QTest::newRow("no such launcher") << admin << "/nonexistent/launcher" << mkdir << "" << -60031;
        QTest::newRow("dialog dismissed") << admin << "exit 126" << mkdir << "" << -60006;
        QTest::newRow("not authorized") << admin << "exit 127" << mkdir << "" << -60005;
    }

    // A refused request runs nothing and says so on standard error; the helper takes the next
    // command. A refused right leaves the reference set, and each command asks again.
    void refusals()
    {
        REQUIRE_PRIVILEGED();
        QFETCH(QString, user);
        QFETCH(QString, launcher);
        QFETCH(QStringList, command);
        QFETCH(QString, made);
        QFETCH(int, status);
        if (launcher.startsWith("exit ")) {
            QVERIFY(writeFile(m_scratch + "-standin", "#!/bin/sh\n" + launcher.toUtf8() + '\n', 0755));
            launcher = m_scratch + "-standin";
        }
        command.replaceInStrings(QStringLiteral("@"), m_scratch);
        const QString after = m_scratch + "/after";
        const ProcessResult result =
            probeAs(user, QStringList{"auth", "run", command.first(), QString::number(command.size() - 1)} + command.mid(1)
                              + QStringList{"run", "/bin/mkdir", "3", "-m", "0700", after, "free"}, launcher);
        QCOMPARE(result.out, QStringLiteral("\nauth=%1 ref=set\nrun=%2\nrun=%1\nfree=0 ref=null\n")
                                 .arg(status ? 0 : 1).arg(made.isEmpty() ? 0 : 1));
        QCOMPARE(QDir(m_scratch).entryList(QDir::AllEntries | QDir::NoDotAndDotDot, QDir::Name),
                 status ? QStringList() : made.isEmpty() ? QStringList{"after"} : (QStringList{"after", made}));
        QVERIFY(!QFileInfo::exists("/pwned"));
        if (!status) {
            QVERIFY2(!made.isEmpty() || result.err.contains("veld-authhelper: refused: "), qPrintable(result.err));
            QCOMPARE(launches(m_dir.path()), 1);
            return;
        }
        // The line of the refused right has no line break of its own; each command then fails on its own line.
        const QString refused = QStringLiteral("AuthorizationCopyRights failed: status=%1").arg(status);
        QVERIFY2(result.err.contains(refused) && !result.err.contains(refused + '\n')
                     && matchesGlob(result.err, QStringLiteral("*failed: /bin/mkdir\n -m\n 0755\n %2/g\n status=%1\n*failed: "
                                                               "/bin/mkdir\n -m\n 0700\n %3\n status=%1\n").arg(status).arg(m_scratch, after)),
                 qPrintable(result.err));
    }

    // The helper and its launcher end with the authority: when it is released, and when its client is killed.
    void helperEndsWithClient()
    {
        REQUIRE_PRIVILEGED();
        for (const bool killed : {false, true}) {
            QProcess client;
            client.setProcessEnvironment(withLauncher(kHelper, m_dir.filePath("launch")));
            const QStringList command = asUser("veldadmin")({kProbe, "auth", "wait", "free", "wait"});
            client.start(command.first(), command.mid(1));
            const auto waitFor = [&](const char *text) {
                QByteArray out;
                while (!out.contains(text) && client.waitForReadyRead(60000))
                    out += client.readAllStandardOutput();
                return out.contains(text);
            };
            QVERIFY(waitFor("waiting"));
            const QList<pid_t> helpers = processesMentioning(kHelper);
            QCOMPARE(helpers.size(), 2);   // the launcher and the helper
            killed ? void(::kill(pid_t(client.processId()), SIGKILL)) : void(client.write("\n"));
            QVERIFY(killed ? client.waitForFinished(60000) : waitFor("free=0 ref=null"));
            QVERIFY(allGone(helpers));
            client.write("\n");
            client.waitForFinished(5000);
        }
    }

    // A process that already runs as root starts the helper itself, without a launcher. This
    // helper's folder has no veld-defaults, so that tool cannot be started.
    void directAsRoot()
    {
        const QString helper = m_scratch + "/bin/veld-authhelper", made = m_scratch + "/r", defaults = m_scratch + "/bin/veld-defaults";
        QVERIFY(geteuid() == 0 && writeFile(helper, fileBytes(kHelper), 0500));
        const ProcessResult result = runProcess({kProbe, "auth", "run", "/bin/mkdir", "3", "-m", "0700", made, "run", defaults, "3",
                                                 "delete", "/nonexistent/d", "k", "free"}, withLauncher(helper, m_dir.filePath("launch")));
        QCOMPARE(result.out, QStringLiteral("\nauth=1 ref=set\nrun=1\nrun=0\nfree=0 ref=null\n"));
        QVERIFY2(matchesGlob(result.err, "*veld-authhelper: cannot start " + defaults + ": * status=-60031\n"), qPrintable(result.err));
        QCOMPARE(ownership(made) + QString::number(launches(m_dir.path())), "root:root 7000");
    }

private:
    ProcessResult probeAs(const QString &user, const QStringList &args, const QString &launcherCommand = QString())
    {
        return runProcess(asUser(user)(QStringList{kProbe} + args),
                          withLauncher(kHelper, launcherCommand.isEmpty() ? m_dir.filePath("launch") : launcherCommand));
    }

    QTemporaryDir m_dir;
    QString m_scratch;
    const QString m_file = m_dir.filePath("printed.txt");   // what a tool prints: more than one piece of output
};

QTEST_GUILESS_MAIN(tst_Authority)
#include "tst_authority.moc"
