#include "platform/log.h"
#include "testsupport.h"

#include <QFile>
#include <QRegularExpression>
#include <QtTest>

#include <pwd.h>
#include <unistd.h>

namespace {

QString effectiveUserLine()
{
    const passwd *pw = getpwuid(geteuid());
    return QStringLiteral("Effective UID is %1 \"%2\"(%3)")
        .arg(QString::fromLocal8Bit(pw->pw_name), QString::fromLocal8Bit(pw->pw_gecos))
        .arg(pw->pw_uid);
}

// Each expected entry is a pattern for the whole message.
void compareMessages(const QStringList &actual, const QStringList &patterns)
{
    QCOMPARE(actual.size(), patterns.size());
    for (int i = 0; i < patterns.size(); ++i) {
        const QRegularExpression pattern(QRegularExpression::anchoredPattern(patterns[i]));
        QVERIFY2(pattern.match(actual[i]).hasMatch(), qPrintable(actual[i] + QStringLiteral(" !~ ") + patterns[i]));
    }
}

} // namespace

class tst_Log : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void fileStamp_data();
    void fileStamp();
    void dateStamps();
    void startFromPreference_data();
    void startFromPreference();
    void callSequences_data();
    void callSequences();
    void appendsOnEveryStart();

private:
    ScratchPreferences *m_prefs = nullptr;
    QTemporaryDir *m_dir = nullptr;
};

void tst_Log::init()
{
    m_prefs = new ScratchPreferences;
    m_dir = new QTemporaryDir;
}

void tst_Log::cleanup()
{
    delete m_prefs;
    delete m_dir;
}

void tst_Log::fileStamp_data()
{
    QTest::addColumn<QByteArray>("stamp");
    QTest::addColumn<QByteArray>("expected");
    QTest::newRow("one-digit day") << QByteArray("Sun Nov  5 09:07:02 2026\n") << QByteArray("Sun_Nov__5_09_07_02_2026");
    QTest::newRow("no newline") << QByteArray("Tue Dec 22 23:59:59 2026") << QByteArray("Tue_Dec_22_23_59_59_2026");
    QTest::newRow("cut at first break") << QByteArray("a b\r\nc:d\n") << QByteArray("a_b");
}

void tst_Log::fileStamp()
{
    QFETCH(QByteArray, stamp);
    QFETCH(QByteArray, expected);
    QCOMPARE(fileNameFromDateStamp(stamp.data()), stamp.data() + expected.size());
    QCOMPARE(QByteArray(stamp.constData()), expected);
}

void tst_Log::dateStamps()
{
    char plain[64], mdac[64], file[64];
    log_datestr(plain);
    MDAC_log_datestr(mdac);
    const char *end = datestr_file(file);
    QCOMPARE(end, file + strlen(file));
    const QRegularExpression stamp(QRegularExpression::anchoredPattern(kLogDateStampPattern));
    QVERIFY2(stamp.match(QLatin1String(plain)).hasMatch(), plain);
    QVERIFY2(stamp.match(QLatin1String(mdac)).hasMatch(), mdac);
    // Up to the minute: the stamps may straddle a second.
    QCOMPARE(QByteArray(file).left(16), QByteArray(plain).replace(' ', '_').replace(':', '_').left(16));
}

void tst_Log::startFromPreference_data()
{
    QTest::addColumn<QString>("executable");
    QTest::addColumn<QString>("userValue");   // "-": no such key
    QTest::addColumn<QString>("systemValue"); // "-": no such key
    QTest::addColumn<bool>("should");
    QTest::addColumn<QString>("written");     // the log file that appears, "" for none

    const QString exe = QStringLiteral("VELD Installer");
    QTest::newRow("no preference") << exe << "-" << "-" << false << "";
    QTest::newRow("per user") << exe << "user.log" << "-" << true << "user.log";
    QTest::newRow("system-wide") << exe << "-" << "system.log" << true << "system.log";
    QTest::newRow("user before system") << exe << "user.log" << "system.log" << true << "user.log";
    QTest::newRow("empty value") << exe << "" << "-" << false << "";
    QTest::newRow("empty user value hides system") << exe << "" << "system.log" << false << "";
    QTest::newRow("comma and blank in the path") << exe << "a, b.log" << "-" << true << "a, b.log";
    QTest::newRow("folder missing") << exe << "missing/x.log" << "-" << true << "";
    QTest::newRow("path is a folder") << exe << "." << "-" << true << "";
    QTest::newRow("apostrophes and blanks") << "VELD In'staller 2" << "user.log" << "-" << true << "user.log";
    QTest::newRow("plain name") << "veld-installer_2.1" << "user.log" << "-" << true << "user.log";
}

