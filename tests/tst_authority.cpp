#include "platform/authority.h"
#include "platform/authpolicy.h"
#include "platform/authprotocol.h"
#include "platform/locations.h"
#include "platform/users.h"
#include "testsupport.h"



// The privileged rows run call sequences of the support probe as the test users, through the real "sudo -n".

namespace {

const QString kHelper = QStringLiteral(VELD_AUTHHELPER), kProbe = QStringLiteral(VELD_SUPPORTPROBE);

// The definition that writeLaunchDaemonAgent writes for all users, naming user.
QByteArray ownDefinition(const QByteArray &user)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE plist PUBLIC \"-//Apple Computer//DTD PLIST 1.0//EN\"\n"
           "    \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n<plist version=\"1.0\">\n<dict>\n    <key>Label</key>\n"
           "        <string>com.halvorn.qv_computeservice</string>\n    <key>ProgramArguments</key>\n        <array>\n"
           "            <string>/opt/q/qv_computeservice</string>\n        </array>\n    <key>UserName</key>\n"
           "        <string>" + user + "</string>\n    <key>RunAtLoad</key>\n        <true/>\n    <key>KeepAlive</key>\n"
           "         <true/>\n</dict>\n</plist>\n";
}

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
    // A scratch folder of root's, readable by everyone and writable by no one else.
    void init()
    {
        static int serial = 0;
        m_scratch = m_dir.filePath(QString("scratch-%1").arg(++serial));
        QVERIFY(createCountingLauncher(m_dir.path()) && QDir().mkpath(m_scratch));
        QVERIFY(QFile::setPermissions(m_scratch, QFileDevice::Permissions(0x7555)));
    }

    void cleanup() { QVERIFY(allGone(processesMentioning(kHelper))); }   // no test leaves a root helper behind

    // Place and content against the verdict: "" admitted, else the start of the refusal. The caller is "alice"
    // (1001), the administrators' group 27; "found" is what the operation finds on disk, opened without following
    // a link, and for a copy the temporary file's bytes are the row's content.
    void policy_data()
    {
        QTest::addColumn<QString>("tool");
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QString>("found");         // folder, file, link, two names, written (the definition copied), root's
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QString>("destination");   // before the request ("?" first: not made by the helper), and after it
        QTest::addColumn<QString>("verdict");

        const QString m = kMakersFolder, d = "/srv/db/VELDV400", temp = "/tmp/qv_computecontrol.Ab12Z9", def = kLaunchDaemonDefinition;
        const QString shape = "not a form", place = "not a place", folder = "not a folder", user = "not a definition that runs";
        const QString form = "not a property list", prefs = QString(kSystemPreferencesFolder) + "/com.halvorn.QuorvanVELD";
        const auto row = [](const char *name, const QString &tool, const QStringList &args, const QString &verdict,
                            const QString &found = "folder", const QString &destination = "", const QByteArray &content = "") {
            QTest::newRow(name) << tool << args << found << content << destination << verdict;
        };
        const auto cp = [&](const char *name, const QString &verdict, const QByteArray &content, const QString &found = "file") {
            row(name, "/bin/cp", {temp, def}, verdict, found, "", content);
        };
        const QByteArray own = ownDefinition("alice"), named = "    <key>UserName</key>\n        <string>alice</string>\n";
        const QByteArray program = "<string>/opt/q/qv_computeservice</string>";

        row("mkdir in the maker's folder", "/bin/mkdir", {"-m", "0775", m + "/VELDV400"}, "");
        row("the first mkdir elsewhere names the destination", "/bin/mkdir", {"-m", "775", d}, "", "", d);
        row("a numbered destination", "/bin/mkdir", {"-m", "755", "/srv/db/VELDV400_12"}, "", "", "/srv/db/VELDV400_12");
        row("chain 1: a unit folder of the service manager", "/bin/mkdir", {"-m", "755", "/etc/systemd/system/x.service.d"}, place);
        row("a name that only starts as the database's", "/bin/mkdir", {"-m", "755", "/srv/VELDV400x"}, place);
        row("a number that is not digits", "/bin/mkdir", {"-m", "755", "/srv/VELDV400_1.d"}, place);
        row("a trailing /", "/bin/mkdir", {"-m", "755", "/srv/db/VELDV400/"}, shape);
        row("up through ..", "/bin/mkdir", {"-m", "755", "/srv/../etc/VELDV400"}, shape);
        row("a second destination", "/bin/mkdir", {"-m", "755", "/srv/other/VELDV400"}, place, "", d);
        row("mkdir sticky", "/bin/mkdir", {"-m", "1775", m + "/x"}, shape);
        row("chmod of the destination", "/bin/chmod", {"0775", d}, "", "folder", d);
        row("chmod of a destination this helper did not make", "/bin/chmod", {"0775", d}, "a destination", "folder", "?" + d);
        row("chmod of a root file", "/bin/chmod", {"0644", "/etc/shadow"}, place, "file", d);
        row("chmod set-uid", "/bin/chmod", {"4755", m}, shape);
        row("chmod of a folder of the maker's", "/bin/chmod", {"775", m + "/VELDV400"}, "");
        row("a name that only starts as the maker's", "/bin/chmod", {"775", m + "X"}, place);
        row("chain 4: chmod of a hard link in the maker's folder", "/bin/chmod", {"0775", m + "/x"}, folder, "two names");
        row("chmod of a symbolic link in the maker's folder", "/bin/chmod", {"0775", m + "/x"}, folder, "link");
        row("chmod of a file in the maker's folder", "/bin/chmod", {"0644", m + "/x"}, folder, "file");
        row("chmod of the definition this helper wrote", "/bin/chmod", {"644", def}, "", "written");
        row("chmod of a definition this helper did not write", "/bin/chmod", {"644", def}, "not the launch definition", "file");
        row("chmod of the definition to 755", "/bin/chmod", {"755", def}, place, "written");
        row("chgrp to root's group", "/usr/bin/chgrp", {"0", m}, "not the administrators'");
        row("chgrp to the administrators", "/usr/bin/chgrp", {"27", m}, "");
        row("chgrp of a hard link", "/usr/bin/chgrp", {"27", m + "/x"}, folder, "two names");
        row("chown to root", "/bin/chown", {"0:27", m}, "not the calling user");
        row("chown to the caller", "/bin/chown", {"1001:27", m + "/VELDV400"}, "");
        row("chown of the maker's folder itself", "/bin/chown", {"1001:27", m}, place);
        row("chain 4: chown of a hard link in the maker's folder", "/bin/chown", {"1001:27", m + "/x"}, folder, "two names");
        row("chown of the destination", "/bin/chown", {"1001:27", d}, place, "folder", d);
        row("cp of a shell", "/bin/cp", {"/bin/bash", def}, "not the installer's temporary");
        row("cp to standard output", "/bin/cp", {temp, "/dev/stdout"}, place, "file");
        row("cp to the launch agents of every user", "/bin/cp", {temp, kLaunchAgentDefinition}, place, "file");
        cp("cp of the product's definition", "", own);
        cp("chain 3: a definition without UserName", "a launch definition without all", QByteArray(own).replace(named, ""));
        cp("UserName root", user, QByteArray(own).replace("alice", "root"));
        cp("another user's name", user, QByteArray(own).replace("alice", "bob"));
        cp("two UserName entries", form, QByteArray(own).replace(named, named + named));
        cp("a second program argument", "not the service's one program", QByteArray(own).replace(program, program + program));
        cp("another program", "not the service's one program", QByteArray(own).replace("/qv_computeservice<", "/sh<"));
        cp("another label", "not the product's service label", QByteArray(own).replace(".qv_computeservice<", ".x<"));
        cp("an entry of its own", form, QByteArray(own).replace("<dict>\n", "<dict>\n<key>Program</key><string>/x</string>\n"));
        cp("an entity declared in the document type", form,
           QByteArray(own).replace(".dtd\">", ".dtd\" [<!ENTITY u \"alice\">]>").replace(">alice<", ">&u;<"));
        cp("a comment", form, QByteArray(own).replace("<dict>", "<dict><!-- -->"));
        cp("a second property list after the end", form, own + "<plist/>");
        cp("not XML", form, "Label=com.halvorn.qv_computeservice\n");
        cp("a temporary file of root's", "not the calling user's own", own, "root's");
        cp("a temporary file with two names", "not the calling user's own", own, "two names");
        row("the database's location", "/h/veld-defaults", {"write", prefs, "VELDFullDatabasePath", "/srv/db/VELDV400"}, "");
        row("the database's location removed", "/h/veld-defaults", {"delete", prefs, "VELDFullDatabasePath"}, "");
        row("chain 2: a drop-in of the service manager", "/h/veld-defaults",
            {"write", "/etc/systemd/system/x.service.d/com.halvorn.x", "Service/ExecStartPre", "/home/a/run"}, place);
        row("chain 2: kernel settings", "/h/veld-defaults", {"write", "/etc/sysctl.d/com.halvorn.y", "kernel.core_pattern", "|/x"}, place);
        row("another key of the product's file", "/h/veld-defaults", {"write", prefs, "Service/ExecStartPre", "/x"}, place);
        row("the log's domain, which names a file to append to", "/h/veld-defaults",
            {"write", QString(kSystemPreferencesFolder) + "/com.halvorn.Quorvan", "VELDInstaller_LogLocation", "/etc/passwd"}, place);
        row("defaults, empty key", "/h/veld-defaults", {"delete", prefs, ""}, shape);
        row("veld-defaults elsewhere", "/tmp/veld-defaults", {"delete", prefs, "VELDFullDatabasePath"}, "not a tool");
        row("another program", "/bin/sh", {"-c", "id"}, "not a tool");
    }

    void policy()
    {
        QFETCH(QString, tool);
        QFETCH(QStringList, args);
        QFETCH(QString, found);
        QFETCH(QByteArray, content);
        QFETCH(QString, destination);
        QFETCH(QString, verdict);
        std::vector<std::string> list;
        for (const QString &arg : args)
            list.push_back(arg.toStdString());
        HelperRun run;
        run.caller = 1001;
        run.callerName = "alice";
        run.adminGroup = 27;
        run.helperFolder = "/h";
        run.destinationMade = !destination.startsWith('?');
        destination.remove('?');
        run.destination = tool == "/bin/mkdir" && verdict.isEmpty() ? "" : destination.toStdString();
        run.definitionDevice = 8;
        run.definitionInode = 77;
        Operation op;
        QString reason = QString::fromStdString(admit(tool.toStdString(), list, run, &op));
        QCOMPARE(QString::fromStdString(run.destination), destination);
        if (reason.isEmpty()) {
            Found what;
            what.object.st_mode = found == "folder" ? S_IFDIR | 0755 : found == "link" ? S_IFLNK | 0777 : S_IFREG | 0644;
            what.object.st_nlink = found == "folder" ? 2 : found == "two names" ? 2 : 1;
            what.object.st_uid = found == "root's" || found == "written" ? 0 : 1001;
            what.object.st_dev = 8;
            what.object.st_ino = found == "written" ? 77 : 78;
            what.content = content.toStdString();
            reason = QString::fromStdString(admitFound(op, what, run));
        }
        QVERIFY2(verdict.isEmpty() ? reason.isEmpty() : reason.startsWith(verdict), qPrintable(reason));
    }

    // Who may choose the helper and the launcher through the environment: only root.
    void rootsAlone_data()
    {
        QTest::addColumn<QString>("path");   // "@" stands for a scratch folder of root's
        QTest::addColumn<QString>("owner");
        QTest::addColumn<int>("folderMode");
        QTest::addColumn<bool>("trusted");
        QTest::newRow("root's, below /tmp") << "@/f" << "root" << 0755 << true;
        QTest::newRow("a user's") << "@/f" << "veldguest" << 0755 << false;
        QTest::newRow("root's, in a folder others can change") << "@/f" << "root" << 0777 << false;
        QTest::newRow("root's, in a sticky folder as /tmp") << "@/f" << "root" << 01777 << true;
        QTest::newRow("through a link to a user's") << "@/link" << "veldguest" << 0755 << false;
        QTest::newRow("relative") << "f" << "root" << 0755 << false;
    }

    void rootsAlone()
    {
        QFETCH(QString, path);
        QFETCH(QString, owner);
        QFETCH(int, folderMode);
        QFETCH(bool, trusted);
        QVERIFY(writeFile(m_scratch + "/f", "#!/bin/sh\n", 0755) && QFile::link(m_scratch + "/f", m_scratch + "/link"));
        QCOMPARE(runProcess({"chown", owner, m_scratch + "/f"}).exitCode, 0);
        QVERIFY(QFile::setPermissions(m_scratch, QFileDevice::Permissions(0x7555)) && ::chmod(qPrintable(m_scratch), mode_t(folderMode)) == 0);
        QCOMPARE(isRootsAlonePath(path.replace('@', m_scratch).toStdString()), trusted);
    }

    void helperFrames_data()
    {
        using namespace authproto;
        QTest::addColumn<QByteArray>("input");
        QTest::addColumn<QByteArray>("output");   // the helper's answers
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("complaint");   // on its standard error

        const QByteArray good = frame(kRun, encodeRun("/bin/chmod", {"0755", std::string(kMakersFolder) + "/nonexistent"}));
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

    // The helper itself, fed frames as they may arrive, keeping none of the descriptors it was given beyond the three.
    void helperFrames()
    {
        QFETCH(QByteArray, input);
        QFETCH(QByteArray, output);
        QFETCH(int, exitCode);
        QFETCH(QString, complaint);
        QProcess helper;
        helper.start("sh", {"-c", "exec 7</dev/null; exec \"$0\"", kHelper});
        QByteArray answers;
        while (answers.isEmpty() && helper.waitForReadyRead(60000))
            answers += helper.readAllStandardOutput();
        QCOMPARE(QDir(QStringLiteral("/proc/%1/fd").arg(helper.processId())).entryList(QDir::NoDotAndDotDot | QDir::System),
                 QStringList({"0", "1", "2"}));
        helper.write(input);
        while (answers.size() < output.size() && helper.waitForReadyRead(60000))
            answers += helper.readAllStandardOutput();
        helper.closeWriteChannel();
        QVERIFY(helper.waitForFinished(60000) && helper.exitCode() == exitCode);
        QCOMPARE(answers + helper.readAllStandardOutput(), output);
        const QString err = QString::fromUtf8(helper.readAllStandardError());
        QVERIFY2(complaint.isEmpty() ? !err.contains("refused") : err.contains(complaint), qPrintable(err));
    }

    // One authority, every tool on the maker's folder, one start of the launcher; a silent tool fails in the log;
    // then a request with the released reference is refused. Releasing a null reference, or logging before the
    // log is open, is refused too.
    void severalCommands()
    {
        REQUIRE_PRIVILEGED();
        const QString a = QString(kMakersFolder) + "/a", log = m_dir.filePath("tools.log");
        QVERIFY(writeFile(log, QByteArray(), 0666));
        const QString gid = QString::number(getGroupId(adminGroupName()));
        const ProcessResult result = probeAs(
            "veldadmin", {"free", "runlog", "/bin/chmod", "2", "0755", a, "macopen", log, "auth",
                          "run", "/bin/mkdir", "3", "-m", "0755", a, "run", "/usr/bin/chgrp", "2", gid, a,
                          "run", "/bin/chown", "2", QString::number(userId("veldadmin")) + ":" + gid, a,
                          "runlog", "/bin/chmod", "2", "0775", a, "run", "/bin/mkdir", "0", "free",
                          "runreleased", "/bin/mkdir", "3", "-m", "0755", a + "/late"});
        QCOMPARE(result.out, QStringLiteral("free=-60002 ref=null\nrunlog=0\nmacopen=1\n\nauth=1 ref=set\nrun=1\nrun=1\nrun=1\n"
                                            "runlog=0\nrun=0\nfree=0 ref=null\nrunreleased=0\n"));
        QCOMPARE(launches(m_dir.path()), 1);
        QCOMPARE(ownership(m_scratch + "/a") + QDir(m_scratch + "/a").entryList(QDir::NoDotAndDotDot).join(','),
                 "veldadmin:" + QString::fromLatin1(adminGroupName()) + " 775");
        QVERIFY(result.err.startsWith("Requested runCommandWithAuthorityWithLog, but log is not open\n"));
        QVERIFY(result.err.contains("AuthorizationExecuteWithPrivileges failed: /bin/mkdir\n status=-60005\n"));
        QVERIFY(result.err.contains("refused: the authority was released: /bin/mkdir"));
        QCOMPARE(logMessages(log), QStringList({"Executing AuthorizationExecuteWithPrivileges: /bin/chmod \"0775\" \"" + a + '"',
                                                "No STDOUT output returned from command- handling as error"}));
    }

    void attacks_data()
    {
        QTest::addColumn<QString>("user");
        QTest::addColumn<QString>("setup");       // a shell command run as root first; "@" stands for the scratch folder,
                                                  // whose "g" is a folder of veldguest's
        QTest::addColumn<QStringList>("env");     // NAME=VALUE for the probe; VELD_AUTH_LAUNCHER is the counting one unless set
        QTest::addColumn<QStringList>("probe");   // the probe's commands
        QTest::addColumn<QString>("out");         // its report (a glob)
        QTest::addColumn<QString>("err");         // on its standard error (a glob)
        QTest::addColumn<QString>("check");       // a shell command run as root afterwards, and its output after "=>"

        const QString admin = "veldadmin", guest = "veldguest", ran = "ls @/g=>launcher\n";
        const QString defaults = QFileInfo(kHelper).absolutePath() + "/veld-defaults";
        const QString standin = "printf '#!/bin/sh\\ntouch \"${0%%/*}/ran\"\\nexec /usr/bin/sudo -n \"$@\"\\n' >@/g/launcher && chmod 755 @/g/launcher";
        QTest::newRow("a link in the destination's place, then its mode")
            << admin << "install -m 600 /dev/null @/secret && ln -s @/secret @/VELDV400" << QStringList()
            << QStringList{"auth", "run", "/bin/mkdir", "3", "-m", "775", "@/VELDV400", "run", "/bin/chmod", "2", "0775", "@/VELDV400"}
            << "\nauth=1 ref=set\nrun=1\nrun=0\n" << "mkdir: cannot create directory '@/VELDV400': File exists\n*refused: a destination*"
            << "stat -c %a @/secret=>600\n";
        QTest::newRow("a link in the destination's parent")
            << admin << "ln -s @/g @/l" << QStringList() << QStringList{"auth", "run", "/bin/mkdir", "3", "-m", "775", "@/l/VELDV400"}
            << "\nauth=1 ref=set\nrun=1\n" << "mkdir: cannot create directory '@/l/VELDV400': Not a directory\n"
            << "ls @/g=>";
        // The four ways a caller once made root run a program of its choosing: each is refused, and nothing is written.
        QTest::newRow("chain 1: a folder of the caller's naming as the destination")
            << admin << "true" << QStringList() << QStringList{"auth", "run", "/bin/mkdir", "3", "-m", "755", "@/x.service.d"}
            << "\nauth=1 ref=set\nrun=0\n" << "*refused: not a place*" << "ls @=>g\n";
        QTest::newRow("chain 2: a preference file in another folder of root's")
            << admin << "true" << QStringList()
            << QStringList{"auth", "run", defaults, "4", "write", "@/com.halvorn.x", "Service/ExecStartPre", "/bin/id"}
            << "\nauth=1 ref=set\nrun=0\n" << "*refused: not a place*" << "ls @=>g\n";
        QTest::newRow("chain 3: a launch definition without the user")
            << admin << "install -o veldadmin -m 600 %D %T" << QStringList()
            << QStringList{"auth", "run", "/bin/cp", "2", "%T", kLaunchDaemonDefinition}
            << "\nauth=1 ref=set\nrun=0\n" << "*refused: a launch definition without all of its entries*"
            << QString("rm %T && test ! -e %1 && echo none=>none\n").arg(kLaunchDaemonDefinition);
        QTest::newRow("chain 4: owner and mode through a hard link in the maker's folder")
            << admin << "install -o veldadmin -m 600 /dev/null @/target && ln @/target %M/hard" << QStringList()
            << QStringList{"auth", "run", "/bin/chown", "2", QString::number(userId(admin)) + ':' + QString::number(getGroupId(adminGroupName())),
                           "%M/hard", "run", "/bin/chmod", "2", "0775", "%M/hard"}
            << "\nauth=1 ref=set\nrun=0\nrun=0\n" << "*refused: not a folder*refused: not a folder*" << "stat -c %U:%G:%a @/target=>veldadmin:root:600\n";
        QTest::newRow("a launcher of the user's") << guest << standin << QStringList{"VELD_AUTH_LAUNCHER=@/g/launcher"} << QStringList{"auth"}
                                                  << "\nauth=0 ref=set\n" << "*VELD_AUTH_LAUNCHER ignored: @/g/launcher is not owned by root*" << ran;
        QTest::newRow("a pkexec of the user's first on PATH")
            << guest << standin + " && mv @/g/launcher @/g/pkexec" << QStringList{"VELD_AUTH_LAUNCHER=", "PATH=@/g:/usr/bin:/bin"}
            << QStringList{"auth"} << "\nauth=0 ref=set\n" << "*" << "ls @/g=>pkexec\n";
        QTest::newRow("a launcher that leaves a child holding the channel")
            << admin << "printf '#!/bin/sh\\nexec 3<&0\\ncat <&3 >/dev/null &\\n' >@/quits && chmod 755 @/quits" << QStringList{"VELD_AUTH_LAUNCHER=@/quits"}
            << QStringList{"auth"} << "\nauth=0 ref=set\n" << "AuthorizationCopyRights failed: status=-60008" << "true=>";
        QTest::newRow("a password dialog left unanswered")
            << admin << "printf '#!/bin/sh\\nexec cat >/dev/null\\n' >@/waits && chmod 755 @/waits" << QStringList{"VELD_AUTH_LAUNCHER=@/waits"}
            << QStringList{"limit", "50", "auth"} << "\nauth=0 ref=set\n" << "*no answer from the launcher in time*status=-60008" << "true=>";
        QTest::newRow("standard input and output closed")
            << admin << "true" << QStringList() << QStringList{"closed", "auth", "run", "/bin/mkdir", "3", "-m", "755", "@/VELDV400"} << ""
            << "*" << "stat -c %U @/VELDV400=>root\n";
    }

    // Each of these got root to do more than the installation before: now each is refused, or ends cleanly.
    void attacks()
    {
        REQUIRE_PRIVILEGED();
        QFETCH(QString, user);
        QFETCH(QString, setup);
        QFETCH(QStringList, env);
        QFETCH(QStringList, probe);
        QFETCH(QString, out);
        QFETCH(QString, err);
        QFETCH(QString, check);
        const QString at = m_dir.filePath(QString(QTest::currentDataTag()).replace(QRegularExpression("\\W"), "_"));   // not the maker's
        QVERIFY(QDir().mkpath(at + "/g") && QFile::setPermissions(at, QFileDevice::Permissions(0x7755)));
        QVERIFY(writeFile(m_dir.filePath("nouser.plist"), ownDefinition("veldadmin").replace("    <key>UserName</key>\n        <string>veldadmin</string>\n", "")));
        QCOMPARE(runProcess({"chown", "veldguest:veldguest", at + "/g"}).exitCode, 0);
        // "@" the row's folder, "%M" the maker's folder (the scratch folder stands there), "%T" a temporary file of the
        // installer's name, "%D" the product's launch definition without the user.
        const QString temp = "/tmp/qv_computecontrol." + QString::number(QRandomGenerator::global()->bounded(100000, 999999));
        const auto expand = [&](QString text, const QString &makers) {
            return text.replace('@', at).replace("%M", makers).replace("%T", temp).replace("%D", m_dir.filePath("nouser.plist"));
        };
        QCOMPARE(runProcess({"sh", "-c", expand(setup, m_scratch)}).exitCode, 0);
        QProcessEnvironment environment = withLauncher(kHelper, m_dir.filePath("launch"));
        for (const QString &pair : env)
            environment.insert(pair.section('=', 0, 0), expand(pair.section('=', 1), m_scratch));
        for (QString &word : probe)
            word = expand(word, kMakersFolder);
        const ProcessResult result = runProcess(wrapped(QStringList{kProbe} + probe, {asUser(user), atMakersFolder(m_scratch)}), environment);
        QVERIFY2(matchesGlob(result.out, expand(out, kMakersFolder)) && matchesGlob(result.err, expand(err, kMakersFolder)),
                 qPrintable(result.out + result.err));
        QCOMPARE(runProcess({"sh", "-c", expand(check.section("=>", 0, 0), m_scratch)}).out, expand(check.section("=>", 1), m_scratch));
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
        QTest::newRow("a launcher that cannot be started") << admin << "/" << mkdir << "" << -60031;
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
        const QString makers = kMakersFolder, after = makers + "/after";
        command.replaceInStrings(QStringLiteral("@"), makers);
        const ProcessResult result =
            probeAs(user, QStringList{"auth", "run", command.first(), QString::number(command.size() - 1)} + command.mid(1)
                              + QStringList{"run", "/bin/mkdir", "3", "-m", "0755", after, "free"}, launcher);
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
                                                               "/bin/mkdir\n -m\n 0755\n %3\n status=%1\n").arg(status).arg(makers, after)),
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
            // The helper keeps nothing of the environment it was given, not even where the kernel shows it.
            int cleared = 0;
            for (const pid_t pid : helpers) {
                const QString proc = QStringLiteral("/proc/%1/").arg(pid);
                if (fileBytes(proc + "cmdline").startsWith(QFile::encodeName(kHelper) + '\0'))
                    cleared += fileBytes(proc + "environ").contains('=') ? 0 : 1;
            }
            QCOMPARE(cleared, 1);
            // Another process of the user cannot reach into the installer for its channel.
            const QStringList peek = asUser("veldadmin")({"ls", QStringLiteral("/proc/%1/fd").arg(client.processId())});
            QVERIFY(runProcess(peek).err.contains("Permission denied"));
            killed ? void(::kill(pid_t(client.processId()), SIGKILL)) : void(client.write("\n"));
            QVERIFY(killed ? client.waitForFinished(60000) : waitFor("free=0 ref=null"));
            QVERIFY(allGone(helpers));
            client.write("\n");
            client.waitForFinished(5000);
        }
    }

    // A process that already runs as root starts the helper itself, without a launcher. The helper writes the
    // preference itself: the veld-defaults in its folder, which a user might have swapped, is never run.
    void directAsRoot()
    {
        const QString bin = m_scratch + "/bin", made = m_scratch + "/VELDV400", prefs = m_scratch + "/xdg";
        const QString target = QString(kSystemPreferencesFolder) + "/com.halvorn.QuorvanVELD";
        QVERIFY(QDir().mkpath(bin) && QDir().mkpath(prefs) && writeFile(bin + "/veld-authhelper", fileBytes(kHelper), 0500));
        QVERIFY(writeFile(bin + "/veld-defaults", "#!/bin/sh\ntouch " + bin.toUtf8() + "/swapped\n", 0755));
        const QStringList probe{kProbe, "auth", "run", "/bin/mkdir", "3", "-m", "0755", made, "run", bin + "/veld-defaults",
                                "4", "write", target, "VELDFullDatabasePath", made, "free"};
        const ProcessResult result = runProcess(wrapped(probe, {atSystemPreferences(prefs)}),
                                                withLauncher(bin + "/veld-authhelper", m_dir.filePath("launch")));
        QCOMPARE(result.out, QStringLiteral("\nauth=1 ref=set\nrun=1\nrun=1\nfree=0 ref=null\n"));
        const QString written = prefs + "/com.halvorn.QuorvanVELD.conf";
        QCOMPARE(ownership(made) + ownership(written) + QString::number(launches(m_dir.path())), "root:root 755root:root 6440");
        QVERIFY(fileText(written).contains("VELDFullDatabasePath=" + made) && !QFileInfo::exists(bin + "/swapped"));
    }

private:
    ProcessResult probeAs(const QString &user, const QStringList &args, const QString &launcherCommand = QString())
    {
        return runProcess(wrapped(QStringList{kProbe} + args, {asUser(user), atMakersFolder(m_scratch)}),
                          withLauncher(kHelper, launcherCommand.isEmpty() ? m_dir.filePath("launch") : launcherCommand));
    }

    QTemporaryDir m_dir;
    QString m_scratch;
};

QTEST_GUILESS_MAIN(tst_Authority)
#include "tst_authority.moc"
