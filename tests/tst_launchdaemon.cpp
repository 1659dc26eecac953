#include "platform/privileges.h"
#include "platform/users.h"
#include "service/launchdaemon.h"
#include "testsupport.h"

#include <QStandardPaths>
#include <QXmlStreamReader>
#include <QtTest>

#include <unistd.h>

namespace {

const QString kProbe = QStringLiteral(VELD_SUPPORTPROBE);

QString definition(bool withUserName, const char *folder, const char *flag)
{
    char *text = nullptr;
    size_t size = 0;
    FILE *stream = open_memstream(&text, &size);
    writeLaunchDaemonAgent(stream, withUserName, folder, flag);
    fclose(stream);
    const QString result = QString::fromUtf8(text, int(size));
    free(text);
    return result;
}

} // namespace

class tst_LaunchDaemon : public QObject
{
    Q_OBJECT

private slots:
    void text_data();
    void text();
    void createForUser();
    void createFailures_data();
    void createFailures();
    void onDiskAtOnce();
    void locations_data();
    void locations();
    void lockFile();
};

void tst_LaunchDaemon::text_data()
{
    QTest::addColumn<bool>("withUserName");
    QTest::addColumn<QString>("folder");   // "-" for none
    QTest::addColumn<QString>("flag");
    QTest::newRow("daemon, running") << true << "/opt/quorvan/bin" << "<true/>";
    QTest::newRow("agent, not running") << false << "/Users/me/Quorvan" << "<false/>";
    QTest::newRow("agent, no service folder") << false << "-" << "<true/>";
}

void tst_LaunchDaemon::text()
{
    QFETCH(bool, withUserName);
    QFETCH(QString, folder);
    QFETCH(QString, flag);
    const QByteArray folderBytes = folder.toUtf8();
    const QString written = definition(withUserName, folder == QLatin1String("-") ? nullptr : folderBytes.constData(),
                                       flag.toLatin1().constData());
    const QString shownFolder = folder == QLatin1String("-") ? QStringLiteral("(null)") : folder;
    QStringList expected{
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>",
        "<!DOCTYPE plist PUBLIC \"-//Apple Computer//DTD PLIST 1.0//EN\"",
        "    \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">",
        "<plist version=\"1.0\">",
        "<dict>",
        "    <key>Label</key>",
        "        <string>com.halvorn.qv_computeservice</string>",
        "    <key>ProgramArguments</key>",
        "        <array>",
        "            <string>" + shownFolder + "/qv_computeservice</string>",
        "        </array>"};
    if (withUserName)
        expected << "    <key>UserName</key>"
                 << "        <string>" + QString::fromStdString(getUserName(getuid())) + "</string>";
    expected << "    <key>RunAtLoad</key>" << "        " + flag << "    <key>KeepAlive</key>" << "         " + flag
             << "</dict>" << "</plist>" << "";
    QCOMPARE(written.split('\n'), expected);

    // A well-formed property list, whatever tool checks it.
    QXmlStreamReader xml(written);
    while (!xml.atEnd())
        xml.readNext();
    QVERIFY2(!xml.hasError(), qPrintable(xml.errorString()));
    const QString xmllint = QStandardPaths::findExecutable(QStringLiteral("xmllint"));
    if (!xmllint.isEmpty()) {
        QTemporaryFile file;
        QVERIFY(file.open() && file.write(written.toUtf8()) > 0);
        file.flush();
        const ProcessResult lint = runProcess(xmllint, {"--noout", "--nonet", file.fileName()});
        QVERIFY2(lint.exitCode == 0, qPrintable(lint.err));
    }
}

void tst_LaunchDaemon::createForUser()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("agent.plist"));
    qputenv("QUOR_COMPUTESERVICE", "/opt/q");
    QCOMPARE(createLaunchDaemonAgent(QFile::encodeName(path).constData(), false, false), 0);
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(QString::fromUtf8(file.readAll()), definition(false, "/opt/q", "<false/>"));
}

void tst_LaunchDaemon::createFailures_data()
{
    QTest::addColumn<bool>("systemWide");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("message");
    QTest::newRow("per user, no such folder") << false << 6 << "Error trying to create %1, No such file or directory\n";
    QTest::newRow("system-wide, no such folder") << true << 5
                                                 << "Error trying to create system %1, No such file or directory\n";
}

