#include "platform/installpath.h"
#include "testsupport.h"

#include <QtTest>

class tst_InstallPath : public QObject
{
    Q_OBJECT

private slots:
    void init() { m_dir.reset(new QTemporaryDir); }
    void fixedBuffer_data();
    void fixedBuffer();
    void loadLibrary_data();
    void loadLibrary();
    void bundlePaths_data();
    void bundlePaths();

private:
    QScopedPointer<QTemporaryDir> m_dir;
    QString at(const QString &relative) const { return m_dir->filePath(relative); }
};

void tst_InstallPath::fixedBuffer_data()
{
    const int length = int(GetInstallPath().size());
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
    const QByteArray path = QByteArray::fromStdString(GetInstallPath());
    QVERIFY(!path.isEmpty());
    QByteArray buffer(4097, 'Z');
    int length = 12345;
    GETINSTALLPATH(buffer.data(), size, &length);
    QCOMPARE(length, qMax(expectedLength, 0));
    QCOMPARE(buffer.left(qMax(expectedLength + 2, 1)), expectedLength < 0 ? "Z" : path.left(expectedLength) + '\0' + 'Z');
}

void tst_InstallPath::loadLibrary_data()
{
    QTest::addColumn<QString>("executable");
    QTest::addColumn<QString>("library");   // where the test library is placed
    QTest::addColumn<QString>("name");      // what is asked for
    QTest::addColumn<QString>("tried");     // the file the loader opens
    QTest::addColumn<bool>("loaded");

    const QString exe = "A.app/Contents/MacOS/probe", frameworks = "A.app/Contents/Frameworks/";
    const QString lib = frameworks + "libveldprobe.so", inner = "Out.app/Contents/SharedSupport/In.app";
    QTest::newRow("upper-case suffix") << exe << lib << "libveldprobe.SO" << lib << true;
    QTest::newRow("mixed-case suffix") << exe << lib << "libveldprobe.sO" << lib << true;
    QTest::newRow("without suffix") << exe << lib << "libveldprobe" << lib << true;
    QTest::newRow("three characters kept") << exe << frameworks + ".so.so" << ".so" << frameworks + ".so.so" << true;
    QTest::newRow("four characters cut") << exe << frameworks + "x.so" << "x.so" << frameworks + "x.so" << true;
    QTest::newRow("other suffix kept") << exe << lib << "libveldprobe.dylib" << frameworks + "libveldprobe.dylib.so"
                                       << false;
    QTest::newRow("shared support") << inner + "/Contents/MacOS/probe" << "Out.app/Contents/SharedSupport/Frameworks/x.so"
                                    << "x" << inner + "/../Frameworks/x.so" << true;
    QTest::newRow("shared support, not its own frameworks") << inner + "/Contents/MacOS/probe"
                                                            << inner + "/Contents/Frameworks/x.so" << "x"
                                                            << inner + "/../Frameworks/x.so" << false;
}

// Then a symbol it has and one it has not. Each failure is reported on standard error
// (with the name asked for) and in the log (with the file tried).
void tst_InstallPath::loadLibrary()
{
    QFETCH(QString, executable);
    QFETCH(QString, library);
    QFETCH(QString, name);
    QFETCH(QString, tried);
    QFETCH(bool, loaded);
    QVERIFY(copyFileTo(VELD_PROBELIB, at(library)));
    const QString log = at("load.log"), path = at(tried);
    const ProcessResult run = runProcess(placeProbe(at(executable)),
                                         {"open", log, "P", "load", name, "sym", "veld_probe_answer", "sym", "veld_no_such"});
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.out, loaded ? "load=1\nsym=42\nsym=null\n" : "load=0\nsym=null\nsym=null\n");
    const QStringList logged = logMessages(log).mid(2);
    if (loaded)
        QCOMPARE(logged.value(0), "Successfully loaded DLL '" + path + "'");
    QVERIFY2(loaded || run.err.startsWith("DLL ERROR: loading DLL '" + name + "' '" + path + ": "), qPrintable(run.err));
    QVERIFY2(loaded || logged.value(0).startsWith("DLL ERROR: loading DLL '" + path + "' '" + path + ": "),
             qPrintable(logged.value(0)));
    QVERIFY2(run.err.contains("DLL ERROR: (veld_no_such): "), qPrintable(run.err));
    QVERIFY2(logged.last().startsWith("DLL ERROR: (veld_no_such): "), qPrintable(logged.last()));
}

void tst_InstallPath::bundlePaths_data()
{
    QTest::addColumn<QString>("executable");
    QTest::addColumn<QString>("bundle");
    QTest::addColumn<QString>("before");   // LD_LIBRARY_PATH, "-" for unset; %1 stands for the bundle's frameworks
    QTest::addColumn<QString>("after");
    QTest::addColumn<QStringList>("logged");
    const auto set = [](const QString &was, const QString &now) {
        return QStringList{"LD_LIBRARY_PATH was " + was, "setting of LD_LIBRARY_PATH to " + now + " returned 0",
                           "LD_LIBRARY_PATH is now " + now};
    };
    const QString inner = "Outer.app/Contents/SharedSupport/In.app";
    QTest::newRow("bundle, blanks and accents, unset") << "My Bündle 2.app/Contents/MacOS/VELD Installer"
                                                       << "My Bündle 2.app" << "-" << "%1" << set("(null)", "%1");
    QTest::newRow("bundle in a bundle, other folders") << inner + "/Contents/MacOS/probe" << inner << "/opt/a:/opt/b"
                                                       << "/opt/a:/opt/b:%1" << set("/opt/a:/opt/b", "/opt/a:/opt/b:%1");
    QTest::newRow("look-alike folder, already there") << "odd/Contents/MacOSX/probe" << "odd/Contents/MacOSX" << "/opt/a:%1/x"
                                                      << "/opt/a:%1/x" << QStringList{"LD_LIBRARY_PATH was /opt/a:%1/x"};
    QTest::newRow("MacOS alone") << "odd/MacOS/probe" << "odd/MacOS" << "-" << "%1" << set("(null)", "%1");
}

// The bundle, its help folder, and its frameworks added to the library search path
// by the first call only; the second neither changes nor logs anything.
void tst_InstallPath::bundlePaths()
{
    QFETCH(QString, executable);
    QFETCH(QString, bundle);
    QFETCH(QString, before);
    QFETCH(QString, after);
    QFETCH(QStringList, logged);
    const QString frameworks = at(bundle) + "/Contents/Frameworks";
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.remove("LD_LIBRARY_PATH");
    if (before != "-")
        env.insert("LD_LIBRARY_PATH", before.replace("%1", frameworks));
    const QString log = at("dyld.log");
    const ProcessResult run =
        runProcess(placeProbe(at(executable)), {"installpath", "helppath", "open", log, "P", "dyld", "dyld"}, env);
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.out, "installpath=" + at(bundle) + "\nhelppath=" + at(bundle)
                          + "/Contents/Resources/English.lproj/VELD Installer Help/help/\n"
                          + QString("dyld=0 env=%1\n").repeated(2).replace("%1", after.replace("%1", frameworks)));
    QCOMPARE(logMessages(log).mid(2), logged.replaceInStrings("%1", frameworks));
}

QTEST_GUILESS_MAIN(tst_InstallPath)
#include "tst_installpath.moc"
