#include "platform/authority.h"
#include "platform/locations.h"
#include "platform/prefstore.h"
#include "testsupport.h"

static const QString kDefaults = QFileInfo(VELD_AUTHHELPER).absolutePath() + "/veld-defaults";

class tst_PrefStore : public QObject
{
    Q_OBJECT

private slots:
    // The system-wide folder is the constant /etc/xdg: the rows that reach it run again in a child where the
    // test's own folder stands there. A desktop's XDG_CONFIG_DIRS names another folder with other values, which
    // no row may ever read.
    void init()
    {
        if (inChild()) {
            m_user = qEnvironmentVariable("XDG_CONFIG_HOME");
            m_system = kSystemPreferencesFolder;
            return;
        }
        m_dir.reset(new QTemporaryDir);
        m_env = scratchPreferences(m_dir->path());
        m_user = m_env.value("XDG_CONFIG_HOME");
        m_system = m_dir->path() + "/etc/xdg";
        const QString decoy = m_dir->path() + "/desktop";
        writePreferences(decoy, kPrefDomain, {"VELDFullDatabasePath=/decoy", "Other=/decoy"});
        m_env.insert("XDG_CONFIG_DIRS", decoy);
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(m_user));
        QVERIFY(QFile::setPermissions(m_dir->path(), QFileDevice::Permissions(0x7755)));
    }

    // Every byte above 0x7F stands for one character, and comes back from it; null reads as empty.
    void macRomanEveryByte()
    {
        QByteArray upper;
        for (int b = 0x80; b <= 0xff; ++b)
            upper.append(char(b));
        const QString decoded = textFromMacRoman(upper.constData());
        QVERIFY(decoded.size() == 128 && textFromMacRoman(nullptr).isNull());
        QCOMPARE(macRomanFromText(decoded, 4096), upper);
    }

    void readers_data()
    {
        QTest::addColumn<QStringList>("user");     // the lines of the files
        QTest::addColumn<QStringList>("system");
        QTest::addColumn<QByteArray>("local");     // Mac Roman bytes
        QTest::addColumn<QByteArray>("global");
        QTest::addColumn<QByteArray>("any");

        const QString key = QStringLiteral("VELDFullDatabasePath=");
        const QStringList none, u{key + "/u"}, s{key + "/s"};
        const QByteArray U("/u"), S("/s"), empty, commas("/a,b"), fits(4095, 'x');
        QTest::newRow("both: the user's wins locally, global wins for any") << u << s << U << S << S;
        QTest::newRow("user's file without the key") << QStringList{"Other=/u"} << s << S << S << S;
        QTest::newRow("user's empty value hides the system's locally") << QStringList{key} << s << empty << S << S;
        QTest::newRow("commas written by hand") << QStringList{key + "/a,b"} << none << commas << empty << commas;
        QTest::newRow("corrupt user file is passed over") << QStringList{"[Gen", "\x01\x02 " + key + "/u"} << s << S << S << S;
        // é ü € Ω and the apple are in Mac Roman; 日 and ž are not.
        const QByteArray roman("/caf\x8e \x9f\xdb\xbd\xf0 ??");
        const QStringList escaped{key + R"("/caf\xe9 \xfc\x20ac\x3a9\xf8ff \x65e5\x17e")"};
        QTest::newRow("escaped non-ASCII in Mac Roman") << none << escaped << roman << roman << roman;
        QTest::newRow("4095 bytes fit with the terminator") << none << QStringList{key + fits} << fits << fits << fits;
        QTest::newRow("4096 do not") << none << QStringList{key + fits + 'x'} << empty << empty << empty;
    }

    void readers()
    {
        if (!inChild())
            return runRowInChild({QString(), {atSystemPreferences(m_system)}, m_env});
        QFETCH(QStringList, user);
        QFETCH(QStringList, system);
        QFETCH(QByteArray, local);
        QFETCH(QByteArray, global);
        QFETCH(QByteArray, any);
        writePreferences(m_user, kPrefDomain, user);
        writePreferences(m_system, kPrefDomain, system);
        QCOMPARE(MacReadLocalDefaultSetting(kPrefDomain, kPrefKey), local);
        QCOMPARE(MacReadGlobalDefaultSetting(kPrefDomain, kPrefKey), global);
        QCOMPARE(MacReadAnyDefaultSetting(kPrefDomain, kPrefKey), any);
        QCOMPARE(MacReadAnyDefaultSettingCharKeys("QuorvanVELD", "VELDFullDatabasePath"), any);
        QCOMPARE(MacReadAnyDefaultSettingCharKeys("Quorvan", "VELDFullDatabasePath"), QByteArray());
    }

    void localWrite_data()
    {
        QTest::addColumn<QByteArray>("value");   // Mac Roman bytes; "-": null
        QTest::addColumn<QString>("text");       // what the file holds; null: no value
        const char *marks = "  a=b = c,d;e#f \"q\" \\n \\x41 @String(x) @Variant(y) [General]\none\r\n\ttwo ";
        QTest::newRow("blanks, line breaks, list, comment, quote and section marks") << QByteArray(marks) << marks;
        QTest::newRow("Mac Roman letters") << QByteArray("caf\x8e \x9f\xdb\xbd\xf0") << QString::fromUtf8("café ü€Ω\uF8FF");
        QTest::newRow("null removes") << QByteArray("-") << QString();
        QTest::newRow("empty removes") << QByteArray("") << QString();
    }

    // Over the user's value and another key, with a system-wide value that a removal uncovers.
    void localWrite()
    {
        if (!inChild())
            return runRowInChild({QString(), {atSystemPreferences(m_system)}, m_env});
        QFETCH(QByteArray, value);
        QFETCH(QString, text);
        writePreferences(m_user, kPrefDomain, {"Other=kept", "VELDFullDatabasePath=/u"});
        writePreferences(m_system, kPrefDomain, {"VELDFullDatabasePath=/s"});
        const QString file = m_user + '/' + kPrefDomain + ".conf";
        QVERIFY(MacWriteLocalDefaultSetting(kPrefDomain, kPrefKey, value == "-" ? nullptr : value.constData()));
        QCOMPARE(MacReadLocalDefaultSetting(kPrefDomain, kPrefKey), text.isNull() ? QByteArray("/s") : value);
        QCOMPARE(MacReadLocalDefaultSetting(kPrefDomain, QStringLiteral("Other")), QByteArray("kept"));
        QCOMPARE(QSettings(file, QSettings::IniFormat).value(kPrefKey), text.isNull() ? QVariant() : QVariant(text));
        QCOMPARE(ownership(file).section(' ', 1), "644");
    }

    void refusedWrites()
    {
        if (!inChild())
            return runRowInChild({QString(), {atSystemPreferences(m_system)}, m_env});
        // Without an authority nothing is run or written.
        QVERIFY(!MacWriteGlobalDefaultSetting(kPrefDomain, kPrefKey.toLatin1().constData(), "/x", nullptr));
        QVERIFY(!MacWriteGlobalDefaultSetting(kPrefDomain, kPrefKey.toLatin1().constData(), nullptr, nullptr));
        QVERIFY(QDir(m_system).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden).isEmpty());
        // A per-user folder that is a file cannot be written.
        qputenv("XDG_CONFIG_HOME", VELD_SUPPORTPROBE);
        QVERIFY(!MacWriteLocalDefaultSetting(kPrefDomain, kPrefKey, "/x"));
    }

    // As veldadmin through sudo, into root's folder: a value that is not all Mac Roman, then both forms of delete.
    void globalWrite()
    {
        REQUIRE_PRIVILEGED();
        if (!inChild()) {
            QTemporaryDir dir;
            QVERIFY(createCountingLauncher(dir.path()));
            for (const QString &folder : {QString(), QStringLiteral("/etc"), QStringLiteral("/etc/xdg")})
                QVERIFY(QFile::setPermissions(m_dir->path() + folder, QFileDevice::Permissions(0x7755)));
            runRowInChild({QString(), {asUser("veldadmin"), atSystemPreferences(m_system)},
                           withLauncher(VELD_AUTHHELPER, dir.filePath("launch"), m_env)});
            QCOMPARE(launches(dir.path()), 1);
            const QString file = m_system + '/' + kPrefDomain + ".conf";
            QCOMPARE(ownership(file), "root:root 644");
            QCOMPARE(QSettings(file, QSettings::IniFormat).allKeys(), QStringList());
            return;
        }
        const QByteArray key = kPrefKey.toLatin1();
        QVERIFY(createAuthority(&gMacAuthorizationRef));
        QVERIFY(MacWriteGlobalDefaultSetting(kPrefDomain, key.constData(), "/Volumes/Caf\xc3\xa9 \xe6\x97\xa5", gMacAuthorizationRef));
        QCOMPARE(MacReadGlobalDefaultSetting(kPrefDomain, kPrefKey), QByteArray("/Volumes/Caf\x8e ?"));
        QVERIFY(MacWriteGlobalDefaultSetting(kPrefDomain, key.constData(), nullptr, gMacAuthorizationRef));
        QCOMPARE(MacReadGlobalDefaultSetting(kPrefDomain, kPrefKey), QByteArray());
        QVERIFY(MacWriteGlobalDefaultSetting(kPrefDomain, key.constData(), "/again", gMacAuthorizationRef));
        QVERIFY(MacWriteGlobalDefaultSetting(kPrefDomain, key.constData(), "", gMacAuthorizationRef));
        freeAuthority(&gMacAuthorizationRef);
    }

    void defaultsTool_data()
    {
        QTest::addColumn<QString>("script");   // "$1" the tool, "$2" a folder holding d.conf with K=old
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("message");  // the start of what it says, or nothing
        QTest::addColumn<QString>("keys");     // K and L afterwards; "unchanged": d.conf as it was

        const QString same = QStringLiteral("unchanged");
        QTest::newRow("write under umask 077 still gives 0644")
            << R"(umask 077; "$1" write "$2/d" K new && stat -c %a "$2/d.conf" >&2)" << 0 << "644" << "new,";
        QTest::newRow("write and delete keep the other keys") << R"("$1" write "$2/d" L two && "$1" delete "$2/d" L)" << 0
                                                              << "" << "old,";
        // A reader that opened the file before the write reads the whole old one: a new file took its place.
        QTest::newRow("a reader keeps the old file") << R"(exec 3< "$2/d.conf" && "$1" write "$2/d" K new && cat <&3 >&2)" << 0
                                                     << "[General]\nK=old\n" << "new,";
        QTest::newRow("delete from a missing file makes none")
            << R"("$1" delete "$2/none" K && test ! -e "$2/none.conf")" << 0 << "" << same;
        QTest::newRow("another verb") << R"("$1" read "$2/d" K)" << 2 << "usage: veld-defaults write TARGET KEY VALUE" << same;
        QTest::newRow("write without a value") << R"("$1" write "$2/d" K)" << 2 << "usage:" << same;
        QTest::newRow("a relative target") << R"(cd "$2" && "$1" write d K new)" << 2
                                           << "veld-defaults: the target must be an absolute path: d" << same;
        QTest::newRow("an empty key") << R"("$1" write "$2/d" '' new)" << 2 << "veld-defaults: the key is empty" << same;
        QTest::newRow("a value that is not UTF-8") << R"x("$1" write "$2/d" K "$(printf 'caf\216')")x" << 2
                                                   << "veld-defaults: the value is not UTF-8 text" << same;
        QTest::newRow("a folder where the file goes") << R"(mkdir "$2/f.conf" && "$1" write "$2/f" K new)" << 1
                                                      << "veld-defaults: $2/f.conf: not a regular file" << same;
        QTest::newRow("a symbolic link is not followed") << R"(ln -s d.conf "$2/l.conf" && "$1" write "$2/l" K new)" << 1
                                                         << "veld-defaults: $2/l.conf: not a regular file" << same;
        QTest::newRow("a corrupt file is left as it is")
            << R"(printf '[Gen\n\001 K=v' > "$2/c.conf" && cp "$2/c.conf" "$2/c.copy" && "$1" write "$2/c" K new; )"
               R"(s=$?; cmp -s "$2/c.conf" "$2/c.copy" && exit $s)"
            << 1 << "veld-defaults: $2/c.conf: not a preference file in INI form" << same;
        QTest::newRow("a missing folder") << R"("$1" write "$2/none/d" K new)" << 1
                                          << "veld-defaults: cannot create a file in $2/none: No such file" << same;
    }

    void defaultsTool()
    {
        QFETCH(QString, script);
        QFETCH(int, exitCode);
        QFETCH(QString, message);
        QFETCH(QString, keys);
        const QString file = m_system + "/d.conf";
        QCOMPARE(runProcess({kDefaults, "write", m_system + "/d", "K", "old"}).exitCode, 0);
        const QByteArray before = fileBytes(file);
        const ProcessResult result = runProcess({"sh", "-c", script, "sh", kDefaults, m_system});
        QCOMPARE(result.exitCode, exitCode);
        QVERIFY2(message.isEmpty() ? result.err.isEmpty() : result.err.startsWith(QString(message).replace("$2", m_system)), qPrintable(result.err));
        const QSettings after(file, QSettings::IniFormat);
        QCOMPARE(keys == "unchanged" ? fileBytes(file) : (after.value("K").toString() + ',' + after.value("L").toString()).toUtf8(),
                 keys == "unchanged" ? before : keys.toUtf8());
        // No file of the tool's own is left beside the preferences.
        QCOMPARE(QDir(m_system).entryList({".veld-defaults*"}, QDir::AllEntries | QDir::Hidden), QStringList());
    }

    // On a file system that fills up during the write, the old file stays whole and nothing is left beside it.
    void failedWriteKeepsOldFile()
    {
        const QString script = QStringLiteral(
            "\"$1\" write \"$2/d\" K old && dd if=/dev/zero of=\"$2/fill\" bs=4k count=56 2>/dev/null; "
            "\"$1\" write \"$2/d\" K \"$3\"; echo \"exit=$?\"; cat \"$2/d.conf\"; ls -A \"$2\"");
        QTemporaryDir dir;
        const ProcessResult result = runProcess(wrapped({"sh", "-c", script, "sh", kDefaults, dir.path(), QString(100000, 'n')},
                                                        {inPrivateMounts("mount -t tmpfs -o size=256k tmpfs \"$1\"", {dir.path()})}));
        QCOMPARE(result.out, QStringLiteral("exit=1\n[General]\nK=old\nd.conf\nfill\n"));
        QVERIFY2(result.err.startsWith(QStringLiteral("veld-defaults: cannot write the new %1/d.conf").arg(dir.path())),
                 qPrintable(result.err));
    }

private:
    // Fresh for each test; a child row finds its folders through the environment instead.
    std::unique_ptr<QTemporaryDir> m_dir;
    QProcessEnvironment m_env;
    QString m_user, m_system;   // the preference folders per user and system-wide
};

QTEST_GUILESS_MAIN(tst_PrefStore)
#include "tst_prefstore.moc"