// In a separate process, so that standard error and the log can be read.
void tst_LaunchDaemon::createFailures()
{
    QFETCH(bool, systemWide);
    QFETCH(int, status);
    QFETCH(QString, message);
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("none/x.plist"));
    const QString log = dir.filePath(QStringLiteral("log"));
    const ProcessResult result =
        runProcess(kProbe, {"open", log, "tst", "launchd", path, systemWide ? "1" : "0", "1"});
    QCOMPARE(result.out, QStringLiteral("launchd=%1\n").arg(status));
    QCOMPARE(result.err, message.arg(path));
    QCOMPARE(logMessages(log).mid(2), QStringList{message.arg(path).chopped(1)});
}

// The definition is whole on disk even when the process ends without flushing its streams.
void tst_LaunchDaemon::onDiskAtOnce()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("agent.plist"));
    const ProcessResult result = runProcess(kProbe, {"launchd", path, "0", "1", "exitnow"});
    QCOMPARE(result.exitCode, 0);
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QVERIFY(file.readAll().endsWith("</plist>\n"));
}

void tst_LaunchDaemon::locations_data()
{
    QTest::addColumn<int>("scope");
    QTest::addColumn<QByteArray>("home");   // "-": unset
    QTest::addColumn<QString>("location");
    QTest::newRow("system-wide") << 1 << QByteArray("/home/me")
                                 << "/Library/LaunchDaemons/com.halvorn.qv_computeservice.plist";
    QTest::newRow("per user") << 0 << QByteArray("/home/me")
                              << "/home/me/Library/LaunchAgents/com.halvorn.qv_computeservice.plist";
    QTest::newRow("per user, no HOME") << 0 << QByteArray("-") << "";
}

void tst_LaunchDaemon::locations()
{
    QFETCH(int, scope);
    QFETCH(QByteArray, home);
    QFETCH(QString, location);
    const QByteArray saved = qgetenv("HOME");
    if (home == "-")
        qunsetenv("HOME");
    else
        qputenv("HOME", home);
    gSystemScope = scope;
    const std::string found = getServerPlistLocation();
    gSystemScope = 0;
    qputenv("HOME", saved);
    QCOMPARE(QString::fromStdString(found), location);
}

void tst_LaunchDaemon::lockFile()
{
    QTemporaryDir dir;
    const QByteArray saved = qgetenv("HOME");
    qputenv("HOME", QFile::encodeName(dir.path()));
    QCOMPARE(verifyServerPlist(), ENOENT);
    QVERIFY(QDir().mkpath(dir.filePath(QStringLiteral("Library/LaunchAgents"))));
    QCOMPARE(createLaunchDaemonAgent(getServerPlistLocation().c_str(), false, true), 0);
    QCOMPARE(verifyServerPlist(), 0);
    qputenv("HOME", saved);

    QVERIFY(QDir().mkpath(dir.filePath(QStringLiteral("QuorvanServer"))));
    createServerControlLockFile(QFile::encodeName(dir.path()).constData());
    QFile lock(dir.filePath(QStringLiteral("QuorvanServer/Control.pid")));
    QVERIFY(lock.open(QIODevice::ReadOnly));
    QCOMPARE(QString::fromUtf8(lock.readAll()),
             QStringLiteral("%1 %2").arg(getpid()).arg(QString::fromStdString(getUserName(getuid()))));
    QCOMPARE(removeServerControlLockFile(), 0);
    QVERIFY(!lock.exists());
    QCOMPARE(removeServerControlLockFile(), -1);

    const QString missing = dir.filePath(QStringLiteral("none"));
    const ProcessResult failed = runProcess(kProbe, {"lockfile", missing});
    QCOMPARE(failed.err, QStringLiteral("createPidLockFile:Unable to create/write control pid lock file, "
                                        "%1/QuorvanServer/Control.pid\nNo such file or directory").arg(missing));
}

QTEST_GUILESS_MAIN(tst_LaunchDaemon)
#include "tst_launchdaemon.moc"
