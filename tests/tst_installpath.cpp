#include "platform/installpath.h"
#include "testsupport.h"

#include <QtTest>

#include <cstring>

namespace {

QString replaced(QString text, const QString &folder)
{
    return text.replace(QLatin1String("%1"), folder);
}

} // namespace

class tst_InstallPath : public QObject
{
    Q_OBJECT

private slots:
    void init() { m_dir.reset(new QTemporaryDir); }
    void fixedBuffer_data();
    void fixedBuffer();
    void bundleFromExecutable_data();
    void bundleFromExecutable();
    void loadLibrary_data();
    void loadLibrary();
    void searchPathSetOnce_data();
    void searchPathSetOnce();

private:
    QScopedPointer<QTemporaryDir> m_dir;
    QString at(const QString &relative) const { return m_dir->filePath(relative); }
};

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
    QCOMPARE(length, qMax(expectedLength, 0));
    if (expectedLength < 0) {
        QCOMPARE(buffer[0], 'Z');
    } else {
        QCOMPARE(QByteArray(buffer), QByteArray(path.c_str(), expectedLength));
        QCOMPARE(buffer[expectedLength + 1], 'Z');
    }
}

void tst_InstallPath::bundleFromExecutable_data()
{
    QTest::addColumn<QString>("executable");
    QTest::addColumn<QString>("bundle");
    QTest::newRow("bundle") << "Tool.app/Contents/MacOS/probe" << "Tool.app";
    QTest::newRow("blanks and accents") << "My Bündle 2.app/Contents/MacOS/VELD Installer" << "My Bündle 2.app";
    QTest::newRow("bundle in a bundle") << "Outer.app/Contents/SharedSupport/In.app/Contents/MacOS/probe"
                                        << "Outer.app/Contents/SharedSupport/In.app";
    QTest::newRow("plain folder") << "plain/bin/probe" << "plain/bin";
    QTest::newRow("look-alike folder") << "odd/Contents/MacOSX/probe" << "odd/Contents/MacOSX";
    QTest::newRow("MacOS alone") << "odd/MacOS/probe" << "odd/MacOS";
}

void tst_InstallPath::bundleFromExecutable()
{
    QFETCH(QString, executable);
    QFETCH(QString, bundle);
    const ProcessResult run = runProcess(placeProbe(at(executable)), {"installpath", "helppath"});
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.out, replaced("installpath=%1\nhelppath=%1/Contents/Resources/English.lproj/VELD Installer Help/help/\n",
                               at(bundle)));
}

void tst_InstallPath::loadLibrary_data()
{
    QTest::addColumn<QString>("executable");
    QTest::addColumn<QString>("library"); // where the test library is placed
    QTest::addColumn<QString>("name");    // what is asked for
    QTest::addColumn<QString>("tried");   // the file the loader opens
    QTest::addColumn<QString>("symbol");
    QTest::addColumn<QString>("out");

    const QString exe = QStringLiteral("A.app/Contents/MacOS/probe");
    const QString lib = QStringLiteral("A.app/Contents/Frameworks/libveldprobe.so");
    const QString ok = QStringLiteral("load=1\nsym=42\n");
    const QString missing = QStringLiteral("load=0\nsym=null\n");
    const QString answer = QStringLiteral("veld_probe_answer");
    QTest::newRow("with suffix") << exe << lib << "libveldprobe.so" << lib << answer << ok;
    QTest::newRow("upper-case suffix") << exe << lib << "libveldprobe.SO" << lib << answer << ok;
    QTest::newRow("mixed-case suffix") << exe << lib << "libveldprobe.sO" << lib << answer << ok;
    QTest::newRow("without suffix") << exe << lib << "libveldprobe" << lib << answer << ok;
    QTest::newRow("three characters kept") << exe << "A.app/Contents/Frameworks/.so.so" << ".so"
                                           << "A.app/Contents/Frameworks/.so.so" << answer << ok;
    QTest::newRow("four characters cut") << exe << "A.app/Contents/Frameworks/x.so" << "x.so"
                                         << "A.app/Contents/Frameworks/x.so" << answer << ok;
    QTest::newRow("other suffix kept") << exe << lib << "libveldprobe.dylib"
                                       << "A.app/Contents/Frameworks/libveldprobe.dylib.so" << answer << missing;
    QTest::newRow("unknown symbol") << exe << lib << "libveldprobe" << lib << "veld_no_such" << "load=1\nsym=null\n";
    const QString inner = QStringLiteral("Out.app/Contents/SharedSupport/In.app");
    QTest::newRow("shared support") << inner + "/Contents/MacOS/probe" << "Out.app/Contents/SharedSupport/Frameworks/x.so"
                                    << "x" << inner + "/../Frameworks/x.so" << answer << ok;
    QTest::newRow("shared support, not its own frameworks")
        << inner + "/Contents/MacOS/probe" << inner + "/Contents/Frameworks/x.so" << "x"
        << inner + "/../Frameworks/x.so" << answer << missing;
}

