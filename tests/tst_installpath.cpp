#include "platform/installpath.h"
#include "platform/log.h"
#include "testsupport.h"

#include <QtTest>

// The loader and bundle rows run in a copy of this program placed in a layout
// of their own ($VELD_LAYOUT), as the installer would be placed.

class tst_InstallPath : public QObject
{
    Q_OBJECT

private slots:
    void fixedBuffer_data()
    {
        const int length = int(GetInstallPath().size());
        QTest::addColumn<int>("size");
        QTest::addColumn<int>("expectedLength"); // -1: the buffer is not touched
        QTest::newRow("zero") << 0 << -1;
        QTest::newRow("one") << 1 << 0;
        QTest::newRow("exact fit") << length + 1 << length;
    }

    void fixedBuffer()
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

    void loadLibrary_data()
    {
        QTest::addColumn<QString>("executable");
        QTest::addColumn<QString>("library");   // where the test library is placed
        QTest::addColumn<QString>("name");      // what is asked for
        QTest::addColumn<QString>("tried");     // the file the loader opens
        QTest::addColumn<bool>("loaded");
        const QString exe = "A.app/Contents/MacOS/probe", frameworks = "A.app/Contents/Frameworks/";
        const QString lib = frameworks + "libveldprobe.so", inner = "Out.app/Contents/SharedSupport/In.app";
        QTest::newRow("upper-case suffix") << exe << lib << "libveldprobe.SO" << lib << true;
        QTest::newRow("other suffix kept") << exe << lib << "libveldprobe.dylib" << frameworks + "libveldprobe.dylib.so" << false;
        QTest::newRow("shared support") << inner + "/Contents/MacOS/probe" << "Out.app/Contents/SharedSupport/Frameworks/x.so"
                                        << "x" << inner + "/../Frameworks/x.so" << true;
    }

    // Then a symbol it has and one it has not. Each failure is reported on standard error
    // (with the name asked for) and in the log (with the file tried).
    void loadLibrary()
    {
        QFETCH(QString, executable);
        QFETCH(QString, library);
        QFETCH(QString, name);
        QFETCH(QString, tried);
        QFETCH(bool, loaded);
        if (!inChild())
            return runInLayout(executable, library);
        OpenMacLogWithBanner(QFile::encodeName(at("load.log")).constData(), "P");
        void *handle = nullptr, *has = nullptr, *hasNot = nullptr;
        const QString err = standardErrorOf([&] {
            handle = LoadLibraryA(name.toUtf8().constData());
            has = GetProcAddress(handle, "veld_probe_answer");
            hasNot = GetProcAddress(handle, "veld_no_such");
        });
        QCOMPARE(has ? reinterpret_cast<int (*)()>(has)() : handle ? -1 : 0, loaded ? 42 : 0);
        QVERIFY(!hasNot);
        const QStringList logged = logMessages(at("load.log")).mid(2);
        const QString path = at(tried);
        QVERIFY2(loaded ? logged.value(0) == "Successfully loaded DLL '" + path + "'"
                        : logged.value(0).startsWith("DLL ERROR: loading DLL '" + path + "' '" + path + ": ")
                              && err.startsWith("DLL ERROR: loading DLL '" + name + "' '" + path + ": "),
                 qPrintable(logged.value(0) + '\n' + err));
        QVERIFY2(err.contains("DLL ERROR: (veld_no_such): "), qPrintable(err));
        QVERIFY2(logged.last().startsWith("DLL ERROR: (veld_no_such): "), qPrintable(logged.last()));
    }

    void bundlePaths_data()
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
        QTest::newRow("bundle, blanks and accents, unset") << "My Bündle 2.app/Contents/MacOS/VELD Installer"
                                                           << "My Bündle 2.app" << "-" << "%1" << set("(null)", "%1");
        QTest::newRow("look-alike folder, already there") << "odd/Contents/MacOSX/probe" << "odd/Contents/MacOSX" << "/opt/a:%1/x"
                                                          << "/opt/a:%1/x" << QStringList{"LD_LIBRARY_PATH was /opt/a:%1/x"};
    }

    // The bundle, its help folder, and its frameworks added to the library search path
    // by the first call only; the second neither changes nor logs anything.
    void bundlePaths()
    {
        QFETCH(QString, executable);
        QFETCH(QString, bundle);
        QFETCH(QString, before);
        QFETCH(QString, after);
        QFETCH(QStringList, logged);
        if (!inChild())
            return runInLayout(executable);
        const QString frameworks = at(bundle) + "/Contents/Frameworks";
        if (before != "-")
            qputenv("LD_LIBRARY_PATH", QFile::encodeName(before.replace("%1", frameworks)));
        QCOMPARE(QString::fromStdString(GetInstallPath()), at(bundle));
        QCOMPARE(QString::fromStdString(GetHelpPath()), at(bundle) + "/Contents/Resources/English.lproj/VELD Installer Help/help/");
        OpenMacLogWithBanner(QFile::encodeName(at("dyld.log")).constData(), "P");
        for (int call = 0; call < 2; ++call) {
            QCOMPARE(setMacDYLDPath(), 0);
            QCOMPARE(qEnvironmentVariable("LD_LIBRARY_PATH"), after.replace("%1", frameworks));
        }
        QCOMPARE(logMessages(at("dyld.log")).mid(2), logged.replaceInStrings("%1", frameworks));
    }

private:
    // In the parent: places the library (when given) and runs the row in a copy at executable.
    void runInLayout(const QString &executable, const QString &library = QString())
    {
        QTemporaryDir layout;
        QVERIFY(library.isEmpty() || writeFile(layout.filePath(library), fileBytes(VELD_PROBELIB)));
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("VELD_LAYOUT", layout.path());
        env.remove("LD_LIBRARY_PATH");
        runRowInChild({layout.filePath(executable), {}, env});
    }
    static QString at(const QString &relative) { return qEnvironmentVariable("VELD_LAYOUT") + '/' + relative; }
};

QTEST_GUILESS_MAIN(tst_InstallPath)
#include "tst_installpath.moc"
