#include "platform/installpath.h"
#include "testsupport.h"

#include <QFile>
#include <QtTest>

#include <cstring>

class tst_InstallPath : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void fixedBuffer_data();
    void fixedBuffer();
    void helpPath();
    void bundleFromExecutable_data();
    void bundleFromExecutable();
    void loadLibrary_data();
    void loadLibrary();
    void unknownSymbol();
    void searchPathSetOnce_data();
    void searchPathSetOnce();

private:
    QTemporaryDir *m_dir = nullptr;
    QString at(const QString &relative) const { return m_dir->filePath(relative); }
};

void tst_InstallPath::init()
{
    m_dir = new QTemporaryDir;
    QVERIFY(m_dir->isValid());
}

void tst_InstallPath::cleanup()
{
    delete m_dir;
}

void tst_InstallPath::fixedBuffer_data()
{
    const int length = static_cast<int>(GetInstallPath().size());
    QTest::addColumn<int>("size");
    QTest::addColumn<int>("expectedLength"); // -1: the buffer is not touched
    QTest::newRow("negative") << -5 << -1;
    QTest::newRow("zero") << 0 << -1;
    QTest::newRow("one") << 1 << 0;
    QTest::newRow("one short") << length << length - 1;
    QTest::newRow("exact fit") << length + 1 << length;
    QTest::newRow("roomy") << 4096 << length;
}

void tst_InstallPath::fixedBuffer()
{
    QFETCH(int, size);
    QFETCH(int, expectedLength);
    const std::string path = GetInstallPath();
    QVERIFY(!path.empty());

    char buffer[4097];
    memset(buffer, 'Z', sizeof(buffer));
    int length = 12345;
    GETINSTALLPATH(buffer, size, &length);
    if (expectedLength < 0) {
        QCOMPARE(length, 0);
        QCOMPARE(buffer[0], 'Z');
        return;
    }
    QCOMPARE(length, expectedLength);
    QCOMPARE(QByteArray(buffer), QByteArray(path.c_str(), expectedLength));
    QCOMPARE(buffer[expectedLength + 1], 'Z');
}

void tst_InstallPath::helpPath()
{
    QCOMPARE(GetHelpPath(), GetInstallPath() + "/Contents/Resources/English.lproj/VELD Installer Help/help/");
}

void tst_InstallPath::bundleFromExecutable_data()
{
    QTest::addColumn<QString>("executable");
    QTest::addColumn<QString>("bundle");
    QTest::newRow("bundle") << "Tool.app/Contents/MacOS/probe" << "Tool.app";
    QTest::newRow("blanks and accents") << "My Bündle 2.app/Contents/MacOS/VELD Installer" << "My Bündle 2.app";
    QTest::newRow("bundle in a bundle")
        << "Outer.app/Contents/SharedSupport/Inner.app/Contents/MacOS/probe"
        << "Outer.app/Contents/SharedSupport/Inner.app";
    QTest::newRow("plain folder") << "plain/bin/probe" << "plain/bin";
    QTest::newRow("look-alike folder") << "odd/Contents/MacOSX/probe" << "odd/Contents/MacOSX";
    QTest::newRow("only MacOS") << "odd/MacOS/probe" << "odd/MacOS";
}

void tst_InstallPath::bundleFromExecutable()
{
    QFETCH(QString, executable);
    QFETCH(QString, bundle);
    const QString probe = placeProbe(at(executable));
    QVERIFY(!probe.isEmpty());
    const ProcessResult run = runProcess(probe, {"installpath", "helppath"});
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.out, QStringLiteral("installpath=%1\nhelppath=%1/Contents/Resources/English.lproj/VELD Installer Help/help/\n")
                          .arg(at(bundle)));
}

void tst_InstallPath::loadLibrary_data()
{
    QTest::addColumn<QString>("executable");
    QTest::addColumn<QString>("library"); // where the test library is placed
    QTest::addColumn<QString>("name");    // what is asked for
    QTest::addColumn<bool>("loads");

    const QString bundle = QStringLiteral("A.app/Contents/MacOS/probe");
    const QString frameworks = QStringLiteral("A.app/Contents/Frameworks/");
    QTest::newRow("with suffix") << bundle << frameworks + "libveldprobe.so" << "libveldprobe.so" << true;
    QTest::newRow("upper-case suffix") << bundle << frameworks + "libveldprobe.so" << "libveldprobe.SO" << true;
    QTest::newRow("mixed-case suffix") << bundle << frameworks + "libveldprobe.so" << "libveldprobe.sO" << true;
    QTest::newRow("without suffix") << bundle << frameworks + "libveldprobe.so" << "libveldprobe" << true;
    QTest::newRow("three characters kept") << bundle << frameworks + ".so.so" << ".so" << true;
    QTest::newRow("four characters cut") << bundle << frameworks + "x.so" << "x.so" << true;
    QTest::newRow("other suffix kept") << bundle << frameworks + "libveldprobe.so" << "libveldprobe.dylib" << false;
    QTest::newRow("missing") << bundle << frameworks + "libveldprobe.so" << "libother" << false;
    QTest::newRow("shared support")
        << "Outer.app/Contents/SharedSupport/Inner.app/Contents/MacOS/probe"
        << "Outer.app/Contents/SharedSupport/Frameworks/libveldprobe.so" << "libveldprobe" << true;
    QTest::newRow("shared support, not in its own bundle")
        << "Outer.app/Contents/SharedSupport/Inner.app/Contents/MacOS/probe"
        << "Outer.app/Contents/SharedSupport/Inner.app/Contents/Frameworks/libveldprobe.so" << "libveldprobe" << false;
}

