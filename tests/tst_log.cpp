#include "platform/log.h"
#include "testsupport.h"

#include <QFile>
#include <QRegularExpression>
#include <QtTest>

#include <pwd.h>
#include <unistd.h>

namespace {

const QString kStamp = QStringLiteral("(Sun|Mon|Tue|Wed|Thu|Fri|Sat) (Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) "
                                      "[ 123]\\d \\d\\d:\\d\\d:\\d\\d \\d{4}");

QString readAll(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    return QString::fromUtf8(file.readAll());
}

QStringList lines(const QString &text)
{
    QStringList result = text.split(QLatin1Char('\n'));
    if (!result.isEmpty() && result.last().isEmpty())
        result.removeLast();
    return result;
}

// A log line as log_msg writes it, without its newline; captures the pid.
QRegularExpression prefixedLine(const QString &banner, const QString &message)
{
    return QRegularExpression(QStringLiteral("^\\[%1 (\\d+)\\]%2: %3$")
                                  .arg(QRegularExpression::escape(banner), kStamp, QRegularExpression::escape(message)));
}

QString effectiveUserLine()
{
    const passwd *pw = getpwuid(geteuid());
    return QStringLiteral("Effective UID is %1 \"%2\"(%3)")
        .arg(QString::fromLocal8Bit(pw->pw_name), QString::fromLocal8Bit(pw->pw_gecos))
        .arg(pw->pw_uid);
}

} // namespace

class tst_Log : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void bannerName_data();
    void bannerName();
    void fileStamp_data();
    void fileStamp();
    void dateStamps();

    void startFromPreference_data();
    void startFromPreference();
    void preferenceSources_data();
    void preferenceSources();
    void appendsAndBannersEachStart();
    void secondOpenKeepsFirstFile();
    void lineFormats();
    void longMessageIsCut_data();
    void longMessageIsCut();
    void transactionLog();
    void replacingStreamWritesWithoutBanner();

private:
    ScratchPreferences *m_prefs = nullptr;
    QTemporaryDir *m_dir = nullptr;

    QString probeNamed(const QString &name);
    ProcessResult probe(const QString &program, const QStringList &args);
};

void tst_Log::init()
{
    m_prefs = new ScratchPreferences;
    m_dir = new QTemporaryDir;
    QVERIFY(m_dir->isValid());
}

void tst_Log::cleanup()
{
    delete m_prefs;
    delete m_dir;
}

QString tst_Log::probeNamed(const QString &name)
{
    return placeProbe(m_dir->filePath(QStringLiteral("bin/") + name));
}

ProcessResult tst_Log::probe(const QString &program, const QStringList &args)
{
    return runProcess(program, args, m_prefs->environment());
}

void tst_Log::bannerName_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<QByteArray>("cleaned");
    QTest::newRow("product") << QByteArray("VELD Installer") << QByteArray("VELDInstaller");
    QTest::newRow("apostrophes") << QByteArray("Halvorn's Tool") << QByteArray("HalvornsTool");
    QTest::newRow("runs of both") << QByteArray(" a '' b  'c ") << QByteArray("abc");
    QTest::newRow("nothing left") << QByteArray(" ' ") << QByteArray("");
    QTest::newRow("untouched") << QByteArray("veld-installer_2.1") << QByteArray("veld-installer_2.1");
    QTest::newRow("tabs kept") << QByteArray("a\tb") << QByteArray("a\tb");
}

void tst_Log::bannerName()
{
    QFETCH(QByteArray, name);
    QFETCH(QByteArray, cleaned);
    cleanLogBannerName(name.data());
    QCOMPARE(QByteArray(name.constData()), cleaned);
}

void tst_Log::fileStamp_data()
{
    QTest::addColumn<QByteArray>("stamp");
    QTest::addColumn<QByteArray>("expected");
    QTest::newRow("one-digit day") << QByteArray("Sun Nov  5 09:07:02 2026\n") << QByteArray("Sun_Nov__5_09_07_02_2026");
    QTest::newRow("two-digit day") << QByteArray("Tue Dec 22 23:59:59 2026\n") << QByteArray("Tue_Dec_22_23_59_59_2026");
    QTest::newRow("no newline") << QByteArray("Wed Jan  1 00:00:00 2027") << QByteArray("Wed_Jan__1_00_00_00_2027");
    QTest::newRow("cut at first break") << QByteArray("a b\r\nc:d\n") << QByteArray("a_b");
}

