#include "platform/prefstore.h"
#include "privilegedsupport.h"
#include "testsupport.h"

#include <QDir>
#include <QFileInfo>
#include <QtTest>

#include <sys/stat.h>
#include <unistd.h>

namespace {

const QString kHelper = QStringLiteral(VELD_AUTHHELPER);
const QString kDefaults = QFileInfo(kHelper).absolutePath() + QStringLiteral("/veld-defaults");
const QString kProbe = QStringLiteral(VELD_SUPPORTPROBE);
const QString kDomain = QStringLiteral("com.halvorn.QuorvanVELD");
const QString kKey = QStringLiteral("VELDFullDatabasePath");

QByteArray fileBytes(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(unreadable)");
}

// Runs the shell script with "$1" the veld-defaults tool and "$2" folder.
ProcessResult runDefaultsScript(const QString &script, const QString &folder)
{
    return runProcess(QStringLiteral("sh"), {"-c", script, "sh", kDefaults, folder});
}

} // namespace

class tst_PrefStore : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void macRoman_data();
    void macRoman();
    void macRomanBounds();
    void readers_data();
    void readers();
    void productDomain();
    void localWrite_data();
    void localWrite();
    void localWriteRemoves();
    void globalWriteNeedsAuthority();
    void globalWrite_data();
    void globalWrite();
    void defaultsTool_data();
    void defaultsTool();
    void readersNeverSeeHalfAFile();
    void failedWriteKeepsOldFile();

private:
    void writeFile(const QString &folder, const QStringList &lines);
    QString userFile() const { return m_prefs->userFolder() + '/' + kDomain + QStringLiteral(".conf"); }
    QString systemFile() const { return m_prefs->systemFolder() + '/' + kDomain + QStringLiteral(".conf"); }

    std::unique_ptr<ScratchPreferences> m_prefs;
    QTemporaryDir m_dir;
};

void tst_PrefStore::initTestCase()
{
    QVERIFY(QFileInfo(kDefaults).isExecutable());
    QVERIFY(QFile::setPermissions(m_dir.path(), QFileDevice::Permissions(0x7755)));
}

void tst_PrefStore::init()
{
    m_prefs.reset(new ScratchPreferences);
    m_prefs->applyToThisProcess();
}

void tst_PrefStore::writeFile(const QString &folder, const QStringList &lines)
{
    if (!lines.isEmpty())
        m_prefs->writeDomainFile(folder, kDomain, lines);
}

void tst_PrefStore::macRoman_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("ASCII") << "/usr/local/share" << QByteArray("/usr/local/share");
    QTest::newRow("accents") << QString::fromUtf8("café ü") << QByteArray("caf\x8e \x9f");
    QTest::newRow("euro, omega, apple") << QString::fromUtf8("€Ω\uF8FF") << QByteArray("\xdb\xbd\xf0");
    QTest::newRow("outside Mac Roman: '?'") << QString::fromUtf8("日本 ž") << QByteArray("?? ?");
}

void tst_PrefStore::macRoman()
{
    QFETCH(QString, text);
    QFETCH(QByteArray, bytes);
    QCOMPARE(macRomanFromText(text, 4096), bytes);
    if (!bytes.contains('?'))
        QCOMPARE(textFromMacRoman(bytes.constData()), text);
}

// Every byte above 0x7F stands for one character, and comes back from it; a value fills
// the buffer up to its terminator and no further.
void tst_PrefStore::macRomanBounds()
{
    QByteArray upper;
    for (int b = 0x80; b <= 0xff; ++b)
        upper.append(char(b));
    const QString decoded = textFromMacRoman(upper.constData());
    QCOMPARE(decoded.size(), 128);
    QCOMPARE(macRomanFromText(decoded, 4096), upper);
    QCOMPARE(textFromMacRoman(nullptr), QString());
    QCOMPARE(macRomanFromText(QString(4095, 'x'), 4096).size(), 4095);
    QCOMPARE(macRomanFromText(QString(4096, 'x'), 4096), QByteArray());
}