void tst_InstallPath::loadLibrary()
{
    QFETCH(QString, executable);
    QFETCH(QString, library);
    QFETCH(QString, name);
    QFETCH(bool, loads);
    const QString probe = placeProbe(at(executable));
    QVERIFY(copyFileTo(QStringLiteral(VELD_PROBELIB), at(library)));
    const QString log = at(QStringLiteral("load.log"));

    const ProcessResult run = runProcess(probe, {"open", log, "Probe", "load", name, "sym", "veld_probe_answer"});
    QCOMPARE(run.exitCode, 0);
    const QStringList logged = logMessages(log);

    const QString bundle = executable.left(executable.indexOf(QLatin1String("/Contents/MacOS/")));
    const QString folder = bundle.contains(QLatin1String("/Contents/SharedSupport"))
                               ? at(bundle) + QStringLiteral("/../Frameworks/")
                               : at(bundle) + QStringLiteral("/Contents/Frameworks/");
    QString shortName = name;
    if (name.size() >= 4 && name.endsWith(QLatin1String(".so"), Qt::CaseInsensitive))
        shortName.chop(3);
    const QString path = folder + shortName + QStringLiteral(".so");
    if (loads) {
        QCOMPARE(run.out, QStringLiteral("load=1\nsym=42\n"));
        QCOMPARE(logged.mid(2), QStringList{QStringLiteral("Successfully loaded DLL '%1'").arg(path)});
    } else {
        QVERIFY(run.out.startsWith(QLatin1String("load=0\nsym=null\n")));
        QVERIFY2(run.err.startsWith(QStringLiteral("DLL ERROR: loading DLL '%1' '").arg(shortName)), qPrintable(run.err));
        QVERIFY2(logged.value(2).startsWith(QStringLiteral("DLL ERROR: loading DLL '%1' '%1: ").arg(path)),
                 qPrintable(logged.value(2)));
    }
}

void tst_InstallPath::unknownSymbol()
{
    const QString probe = placeProbe(at(QStringLiteral("A.app/Contents/MacOS/probe")));
    QVERIFY(copyFileTo(QStringLiteral(VELD_PROBELIB), at(QStringLiteral("A.app/Contents/Frameworks/libveldprobe.so"))));
    const QString log = at(QStringLiteral("sym.log"));
    const ProcessResult run = runProcess(probe, {"open", log, "Probe", "load", "libveldprobe", "sym", "veld_no_such",
                                                 "sym", "veld_probe_answer", "free"});
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.out, QStringLiteral("load=1\nsym=null\nsym=42\nfree=0\n"));
    QVERIFY2(run.err.startsWith(QLatin1String("DLL ERROR: (veld_no_such): ")), qPrintable(run.err));
    QVERIFY(run.err.contains(QLatin1String("veld_no_such")));
    QVERIFY(logMessages(log).value(3).startsWith(QLatin1String("DLL ERROR: (veld_no_such): ")));
}

void tst_InstallPath::searchPathSetOnce_data()
{
    QTest::addColumn<QString>("before"); // "-": unset
    QTest::addColumn<QString>("after");  // with %1 for the frameworks folder
    QTest::addColumn<QStringList>("logged");
    QTest::newRow("unset") << "-" << "%1"
                           << QStringList{"LD_LIBRARY_PATH was (null)", "setting of LD_LIBRARY_PATH to %1 returned 0",
                                          "LD_LIBRARY_PATH is now %1"};
    QTest::newRow("other folders") << "/opt/a:/opt/b" << "/opt/a:/opt/b:%1"
                                   << QStringList{"LD_LIBRARY_PATH was /opt/a:/opt/b",
                                                  "setting of LD_LIBRARY_PATH to /opt/a:/opt/b:%1 returned 0",
                                                  "LD_LIBRARY_PATH is now /opt/a:/opt/b:%1"};
    QTest::newRow("already there") << "/opt/a:%1/x" << "/opt/a:%1/x"
                                   << QStringList{"LD_LIBRARY_PATH was /opt/a:%1/x"};
}

void tst_InstallPath::searchPathSetOnce()
{
    QFETCH(QString, before);
    QFETCH(QString, after);
    QFETCH(QStringList, logged);
    const QString probe = placeProbe(at(QStringLiteral("A.app/Contents/MacOS/probe")));
    const QString frameworks = at(QStringLiteral("A.app/Contents/Frameworks"));
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.remove(QStringLiteral("LD_LIBRARY_PATH"));
    if (before != QLatin1String("-"))
        env.insert(QStringLiteral("LD_LIBRARY_PATH"), QString(before).replace(QLatin1String("%1"), frameworks));
    const QString log = at(QStringLiteral("dyld.log"));

    const ProcessResult run = runProcess(probe, {"open", log, "Probe", "dyld", "dyld"}, env);
    QCOMPARE(run.exitCode, 0);
    const QString value = QString(after).replace(QLatin1String("%1"), frameworks);
    QCOMPARE(run.out, QStringLiteral("dyld=0 env=%1\ndyld=0 env=%1\n").arg(value));

    QStringList expected;
    for (QString line : logged)
        expected << line.replace(QLatin1String("%1"), frameworks);
    QCOMPARE(logMessages(log).mid(2), expected);
}

QTEST_GUILESS_MAIN(tst_InstallPath)
#include "tst_installpath.moc"
