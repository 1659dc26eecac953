#include "platform/log.h"
#include "platform/privileges.h"
#include "platform/users.h"
#include "service/launchdaemon.h"
#include "testsupport.h"

class tst_LaunchDaemon : public QObject
{
    Q_OBJECT

    QTemporaryDir m_log;

private slots:
    void initTestCase() { QVERIFY(OpenMacLog(QFile::encodeName(m_log.filePath("log")).constData())); }

    void create_data()
    {
        QTest::addColumn<bool>("systemWide");   // a system-wide definition names the user
        QTest::addColumn<bool>("run");
        QTest::addColumn<QString>("folder");    // $QUOR_COMPUTESERVICE; "-": unset
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("failure");   // for a file in a missing folder, on standard error and in the log
        QTest::newRow("system-wide, running") << true << true << "/opt/quorvan/bin" << 0 << "";
        QTest::newRow("per user, not running, no service folder") << false << false << "-" << 0 << "";
        QTest::newRow("per user, no such folder") << false << true << "-" << 6
                                                  << "Error trying to create %1, No such file or directory";
        QTest::newRow("system-wide, no such folder") << true << true << "-" << 5
                                                     << "Error trying to create system %1, No such file or directory";
    }

    // The file is whole on disk as soon as the call returns (nothing waits in a stream).
    void create()
    {
        QFETCH(bool, systemWide);
        QFETCH(bool, run);
        QFETCH(QString, folder);
        QFETCH(int, status);
        QFETCH(QString, failure);
        QTemporaryDir dir;
        const QString path = dir.filePath(failure.isEmpty() ? "agent.plist" : "none/x.plist");
        folder == "-" ? qunsetenv("QUOR_COMPUTESERVICE") : qputenv("QUOR_COMPUTESERVICE", folder.toUtf8());
        const int lines = logMessages(m_log.filePath("log")).size();
        int returned = -1;
        const QString err = standardErrorOf([&] { returned = createLaunchDaemonAgent(QFile::encodeName(path).constData(), systemWide, run); });
        QCOMPARE(returned, status);
        if (!failure.isEmpty()) {
            QCOMPARE(err, failure.arg(path) + '\n');
            QCOMPARE(logMessages(m_log.filePath("log")).mid(lines), QStringList{failure.arg(path)});
            return;
        }
        const QString flag = run ? "<true/>" : "<false/>";
        QStringList expected{"<?xml version=\"1.0\" encoding=\"UTF-8\"?>",
                             "<!DOCTYPE plist PUBLIC \"-//Apple Computer//DTD PLIST 1.0//EN\"",
                             "    \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">", "<plist version=\"1.0\">", "<dict>",
                             "    <key>Label</key>", "        <string>com.halvorn.qv_computeservice</string>",
                             "    <key>ProgramArguments</key>", "        <array>",
                             "            <string>" + (folder == "-" ? "(null)" : folder) + "/qv_computeservice</string>",
                             "        </array>"};
        if (systemWide)
            expected << "    <key>UserName</key>" << "        <string>" + QString::fromStdString(getUserName(getuid())) + "</string>";
        expected << "    <key>RunAtLoad</key>" << "        " + flag << "    <key>KeepAlive</key>" << "         " + flag
                 << "</dict>" << "</plist>" << "";
        QCOMPARE(fileText(path).split('\n'), expected);
        // A well-formed property list (xmllint is one of the build's packages; no network for the DTD).
        const ProcessResult lint = runProcess({"xmllint", "--noout", "--nonet", path});
        QVERIFY2(lint.exitCode == 0, qPrintable(lint.err));
    }

    // The definition's locations, its presence in the per-user one, then the lock file.
    void locationsAndLock()
    {
        if (!inChild())   // once more as a uid without a passwd entry: quietly, the pid alone in the lock file
            runRowInChild({QString(), {[](const QStringList &c) { return QStringList{"unshare", "--map-user=3999999", "--map-group=3999999"} + c; }}});
        QTemporaryDir dir;
        const QByteArray home = qgetenv("HOME");
        qunsetenv("HOME");
        const std::string withoutHome = getServerPlistLocation();
        gSystemScope = 1;
        const std::string systemWide = getServerPlistLocation();
        gSystemScope = 0;
        qputenv("HOME", QFile::encodeName(dir.path()));
        QCOMPARE(QString::fromStdString(withoutHome + '|' + systemWide + '|' + getServerPlistLocation()),
                 "|/Library/LaunchDaemons/com.halvorn.qv_computeservice.plist|" + dir.path()
                     + "/Library/LaunchAgents/com.halvorn.qv_computeservice.plist");
        QCOMPARE(verifyServerPlist(), ENOENT);
        QVERIFY(QDir().mkpath(dir.filePath("Library/LaunchAgents")) && QDir().mkpath(dir.filePath("QuorvanServer")));
        QVERIFY(createLaunchDaemonAgent(getServerPlistLocation().c_str(), false, true) == 0 && verifyServerPlist() == 0);
        qputenv("HOME", home);
        const QString err = standardErrorOf([&] { createServerControlLockFile(QFile::encodeName(dir.path()).constData()); });
        const QString lock = dir.filePath("QuorvanServer/Control.pid");
        QCOMPARE(err + fileText(lock), QString::number(getpid()) + (inChild() ? QString() : ' ' + QString::fromStdString(getUserName(getuid()))));
        QVERIFY(removeServerControlLockFile() == 0 && !QFileInfo::exists(lock) && removeServerControlLockFile() == -1);
        const QString missing = dir.filePath("none");
        QCOMPARE(standardErrorOf([&] { createServerControlLockFile(QFile::encodeName(missing).constData()); }),
                 QStringLiteral("createPidLockFile:Unable to create/write control pid lock file, %1/QuorvanServer/Control.pid\n"
                                "No such file or directory").arg(missing).toUtf8());
    }
};

QTEST_GUILESS_MAIN(tst_LaunchDaemon)
#include "tst_launchdaemon.moc"