void tst_PrefStore::readers_data()
{
    QTest::addColumn<QStringList>("user");     // the lines of the files; none: no file
    QTest::addColumn<QStringList>("system");
    QTest::addColumn<QByteArray>("local");
    QTest::addColumn<QByteArray>("global");
    QTest::addColumn<QByteArray>("any");

    const QStringList none;
    QTest::newRow("both: the user's wins locally, global wins for any") << QStringList{"VELDFullDatabasePath=/u"}
        << QStringList{"VELDFullDatabasePath=/s"} << QByteArray("/u") << QByteArray("/s") << QByteArray("/s");
    QTest::newRow("user only") << QStringList{"VELDFullDatabasePath=/u"} << none << QByteArray("/u") << QByteArray()
                               << QByteArray("/u");
    QTest::newRow("system only") << none << QStringList{"VELDFullDatabasePath=/s"} << QByteArray("/s") << QByteArray("/s")
                                 << QByteArray("/s");
    QTest::newRow("neither") << none << none << QByteArray() << QByteArray() << QByteArray();
    QTest::newRow("other keys only") << QStringList{"Other=/u"} << QStringList{"Other=/s"} << QByteArray() << QByteArray()
                                     << QByteArray();
    QTest::newRow("user's empty value hides the system's locally") << QStringList{"VELDFullDatabasePath="}
        << QStringList{"VELDFullDatabasePath=/s"} << QByteArray() << QByteArray("/s") << QByteArray("/s");
    QTest::newRow("commas written by hand") << QStringList{"VELDFullDatabasePath=/a,b"} << none << QByteArray("/a,b")
                                            << QByteArray() << QByteArray("/a,b");
    QTest::newRow("corrupt user file is passed over") << QStringList{"[Gen", "\x01\x02 VELDFullDatabasePath=/u"}
        << QStringList{"VELDFullDatabasePath=/s"} << QByteArray("/s") << QByteArray("/s") << QByteArray("/s");
    QTest::newRow("escaped non-ASCII in Mac Roman") << none << QStringList{"VELDFullDatabasePath=\"/caf\\xe9\\x65e5\""}
        << QByteArray("/caf\x8e?") << QByteArray("/caf\x8e?") << QByteArray("/caf\x8e?");
}

void tst_PrefStore::readers()
{
    QFETCH(QStringList, user);
    QFETCH(QStringList, system);
    QFETCH(QByteArray, local);
    QFETCH(QByteArray, global);
    QFETCH(QByteArray, any);
    writeFile(m_prefs->userFolder(), user);
    writeFile(m_prefs->systemFolder(), system);
    QCOMPARE(MacReadLocalDefaultSetting(kDomain, kKey), local);
    QCOMPARE(MacReadGlobalDefaultSetting(kDomain, kKey), global);
    QCOMPARE(MacReadAnyDefaultSetting(kDomain, kKey), any);
}

void tst_PrefStore::productDomain()
{
    writeFile(m_prefs->systemFolder(), {"VELDFullDatabasePath=/s"});
    QCOMPARE(MacReadAnyDefaultSettingCharKeys("QuorvanVELD", "VELDFullDatabasePath"), QByteArray("/s"));
    QCOMPARE(MacReadAnyDefaultSettingCharKeys("Quorvan", "VELDFullDatabasePath"), QByteArray());
    // A file that is a folder, or one that cannot be read, reads as empty.
    QVERIFY(QDir().mkpath(userFile()));
    QCOMPARE(MacReadLocalDefaultSetting(kDomain, kKey), QByteArray("/s"));
    const QStringList probe = asUnprivilegedUser(kProbe, {"prefread", "local", kDomain, kKey});
    QVERIFY(QFile::setPermissions(m_prefs->path(), QFileDevice::Permissions(0x7755)));
    QCOMPARE(runProcess(probe.first(), probe.mid(1), m_prefs->environment()).out, QStringLiteral("prefread=2f73\n"));
    QVERIFY(QFile::setPermissions(systemFile(), QFileDevice::Permissions()));
    if (geteuid() != 0)
        QSKIP("needs root to read the file as another user");
    QCOMPARE(runProcess(probe.first(), probe.mid(1), m_prefs->environment()).out, QStringLiteral("prefread=\n"));
}

