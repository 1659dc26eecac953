#include "platform/log.h"
#include "testsupport.h"

#include <pwd.h>

namespace {

// What a log holds after a line written before: the start, and lines with the start's "[banner pid]" and no blank
// before the date.
QString started(const QString &banner, const QStringList &lines)
{
    const passwd *pw = getpwuid(geteuid());
    const QString user = QStringLiteral("Effective UID is %1 \"%2\"(%3)").arg(pw->pw_name, pw->pw_gecos).arg(pw->pw_uid);
    QString text = "an earlier line\n---" + QRegularExpression::escape(banner) + "\\[(\\d+)\\] started---\n" + QRegularExpression::escape(user) + '\n';
    for (const QString &line : lines)
        text += line.startsWith(' ') ? line + '\n' : "\\[" + QRegularExpression::escape(banner) + " \\1\\]" + kLogDateStampPattern + ": " + line + '\n';
    return text;
}

} // namespace

class tst_Log : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;

private slots:
    // The stamp made into a file name: blanks and colons to underscores, cut at the first line break.
    void stamps()
    {
        QByteArray stamp = "Sun Nov  5 09:07:02 2026\n", cut = "a b\r\nc:d\n";
        QVERIFY(fileNameFromDateStamp(stamp.data()) == stamp.data() + 24 && fileNameFromDateStamp(cut.data()) == cut.data() + 3);
        QCOMPARE(QByteArray(stamp.constData()) + '|' + cut.constData(), QByteArray("Sun_Nov__5_09_07_02_2026|a_b"));
        char plain[64], mdac[64], file[64];
        log_datestr(plain);
        MDAC_log_datestr(mdac);
        const char *end = datestr_file(file);
        QCOMPARE(end - file, qptrdiff(strlen(file)));
        QVERIFY2(QRegularExpression(QRegularExpression::anchoredPattern(kLogDateStampPattern)).match(mdac).hasMatch(), mdac);
        // Up to the minute: the stamps may straddle a second.
        QCOMPARE(QByteArray(file).left(16), QByteArray(plain).replace(' ', '_').replace(':', '_').left(16));
    }

    // The start in a fresh process named after the installer: the banner and the preference key are its name
    // without apostrophes and blanks. The log is appended to, never truncated.
    void startFromName()
    {
        const QString dir = inChild() ? qEnvironmentVariable("VELD_LOGS") : m_dir.path();
        const QString log = dir + "/a, b.log";   // the comma and the blank would split an unquoted preference value
        if (!inChild()) {
            QProcessEnvironment env = scratchPreferences(dir);
            env.insert("VELD_LOGS", dir);
            writePreferences(dir + "/home/.config", "com.halvorn.Quorvan", {"VELDInstaller-2.1_x_LogLocation=\"" + log + '"'});
            QVERIFY(writeFile(log, "an earlier line\n"));
            return runRowInChild({dir + "/bin/VELD In'staller-2.1_x", {}, env});
        }
        QVERIFY(!FELogging() && ShouldStartMacLogging() && FELogging());
        log_msg("%s\n", "hello");
        QVERIFY2(QRegularExpression(QRegularExpression::anchoredPattern(started("VELDInstaller-2.1_x", {"hello"})))
                     .match(fileText(log)).hasMatch(), qPrintable(fileText(log)));
    }

    // Nothing before the open; a second open keeps the first file; each kind of message; an unended message of
    // 8192 bytes runs into the next line's prefix, which shows where it was cut.
    void calls()
    {
        QVERIFY(writeFile(m_dir.filePath("first.log"), "an earlier line\n") && writeFile(m_dir.filePath("second.log"), ""));
        log_msg("%s\n", "lost");
        OpenMacLogWithBanner(QFile::encodeName(m_dir.filePath("first.log")).constData(), "B");
        OpenMacLogWithBanner(QFile::encodeName(m_dir.filePath("second.log")).constData(), "Two");
        log_msg("%s\n", "one: 100%");
        log_msg_cont("%s\n", "  two");
        log_time_msg(7, "%s\n", "three");
        log_msg("%s", QByteArray(8192, 'x').constData());
        log_msg("\n");
        QVERIFY2(QRegularExpression(QRegularExpression::anchoredPattern(started("B", {"one: 100%", "  two", "three", "x{8191}\\[B \\1\\]" + kLogDateStampPattern + ": "})))
                     .match(fileText(m_dir.filePath("first.log"))).hasMatch(), qPrintable(fileText(m_dir.filePath("first.log"))));
        QCOMPARE(fileText(m_dir.filePath("second.log")), QString());
        // No child (the copy program, df, the helper) inherits the open log.
        QVERIFY(!runProcess({"sh", "-c", "ls -l /proc/$$/fd"}).out.contains(m_dir.filePath("first.log")));
    }
};

QTEST_GUILESS_MAIN(tst_Log)
#include "tst_log.moc"