// The whole start: executable name to banner and key, preference to file, first lines.
void tst_Log::startFromPreference()
{
    QFETCH(QString, executable);
    QFETCH(QString, userValue);
    QFETCH(QString, systemValue);
    QFETCH(bool, should);
    QFETCH(QString, written);

    const QString banner = QString(executable).remove(QLatin1Char(' ')).remove(QLatin1Char('\''));
    const QString logs = m_dir->filePath(QStringLiteral("logs"));
    QDir().mkpath(logs);
    auto entry = [&](const QString &value) {
        if (value == QLatin1String("-"))
            return QStringList();
        const QString path = value.isEmpty() ? QString() : logs + QLatin1Char('/') + value;
        return QStringList{QStringLiteral("%1_LogLocation=\"%2\"").arg(banner, path)};
    };
    m_prefs->writeDomainFile(m_prefs->userFolder(), QStringLiteral("com.halvorn.Quorvan"), entry(userValue));
    m_prefs->writeDomainFile(m_prefs->systemFolder(), QStringLiteral("com.halvorn.Quorvan"), entry(systemValue));

    const QString probe = placeProbe(m_dir->filePath(QStringLiteral("bin/") + executable));
    const ProcessResult run = runProcess(probe, {"should", "felog", "msg", "hello"}, m_prefs->environment());
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.out, QStringLiteral("should=%1\nfelog=%2\n").arg(should).arg(!written.isEmpty()));
    QCOMPARE(QDir(logs).entryList(QDir::Files), written.isEmpty() ? QStringList() : QStringList{written});
    if (written.isEmpty())
        return;

    QFile file(logs + QLatin1Char('/') + written);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QStringList lines = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'));
    QCOMPARE(lines.size(), 4);
    const QRegularExpressionMatch start =
        QRegularExpression(QStringLiteral("^---%1\\[(\\d+)\\] started---$").arg(QRegularExpression::escape(banner)))
            .match(lines[0]);
    QVERIFY2(start.hasMatch(), qPrintable(lines[0]));
    QCOMPARE(lines[1], effectiveUserLine());
    // No blank between "]" and the date.
    const QString line = QStringLiteral("^\\[%1 %2\\]%3: hello$").arg(QRegularExpression::escape(banner), start.captured(1), kLogDateStampPattern);
    QVERIFY2(QRegularExpression(line).match(lines[2]).hasMatch(), qPrintable(lines[2]));
    QCOMPARE(lines[3], QString());
}

void tst_Log::callSequences_data()
{
    QTest::addColumn<QStringList>("calls");   // %1 and %2: two log files
    QTest::addColumn<QStringList>("first");   // patterns for the messages in %1
    QTest::addColumn<bool>("secondExists");

    const QString started = QStringLiteral("---%1\\[\\d+\\] started---");
    const QString user = QRegularExpression::escape(effectiveUserLine());
    QTest::newRow("second open keeps the first file")
        << QStringList{"open", "%1", "One", "open", "%2", "Two", "msg", "after"}
        << QStringList{started.arg("One"), user, "after"} << false;
    QTest::newRow("nothing before the open, formats after it")
        << QStringList{"msg", "lost", "open", "%1", "B", "msg", "one: 100%", "cont", "  two", "timemsg", "three"}
        << QStringList{started.arg("B"), user, "one: 100%", "  two", "three"} << false;
    QTest::newRow("replacing the stream: no banner")
        << QStringList{"open", "%1", "B", "macopen", "%2", "msg", "moved"}
        << QStringList{started.arg("B"), user} << true;
    QTest::newRow("transaction log from its key")
        << QStringList{"xaction", "MissingKey", "Nobody", "xaction", "ExchangeLog", "Exchange", "msg", "done"}
        << QStringList{started.arg("Exchange"), user, "done"} << false;
    // An unended message runs into the next line's prefix, which shows where it was cut.
    const QString cut = QStringLiteral("x{%1}\\[B \\d+\\]") + kLogDateStampPattern + QStringLiteral(": ");
    for (int length : {8190, 8191, 8192, 20000})
        QTest::addRow("message of %d", length)
            << QStringList{"open", "%1", "B", "long", QString::number(length), "msg", ""}
            << QStringList{started.arg("B"), user, cut.arg(qMin(length, 8191))} << false;
}

void tst_Log::callSequences()
{
    QFETCH(QStringList, calls);
    QFETCH(QStringList, first);
    QFETCH(bool, secondExists);
    const QString log1 = m_dir->filePath(QStringLiteral("first.log"));
    const QString log2 = m_dir->filePath(QStringLiteral("second.log"));
    m_prefs->writeDomainFile(m_prefs->systemFolder(), QStringLiteral("com.halvorn.Quorvan"),
                             {QStringLiteral("ExchangeLog=") + log1});
    for (QString &call : calls)
        call.replace(QLatin1String("%1"), log1).replace(QLatin1String("%2"), log2);

    const ProcessResult run =
        runProcess(placeProbe(m_dir->filePath(QStringLiteral("probe"))), calls, m_prefs->environment());
    QCOMPARE(run.exitCode, 0);
    compareMessages(logMessages(log1), first);
    QCOMPARE(QFile::exists(log2), secondExists);
    if (secondExists)
        compareMessages(logMessages(log2), {"moved"});
}

void tst_Log::appendsOnEveryStart()
{
    const QString log = m_dir->filePath(QStringLiteral("appended.log"));
    QFile file(log);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("an earlier line\n");
    file.close();
    m_prefs->writeDomainFile(m_prefs->userFolder(), QStringLiteral("com.halvorn.Quorvan"),
                             {QStringLiteral("VELDInstaller_LogLocation=") + log});
    const QString probe = placeProbe(m_dir->filePath(QStringLiteral("bin/VELD Installer")));
    for (const char *text : {"first", "second"})
        QCOMPARE(runProcess(probe, {"should", "msg", text}, m_prefs->environment()).exitCode, 0);

    const QString started = QStringLiteral("---VELDInstaller\\[\\d+\\] started---");
    const QString user = QRegularExpression::escape(effectiveUserLine());
    compareMessages(logMessages(log), {"an earlier line", started, user, "first", started, user, "second"});
}

QTEST_GUILESS_MAIN(tst_Log)
#include "tst_log.moc"