void tst_PrefStore::localWrite_data()
{
    QTest::addColumn<QByteArray>("value");   // Mac Roman bytes
    QTest::newRow("a path") << QByteArray("/usr/local/share/Halvornworks/VELDV400");
    QTest::newRow("leading blanks and =") << QByteArray("  a=b = c ");
    QTest::newRow("line breaks and tabs") << QByteArray("one\ntwo\r\n\tthree");
    QTest::newRow("list and comment marks") << QByteArray("a,b;c#d");
    QTest::newRow("quotes and backslashes") << QByteArray("\"q\" \\n \\x41");
    QTest::newRow("the format's own markers") << QByteArray("@String(x) @Variant(y) [General]");
    QTest::newRow("Mac Roman letters") << QByteArray("caf\x8e \xdb");
}

void tst_PrefStore::localWrite()
{
    QFETCH(QByteArray, value);
    writeFile(m_prefs->userFolder(), {"Other=kept"});
    QVERIFY(QDir(m_prefs->systemFolder()).removeRecursively());
    QVERIFY(MacWriteLocalDefaultSetting(kDomain, kKey, value.constData()));
    QCOMPARE(MacReadLocalDefaultSetting(kDomain, kKey), value);
    QCOMPARE(MacReadLocalDefaultSetting(kDomain, QStringLiteral("Other")), QByteArray("kept"));
    QCOMPARE(QSettings(userFile(), QSettings::IniFormat).value(kKey).toString(), textFromMacRoman(value.constData()));
    QCOMPARE(QFileInfo(userFile()).permissions() & 0x0fff, QFileDevice::Permissions(0x0644));
}

void tst_PrefStore::localWriteRemoves()
{
    for (const char *removal : {static_cast<const char *>(nullptr), ""}) {
        QVERIFY(MacWriteLocalDefaultSetting(kDomain, kKey, "/x"));
        QVERIFY(MacWriteLocalDefaultSetting(kDomain, QStringLiteral("Other"), "kept"));
        QVERIFY(MacWriteLocalDefaultSetting(kDomain, kKey, removal));
        QCOMPARE(MacReadLocalDefaultSetting(kDomain, kKey), QByteArray());
        QCOMPARE(MacReadLocalDefaultSetting(kDomain, QStringLiteral("Other")), QByteArray("kept"));
    }
    // A per-user folder that is a file cannot be written.
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(userFile()));
    QVERIFY(!MacWriteLocalDefaultSetting(kDomain, kKey, "/x"));
}

void tst_PrefStore::globalWriteNeedsAuthority()
{
    QVERIFY(!MacWriteGlobalDefaultSetting(kDomain, kKey.toLatin1().constData(), "/x", nullptr));
    QVERIFY(!MacWriteGlobalDefaultSetting(kDomain, kKey.toLatin1().constData(), nullptr, nullptr));
    QVERIFY(QDir(m_prefs->systemFolder()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden).isEmpty());
}

void tst_PrefStore::globalWrite_data()
{
    QTest::addColumn<QString>("domain");
    QTest::addColumn<QString>("value");        // as the installer passes it: UTF-8
    QTest::addColumn<QString>("fileName");     // where it lands
    QTest::addColumn<QByteArray>("readBack");  // the global reader's Mac Roman bytes, hex
    QTest::newRow("the installer's setting") << kDomain << "/usr/local/share/Halvornworks/VELDV400"
                                             << kDomain + ".conf" << QByteArray("/usr/local/share/Halvornworks/VELDV400").toHex();
    QTest::newRow("non-ASCII value") << kDomain << QString::fromUtf8("/Volumes/Café 日") << kDomain + ".conf"
                                     << QByteArray("/Volumes/Caf\x8e ?").toHex();
    // The target follows the lossy conversion, so the reader, which names the file after
    // the domain itself, does not find it.
    QTest::newRow("domain outside Mac Roman") << QString::fromUtf8("com.halvorn.日本") << "/x"
                                              << "com.halvorn.??.conf" << QByteArray();
}