void tst_InstallPath::loadLibrary()
{
    QFETCH(QString, executable);
    QFETCH(QString, library);
    QFETCH(QString, name);
    QFETCH(QString, tried);
    QFETCH(QString, symbol);
    QFETCH(QString, out);
    QVERIFY(copyFileTo(QStringLiteral(VELD_PROBELIB), at(library)));
    const QString log = at(QStringLiteral("load.log"));
    const ProcessResult run = runProcess(placeProbe(at(executable)), {"open", log, "P", "load", name, "sym", symbol});
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.out, out);

    const QStringList logged = logMessages(log).mid(2);
    const QString path = at(tried);
    if (out.startsWith(QLatin1String("load=1"))) {
        QCOMPARE(logged.value(0), QStringLiteral("Successfully loaded DLL '%1'").arg(path));
    } else {
        QString shortName = name;
        if (name.size() >= 4 && name.endsWith(QLatin1String(".so"), Qt::CaseInsensitive))
            shortName.chop(3);
        QVERIFY2(run.err.startsWith(QStringLiteral("DLL ERROR: loading DLL '%1' '%2: ").arg(shortName, path)),
                 qPrintable(run.err));
        QVERIFY2(logged.value(0).startsWith(QStringLiteral("DLL ERROR: loading DLL '%1' '%1: ").arg(path)),
                 qPrintable(logged.value(0)));
    }
    if (out.endsWith(QLatin1String("sym=null\n"))) {
        QVERIFY2(run.err.contains(QStringLiteral("DLL ERROR: (%1): ").arg(symbol)), qPrintable(run.err));
        QVERIFY(logged.last().startsWith(QStringLiteral("DLL ERROR: (%1): ").arg(symbol)));
    }
}

void tst_InstallPath::searchPathSetOnce_data()
{
    QTest::addColumn<QString>("before"); // "-": unset; %1 stands for the frameworks folder
    QTest::addColumn<QString>("after");
    QTest::addColumn<QStringList>("logged");
    QTest::newRow("unset") << "-" << "%1"
                           << QStringList{"LD_LIBRARY_PATH was (null)", "setting of LD_LIBRARY_PATH to %1 returned 0",
                                          "LD_LIBRARY_PATH is now %1"};
    QTest::newRow("other folders") << "/opt/a:/opt/b" << "/opt/a:/opt/b:%1"
                                   << QStringList{"LD_LIBRARY_PATH was /opt/a:/opt/b",
                                                  "setting of LD_LIBRARY_PATH to /opt/a:/opt/b:%1 returned 0",
                                                  "LD_LIBRARY_PATH is now /opt/a:/opt/b:%1"};
    QTest::newRow("already there") << "/opt/a:%1/x" << "/opt/a:%1/x" << QStringList{"LD_LIBRARY_PATH was /opt/a:%1/x"};
}

// Only the first call acts; the second neither changes nor logs anything.
void tst_InstallPath::searchPathSetOnce()
{
    QFETCH(QString, before);
    QFETCH(QString, after);
    QFETCH(QStringList, logged);
    const QString frameworks = at(QStringLiteral("A.app/Contents/Frameworks"));
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.remove(QStringLiteral("LD_LIBRARY_PATH"));
    if (before != QLatin1String("-"))
        env.insert(QStringLiteral("LD_LIBRARY_PATH"), replaced(before, frameworks));
    const QString log = at(QStringLiteral("dyld.log"));
    const ProcessResult run =
        runProcess(placeProbe(at(QStringLiteral("A.app/Contents/MacOS/probe"))), {"open", log, "P", "dyld", "dyld"}, env);
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.out, replaced("dyld=0 env=%1\ndyld=0 env=%1\n", replaced(after, frameworks)));
    for (QString &line : logged)
        line = replaced(line, frameworks);
    QCOMPARE(logMessages(log).mid(2), logged);
}

QTEST_GUILESS_MAIN(tst_InstallPath)
#include "tst_installpath.moc"
