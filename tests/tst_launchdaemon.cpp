#include "platform/privileges.h"
#include "platform/users.h"
#include "service/launchdaemon.h"
#include "testsupport.h"

#include <QtTest>

#include <unistd.h>

class tst_LaunchDaemon : public QObject
{
    Q_OBJECT

private slots:
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

    // Written by a process that ends without flushing its streams: a written file is whole.
    void create()
    {
        QFETCH(bool, systemWide);
        QFETCH(bool, run);
        QFETCH(QString, folder);
        QFETCH(int, status);
        QFETCH(QString, failure);
        QTemporaryDir dir;
        const QString path = dir.filePath(failure.isEmpty() ? "agent.plist" : "none/x.plist");
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.remove("QUOR_COMPUTESERVICE");
        if (folder != "-")
            env.insert("QUOR_COMPUTESERVICE", folder);
        const ProcessResult result = runProcess({VELD_SUPPORTPROBE, "open", dir.filePath("log"), "tst", "launchd", path,
                                                 systemWide ? "1" : "0", run ? "1" : "0", "exitnow"}, env);
        QCOMPARE(result.out, QStringLiteral("launchd=%1\n").arg(status));
        if (!failure.isEmpty()) {
            QCOMPARE(result.err, failure.arg(path) + '\n');
            QCOMPARE(logMessages(dir.filePath("log")).mid(2), QStringList{failure.arg(path)});
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

    void locations_data()
    {
        QTest::addColumn<int>("scope");
        QTest::addColumn<QByteArray>("home");   // null: unset
        QTest::addColumn<QString>("location");
        QTest::newRow("system-wide") << 1 << QByteArray("/home/me") << "/Library/LaunchDaemons/com.halvorn.qv_computeservice.plist";
        QTest::newRow("per user") << 0 << QByteArray("/home/me") << "/home/me/Library/LaunchAgents/com.halvorn.qv_computeservice.plist";
        QTest::newRow("per user, no HOME") << 0 << QByteArray() << "";
    }

    void locations()
    {
        QFETCH(int, scope);
        QFETCH(QByteArray, home);
        QFETCH(QString, location);
        const QByteArray saved = qgetenv("HOME");
        home.isNull() ? qunsetenv("HOME") : qputenv("HOME", home);
        gSystemScope = scope;
        const std::string found = getServerPlistLocation();
        gSystemScope = 0;
        qputenv("HOME", saved);
        QCOMPARE(QString::fromStdString(found), location);
    }

    // The definition's presence in the per-user location, then the lock file.
    void lockFile()
    {
        QTemporaryDir dir;
        const QByteArray home = qgetenv("HOME");
        qputenv("HOME", QFile::encodeName(dir.path()));
        QCOMPARE(verifyServerPlist(), ENOENT);
        QVERIFY(QDir().mkpath(dir.filePath("Library/LaunchAgents")));
        QCOMPARE(createLaunchDaemonAgent(getServerPlistLocation().c_str(), false, true), 0);
        QCOMPARE(verifyServerPlist(), 0);
        qputenv("HOME", home);
        QVERIFY(QDir().mkpath(dir.filePath("QuorvanServer")));
        createServerControlLockFile(QFile::encodeName(dir.path()).constData());
        const QString lock = dir.filePath("QuorvanServer/Control.pid");
        QCOMPARE(fileText(lock), QStringLiteral("%1 %2").arg(getpid()).arg(QString::fromStdString(getUserName(getuid()))));
        QCOMPARE(removeServerControlLockFile(), 0);
        QVERIFY(!QFileInfo::exists(lock));
        QCOMPARE(removeServerControlLockFile(), -1);
        const QString missing = dir.filePath("none");
        QCOMPARE(standardErrorOf([&] { createServerControlLockFile(QFile::encodeName(missing).constData()); }),
                 QStringLiteral("createPidLockFile:Unable to create/write control pid lock file, %1/QuorvanServer/Control.pid\n"
                                "No such file or directory").arg(missing).toUtf8());
    }
};

QTEST_GUILESS_MAIN(tst_LaunchDaemon)
#include "tst_launchdaemon.moc"