void tst_PrefStore::globalWrite()
{
    REQUIRE_PRIVILEGED();
    QFETCH(QString, domain);
    QFETCH(QString, value);
    QFETCH(QString, fileName);
    QFETCH(QByteArray, readBack);
    CountingLauncher launcher;
    QVERIFY(launcher.create(m_dir.path()));
    // Root's folder: the user cannot write there without the right.
    QVERIFY(QFile::setPermissions(m_prefs->path(), QFileDevice::Permissions(0x7755)));
    for (const QString &folder : {QStringLiteral("etc"), QStringLiteral("etc/xdg")})
        QVERIFY(QFile::setPermissions(m_prefs->path() + '/' + folder, QFileDevice::Permissions(0x7755)));
    const QString key = kKey;
    const QStringList command = asUser(QStringLiteral("veldadmin"), kProbe,
                                       {"auth", "defaults", domain, key, value, "prefread", "global", domain, key,
                                        "defaults", domain, key, "-", "defaults", domain, "Other", "kept",
                                        "defaults", domain, "Other", "x:"});
    const ProcessResult result = runProcess(command.first(), command.mid(1), launcher.environment(kHelper, QString(), m_prefs->environment()));
    QVERIFY2(result.exitCode == 0, qPrintable(result.err));
    QCOMPARE(result.out, QStringLiteral("\nauth=1 ref=set\ndefaults=1\nprefread=%1\ndefaults=1\ndefaults=1\ndefaults=1\n")
                             .arg(QString::fromLatin1(readBack)));
    QCOMPARE(launcher.launches(), 1);
    const QString written = m_prefs->systemFolder() + '/' + fileName;
    QFileInfo info(written);
    QCOMPARE(info.owner(), QStringLiteral("root"));
    QCOMPARE(info.permissions() & 0x0fff, QFileDevice::Permissions(0x0644));
    // Both delete forms removed their keys: nothing is left in the file.
    QCOMPARE(QSettings(written, QSettings::IniFormat).allKeys(), QStringList());
}

void tst_PrefStore::defaultsTool_data()
{
    QTest::addColumn<QString>("script");   // "$1" the tool, "$2" a folder holding d.conf with K=old
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("message");  // the start of what it says, or nothing
    QTest::addColumn<QString>("keys");     // K and L afterwards, or "unchanged"

    QTest::newRow("write under umask 077 still gives 0644")
        << "umask 077; \"$1\" write \"$2/d\" K new && stat -c %a \"$2/d.conf\" >&2" << 0 << "644" << "new,";
    QTest::newRow("write keeps the other keys") << "\"$1\" write \"$2/d\" L two" << 0 << "" << "old,two";
    QTest::newRow("delete removes one key") << "\"$1\" delete \"$2/d\" K" << 0 << "" << ",";
    QTest::newRow("delete from a missing file makes none") << "\"$1\" delete \"$2/none\" K && test ! -e \"$2/none.conf\""
                                                           << 0 << "" << "unchanged";
    QTest::newRow("no arguments") << "\"$1\"" << 2 << "usage: veld-defaults write TARGET KEY VALUE" << "unchanged";
    QTest::newRow("another verb") << "\"$1\" read \"$2/d\" K" << 2 << "usage:" << "unchanged";
    QTest::newRow("write without a value") << "\"$1\" write \"$2/d\" K" << 2 << "usage:" << "unchanged";
    QTest::newRow("a relative target") << "cd \"$2\" && \"$1\" write d K new" << 2
                                       << "veld-defaults: the target must be an absolute path: d" << "unchanged";
    QTest::newRow("an empty key") << "\"$1\" write \"$2/d\" '' new" << 2 << "veld-defaults: the key is empty" << "unchanged";
    QTest::newRow("a value that is not UTF-8") << "\"$1\" write \"$2/d\" K \"$(printf 'caf\\216')\"" << 2
                                               << "veld-defaults: the value is not UTF-8 text" << "unchanged";
    QTest::newRow("a folder where the file goes") << "mkdir \"$2/f.conf\" && \"$1\" write \"$2/f\" K new" << 1
                                                  << "veld-defaults: $2/f.conf: not a regular file" << "unchanged";
    QTest::newRow("a symbolic link is not followed") << "ln -s d.conf \"$2/l.conf\" && \"$1\" write \"$2/l\" K new" << 1
                                                     << "veld-defaults: $2/l.conf: not a regular file" << "unchanged";
    QTest::newRow("a corrupt file is left as it is")
        << "printf '[Gen\\n\\001 K=v' > \"$2/c.conf\" && cp \"$2/c.conf\" \"$2/c.copy\" && \"$1\" write \"$2/c\" K new; "
           "s=$?; cmp -s \"$2/c.conf\" \"$2/c.copy\" && exit $s"
        << 1 << "veld-defaults: $2/c.conf: not a preference file in INI form" << "unchanged";
    QTest::newRow("a missing folder") << "\"$1\" write \"$2/none/d\" K new" << 1
                                      << "veld-defaults: cannot create a file in $2/none: No such file" << "unchanged";
}