void tst_Log::fileStamp()
{
    QFETCH(QByteArray, stamp);
    QFETCH(QByteArray, expected);
    char *end = fileNameFromDateStamp(stamp.data());
    QCOMPARE(QByteArray(stamp.constData()), expected);
    QCOMPARE(end, stamp.data() + expected.size());
}

void tst_Log::dateStamps()
{
    char plain[64];
    char mdac[64];
    char file[64];
    log_datestr(plain);
    MDAC_log_datestr(mdac);
    char *end = datestr_file(file);

    const QRegularExpression stamp(QLatin1Char('^') + kStamp + QLatin1Char('$'));
    QVERIFY2(stamp.match(QLatin1String(plain)).hasMatch(), plain);
    QVERIFY2(stamp.match(QLatin1String(mdac)).hasMatch(), mdac);
    QString expectedFile = QLatin1String(plain);
    expectedFile.replace(QLatin1Char(' '), QLatin1Char('_')).replace(QLatin1Char(':'), QLatin1Char('_'));
    // The two stamps may straddle a second boundary; compare all but the seconds and year.
    QCOMPARE(QLatin1String(file).left(17), expectedFile.left(17));
    QCOMPARE(end, file + strlen(file));
}

void tst_Log::startFromPreference_data()
{
    QTest::addColumn<QString>("executable");
    QTest::addColumn<QString>("banner");
    QTest::newRow("blank") << QStringLiteral("VELD Installer") << QStringLiteral("VELDInstaller");
    QTest::newRow("apostrophe and blanks") << QStringLiteral("VELD In'staller 2") << QStringLiteral("VELDInstaller2");
    QTest::newRow("plain") << QStringLiteral("veldinstaller") << QStringLiteral("veldinstaller");
}

void tst_Log::startFromPreference()
{
    QFETCH(QString, executable);
    QFETCH(QString, banner);
    const QString log = m_dir->filePath(QStringLiteral("logs/install log.txt"));
    QDir().mkpath(QFileInfo(log).absolutePath());
    m_prefs->writeDomainFile(m_prefs->userFolder(), QStringLiteral("com.halvorn.Quorvan"),
                             {banner + QStringLiteral("_LogLocation=") + log});

    const ProcessResult run = probe(probeNamed(executable), {"should", "felog", "msg", "hello"});
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.out, QStringLiteral("should=1\nfelog=1\n"));

    const QStringList written = lines(readAll(log));
    QCOMPARE(written.size(), 3);
    const QRegularExpressionMatch start =
        QRegularExpression(QStringLiteral("^---%1\\[(\\d+)\\] started---$").arg(banner)).match(written[0]);
    QVERIFY2(start.hasMatch(), qPrintable(written[0]));
    QCOMPARE(written[1], effectiveUserLine());
    const QRegularExpressionMatch line = prefixedLine(banner, QStringLiteral("hello")).match(written[2]);
    QVERIFY2(line.hasMatch(), qPrintable(written[2]));
    QCOMPARE(line.captured(1), start.captured(1));
}

void tst_Log::preferenceSources_data()
{
    QTest::addColumn<QString>("userValue");   // "-" writes no key at all
    QTest::addColumn<QString>("systemValue"); // "-" writes no key at all
    QTest::addColumn<QString>("expectedLog"); // "" when no log may be written anywhere
    QTest::addColumn<int>("should");

    QTest::newRow("no preference") << "-" << "-" << "" << 0;
    QTest::newRow("per user") << "user.log" << "-" << "user.log" << 1;
    QTest::newRow("system-wide") << "-" << "system.log" << "system.log" << 1;
    QTest::newRow("user before system") << "user.log" << "system.log" << "user.log" << 1;
    QTest::newRow("empty value") << "" << "-" << "" << 0;
    QTest::newRow("empty user value hides system") << "" << "system.log" << "" << 0;
    QTest::newRow("comma in the path") << "a,b.log" << "-" << "a,b.log" << 1;
    QTest::newRow("folder missing") << "missing/folder/x.log" << "-" << "" << 1;
    QTest::newRow("path is a folder") << "." << "-" << "" << 1;
}

