#include "platform/log.h"
#include "testsupport.h"

#include <QRegularExpression>
#include <QtTest>

#include <pwd.h>
#include <unistd.h>

class tst_Log : public QObject
{
    Q_OBJECT

private slots:
    // The stamp made into a file name: blanks and colons to underscores, cut at the first line break.
    void stamps()
    {
        for (const QByteArray &pair : {QByteArray("Sun Nov  5 09:07:02 2026\n|Sun_Nov__5_09_07_02_2026"),
                                       QByteArray("a b\r\nc:d\n|a_b")}) {
            QByteArray stamp = pair.left(pair.indexOf('|'));
            QCOMPARE(fileNameFromDateStamp(stamp.data()) - stamp.data(), pair.size() - pair.indexOf('|') - 1);
            QCOMPARE(QByteArray(stamp.constData()), pair.mid(pair.indexOf('|') + 1));
        }
        char plain[64], mdac[64], file[64];
        log_datestr(plain);
        MDAC_log_datestr(mdac);
        const char *end = datestr_file(file);
        QCOMPARE(end - file, qptrdiff(strlen(file)));
        QVERIFY2(QRegularExpression(QRegularExpression::anchoredPattern(kLogDateStampPattern)).match(mdac).hasMatch(), mdac);
        // Up to the minute: the stamps may straddle a second.
        QCOMPARE(QByteArray(file).left(16), QByteArray(plain).replace(' ', '_').replace(':', '_').left(16));
    }

    void runs_data()
    {
        QTest::addColumn<QString>("executable");
        QTest::addColumn<QStringList>("lines");   // "user:" or "system:" and a line of the log's domain
        QTest::addColumn<QStringList>("calls");   // run in order; %1 and %2: two log files, %3: one in a missing folder
        QTest::addColumn<QString>("out");
        QTest::addColumn<QString>("first");       // a pattern for what is added to %1, which held a line before; %2 gets nothing

        const passwd *pw = getpwuid(geteuid());
        const QString user = QStringLiteral("Effective UID is %1 \"%2\"(%3)").arg(pw->pw_name, pw->pw_gecos).arg(pw->pw_uid);
        const QString start = "---%1\\[(\\d+)\\] started---\n" + QRegularExpression::escape(user) + '\n';
        // The messages' "[banner pid]" is the start line's; no blank before the date.
        const QString line = "\\[%1 \\1\\]" + kLogDateStampPattern + ": %2\n";
        const QString exe = "VELD Installer", key = "VELDInstaller_LogLocation=";
        const QStringList hello{"should", "felog", "msg", "hello"};
        const QString logged = start.arg("VELDInstaller") + line.arg("VELDInstaller", "hello");
        const QString opened = "should=1\nfelog=1\n";
        QTest::newRow("per user") << exe << QStringList{"user:" + key + "\"%1\""} << hello << opened << logged;
        QTest::newRow("apostrophes and blanks out of the key, other marks kept")
            << "VELD In'staller-2.1_x" << QStringList{"user:VELDInstaller-2.1_x_LogLocation=\"%1\""} << hello << opened
            << start.arg("VELDInstaller-2.1_x") + line.arg("VELDInstaller-2.1_x", "hello");

        // Nothing before the open; a second open keeps the first file; an unended message of
        // 8192 bytes runs into the next line's prefix, which shows where it was cut.
        QTest::newRow("calls after the start")
            << "probe" << QStringList()
            << QStringList{"msg", "lost", "open", "%1", "B", "open", "%2", "Two", "msg", "one: 100%", "cont", "  two", "timemsg",
                           "three", "long", "8192", "msg", ""} << ""
            << start.arg("B") + line.arg("B", "one: 100%") + "  two\n" + line.arg("B", "three") + line.arg("B", "x{8191}").chopped(1)
                   + line.arg("B", "");
        QTest::newRow("transaction log from its key")
            << "probe" << QStringList{"system:ExchangeLog=\"%1\""}
            << QStringList{"xaction", "MissingKey", "Nobody", "xaction", "ExchangeLog", "Exchange", "msg", "done"} << ""
            << start.arg("Exchange") + line.arg("Exchange", "done");
    }

    // The whole start (executable name to banner and key, preference to file, first lines)
    // and the calls after it, in a fresh process. Log files are appended to, never truncated.
    void runs()
    {
        QFETCH(QString, executable);
        QFETCH(QStringList, lines);
        QFETCH(QStringList, calls);
        QFETCH(QString, out);
        QFETCH(QString, first);
        QTemporaryDir parentDir;
        const QString dir = inChild() ? qEnvironmentVariable("VELD_LOGS") : parentDir.path();
        // The comma and the blank would split an unquoted preference value.
        const QStringList files{dir + "/first, a.log", dir + "/second.log", dir + "/missing/x.log"};
        const auto placed = [&](QString text) { return text.replace("%1", files[0]).replace("%2", files[1]).replace("%3", files[2]); };
        if (!inChild()) {
            QProcessEnvironment env = scratchPreferences(dir);
            QStringList user, system;
            for (const QString &pref : lines)
                (pref.startsWith("user:") ? user : system) << placed(pref.section(':', 1));
            writePreferences(dir + "/home/.config", "com.halvorn.Quorvan", user);
            writePreferences(dir + "/etc/xdg", "com.halvorn.Quorvan", system);
            QVERIFY(writeFile(files[0], "an earlier line\n") && writeFile(files[1], "an earlier line\n"));
            env.insert("VELD_LOGS", dir);
            return runRowInChild({dir + "/bin/" + executable, {}, env});
        }
        QString printed;
        for (int i = 0; i < calls.size(); ++i) {
            const QString call = calls[i];
            const auto next = [&] { return QFile::encodeName(placed(calls.value(++i))); };
            if (call == "should") {
                printed += QStringLiteral("should=%1\n").arg(ShouldStartMacLogging());
            } else if (call == "felog") {
                printed += QStringLiteral("felog=%1\n").arg(FELogging() != nullptr);
            } else if (call == "open" || call == "xaction") {
                const QByteArray a = next(), b = next();
                call == "open" ? OpenMacLogWithBanner(a.constData(), b.constData()) : OpenXactionLog(a.constData(), b.constData());
            } else {
                const QByteArray text = call == "long" ? QByteArray(next().toInt(), 'x') : next() + '\n';
                call == "cont" ? log_msg_cont("%s", text.constData())
                               : call == "timemsg" ? log_time_msg(7, "%s", text.constData()) : log_msg("%s", text.constData());
            }
        }
        QCOMPARE(printed, out);
        for (int i = 0; i < 2; ++i) {
            const QRegularExpression pattern(QRegularExpression::anchoredPattern("an earlier line\n" + (i ? QString() : first)));
            QVERIFY2(pattern.match(fileText(files[i])).hasMatch(), qPrintable(fileText(files[i])));
        }
    }
};

QTEST_GUILESS_MAIN(tst_Log)
#include "tst_log.moc"