void tst_PrefStore::defaultsTool()
{
    QFETCH(QString, script);
    QFETCH(int, exitCode);
    QFETCH(QString, message);
    QFETCH(QString, keys);
    const QString folder = m_prefs->systemFolder();
    QCOMPARE(runDefaultsScript("\"$1\" write \"$2/d\" K old", folder).exitCode, 0);
    const QByteArray before = fileBytes(folder + QStringLiteral("/d.conf"));

    const ProcessResult result = runDefaultsScript(script, folder);
    QCOMPARE(result.exitCode, exitCode);
    if (message.isEmpty())
        QCOMPARE(result.err, QString());
    else
        QVERIFY2(result.err.startsWith(QString(message).replace(QLatin1String("$2"), folder)), qPrintable(result.err));
    if (keys == QLatin1String("unchanged")) {
        QCOMPARE(fileBytes(folder + QStringLiteral("/d.conf")), before);
    } else {
        const QSettings after(folder + QStringLiteral("/d.conf"), QSettings::IniFormat);
        QCOMPARE(after.value("K").toString() + ',' + after.value("L").toString(), keys);
    }
    // No file of the tool's own is left beside the preferences.
    QCOMPARE(QDir(folder).entryList({".veld-defaults*"}, QDir::AllEntries | QDir::Hidden), QStringList());
}

// While values are replaced again and again, every read of the file finds a whole one.
void tst_PrefStore::readersNeverSeeHalfAFile()
{
    const QString folder = m_prefs->systemFolder();
    const QString big(60000, 'v');
    QVERIFY(runDefaultsScript("\"$1\" write \"$2/d\" K " + big + "0", folder).exitCode == 0);
    QProcess writer;
    writer.start(QStringLiteral("sh"), {"-c", "for i in $(seq 1 150); do \"$1\" write \"$2/d\" K \"$3$i\" || exit 1; done",
                                        "sh", kDefaults, folder, big});
    QVERIFY(writer.waitForStarted());
    int reads = 0;
    while (!writer.waitForFinished(1)) {
        const QByteArray text = fileBytes(folder + QStringLiteral("/d.conf"));
        QVERIFY2(text.startsWith("[General]\nK=" + big.toLatin1()) && text.endsWith("\n"), text.left(40).constData());
        ++reads;
    }
    QCOMPARE(writer.exitCode(), 0);
    QVERIFY(reads > 10);
    QCOMPARE(QSettings(folder + QStringLiteral("/d.conf"), QSettings::IniFormat).value("K").toString(), big + "150");
}

// On a file system that fills up during the write, the old file stays whole and nothing is left beside it.
void tst_PrefStore::failedWriteKeepsOldFile()
{
    const QString script = QStringLiteral(
        "\"$1\" write \"$2/d\" K old && dd if=/dev/zero of=\"$2/fill\" bs=4k count=56 2>/dev/null; "
        "\"$1\" write \"$2/d\" K \"$3\"; echo \"exit=$?\"; cat \"$2/d.conf\"; ls -A \"$2\"");
    const QStringList command = inPrivateMounts(QStringLiteral("mount -t tmpfs -o size=256k tmpfs \"$1\""), {m_dir.path()},
                                                QStringLiteral("sh"),
                                                {"-c", script, "sh", kDefaults, m_dir.path(), QString(100000, 'n')});
    const ProcessResult result = runProcess(command.first(), command.mid(1));
    QCOMPARE(result.out, QStringLiteral("exit=1\n[General]\nK=old\nd.conf\nfill\n"));
    QVERIFY2(result.err.startsWith(QStringLiteral("veld-defaults: cannot write the new %1/d.conf").arg(m_dir.path())),
             qPrintable(result.err));
}

QTEST_GUILESS_MAIN(tst_PrefStore)
#include "tst_prefstore.moc"