void tst_Log::preferenceSources()
{
    QFETCH(QString, userValue);
    QFETCH(QString, systemValue);
    QFETCH(QString, expectedLog);
    QFETCH(int, should);

    const QString logs = m_dir->filePath(QStringLiteral("logs"));
    QDir().mkpath(logs);
    auto entry = [&](const QString &value) {
        if (value == QLatin1String("-"))
            return QStringList();
        const QString path = value.isEmpty() ? QString() : logs + QLatin1Char('/') + value;
        // Quoted, as the INI format needs for a value with a comma.
        return QStringList{QStringLiteral("tst_log_probe_LogLocation=\"%1\"").arg(path)};
    };
    m_prefs->writeDomainFile(m_prefs->userFolder(), QStringLiteral("com.halvorn.Quorvan"), entry(userValue));
    m_prefs->writeDomainFile(m_prefs->systemFolder(), QStringLiteral("com.halvorn.Quorvan"), entry(systemValue));

    const ProcessResult run = probe(probeNamed(QStringLiteral("tst_log_probe")), {"should", "felog", "msg", "marker"});
    QCOMPARE(run.exitCode, 0);
    const bool open = !expectedLog.isEmpty();
    QCOMPARE(run.out, QStringLiteral("should=%1\nfelog=%2\n").arg(should).arg(open ? 1 : 0));

    const QStringList present = QDir(logs).entryList(QDir::Files);
    QCOMPARE(present, open ? QStringList{expectedLog} : QStringList());
    if (open) {
        const QStringList written = lines(readAll(logs + QLatin1Char('/') + expectedLog));
        QCOMPARE(written.size(), 3);
        QVERIFY(prefixedLine(QStringLiteral("tst_log_probe"), QStringLiteral("marker")).match(written[2]).hasMatch());
    }
}

void tst_Log::appendsAndBannersEachStart()
{
    const QString log = m_dir->filePath(QStringLiteral("appended.log"));
    {
        QFile file(log);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("an earlier line\n");
    }
    m_prefs->writeDomainFile(m_prefs->userFolder(), QStringLiteral("com.halvorn.Quorvan"),
                             {QStringLiteral("VELDInstaller_LogLocation=") + log});
    const QString exe = probeNamed(QStringLiteral("VELD Installer"));
    QCOMPARE(probe(exe, {"should", "msg", "first"}).exitCode, 0);
    QCOMPARE(probe(exe, {"should", "msg", "second"}).exitCode, 0);

    const QStringList written = lines(readAll(log));
    QCOMPARE(written.size(), 7);
    QCOMPARE(written[0], QStringLiteral("an earlier line"));
    QVERIFY(written[1].startsWith(QLatin1String("---VELDInstaller[")));
    QVERIFY(prefixedLine(QStringLiteral("VELDInstaller"), QStringLiteral("first")).match(written[3]).hasMatch());
    QVERIFY(written[4].startsWith(QLatin1String("---VELDInstaller[")));
    QVERIFY(prefixedLine(QStringLiteral("VELDInstaller"), QStringLiteral("second")).match(written[6]).hasMatch());
}

void tst_Log::secondOpenKeepsFirstFile()
{
    const QString first = m_dir->filePath(QStringLiteral("first.log"));
    const QString second = m_dir->filePath(QStringLiteral("second.log"));
    const ProcessResult run = probe(probeNamed(QStringLiteral("probe")),
                                    {"open", first, "One", "open", second, "Two", "msg", "after", "should"});
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.out, QStringLiteral("should=1\n"));
    QVERIFY(!QFile::exists(second));
    const QStringList written = lines(readAll(first));
    QCOMPARE(written.size(), 3);
    QVERIFY(written[0].startsWith(QLatin1String("---One[")));
    QVERIFY2(prefixedLine(QStringLiteral("One"), QStringLiteral("after")).match(written[2]).hasMatch(),
             qPrintable(written[2]));
}

void tst_Log::lineFormats()
{
    const QString log = m_dir->filePath(QStringLiteral("formats.log"));
    const ProcessResult run = probe(probeNamed(QStringLiteral("probe")),
                                    {"msg", "before any log", "open", log, "Banner", "msg", "one: 100%", "cont",
                                     "  continued", "timemsg", "three"});
    QCOMPARE(run.exitCode, 0);
    const QStringList written = lines(readAll(log));
    QCOMPARE(written.size(), 5);
    QVERIFY2(prefixedLine(QStringLiteral("Banner"), QStringLiteral("one: 100%")).match(written[2]).hasMatch(),
             qPrintable(written[2]));
    QCOMPARE(written[3], QStringLiteral("  continued"));
    QVERIFY2(prefixedLine(QStringLiteral("Banner"), QStringLiteral("three")).match(written[4]).hasMatch(),
             qPrintable(written[4]));
}

void tst_Log::longMessageIsCut_data()
{
    QTest::addColumn<int>("length");
    QTest::addColumn<int>("kept");
    QTest::newRow("fits") << 8190 << 8190;
    QTest::newRow("exact") << 8191 << 8191;
    QTest::newRow("one over") << 8192 << 8191;
    QTest::newRow("far over") << 20000 << 8191;
}

void tst_Log::longMessageIsCut()
{
    QFETCH(int, length);
    QFETCH(int, kept);
    const QString log = m_dir->filePath(QStringLiteral("long.log"));
    const ProcessResult run =
        probe(probeNamed(QStringLiteral("probe")), {"open", log, "B", "long", QString::number(length)});
    QCOMPARE(run.exitCode, 0);
    const QString text = readAll(log);
    const int at = text.indexOf(QLatin1String(": x"));
    QVERIFY(at > 0);
    const QString message = text.mid(at + 2);
    QCOMPARE(message.size(), kept);
    QCOMPARE(message.count(QLatin1Char('x')), kept);
}

void tst_Log::transactionLog()
{
    const QString log = m_dir->filePath(QStringLiteral("xaction.log"));
    m_prefs->writeDomainFile(m_prefs->systemFolder(), QStringLiteral("com.halvorn.Quorvan"),
                             {QStringLiteral("ExchangeLog=") + log});
    const ProcessResult run =
        probe(probeNamed(QStringLiteral("probe")), {"xaction", "MissingKey", "Nobody", "felog", "xaction",
                                                    "ExchangeLog", "Exchange", "felog", "msg", "done"});
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.out, QStringLiteral("felog=0\nfelog=1\n"));
    const QStringList written = lines(readAll(log));
    QCOMPARE(written.size(), 3);
    QVERIFY(written[0].startsWith(QLatin1String("---Exchange[")));
    QVERIFY(prefixedLine(QStringLiteral("Exchange"), QStringLiteral("done")).match(written[2]).hasMatch());
}

void tst_Log::replacingStreamWritesWithoutBanner()
{
    const QString first = m_dir->filePath(QStringLiteral("first.log"));
    const QString second = m_dir->filePath(QStringLiteral("second.log"));
    const ProcessResult run = probe(probeNamed(QStringLiteral("probe")),
                                    {"open", first, "B", "macopen", second, "msg", "moved"});
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.out, QStringLiteral("macopen=1\n"));
    QCOMPARE(lines(readAll(first)).size(), 2);
    const QStringList written = lines(readAll(second));
    QCOMPARE(written.size(), 1);
    QVERIFY2(prefixedLine(QStringLiteral("B"), QStringLiteral("moved")).match(written[0]).hasMatch(),
             qPrintable(written[0]));
}

QTEST_GUILESS_MAIN(tst_Log)
#include "tst_log.moc"
