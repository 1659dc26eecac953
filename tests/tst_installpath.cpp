#include "platform/installpath.h"
#include "platform/log.h"
#include "testsupport.h"

class tst_InstallPath : public QObject
{
    Q_OBJECT

private slots:
    // A buffer of 0 bytes is not touched, one of 1 byte holds the terminator alone, an exact fit the whole path.
    void fixedBuffer()
    {
        const QByteArray path = QByteArray::fromStdString(GetInstallPath());
        for (const int size : {0, 1, int(path.size()) + 1}) {
            QByteArray buffer(4097, 'Z');
            int length = 12345;
            GETINSTALLPATH(buffer.data(), size, &length);
            QCOMPARE(length, qMax(size - 1, 0));
            QCOMPARE(buffer.left(size + 1), size ? path.left(size - 1) + '\0' + 'Z' : "Z");
        }
    }

    void bundle_data()
    {
        QTest::addColumn<QString>("bundle");    // where a copy of this program runs, in bundle/Contents/MacOS/
        QTest::addColumn<QString>("library");   // where the loader finds the test library
        QTest::addColumn<QString>("before");    // LD_LIBRARY_PATH; %1 stands for the bundle's frameworks
        QTest::newRow("a bundle of its own") << "My Bündle 2.app" << "My Bündle 2.app/Contents/Frameworks" << "";
        QTest::newRow("a bundle's shared support, frameworks already searched")
            << "Out.app/Contents/SharedSupport/In.app" << "Out.app/Contents/SharedSupport/Frameworks" << "/opt/a:%1/x";
    }

    // In a copy of this program in a bundle: the bundle, its help folder, and its frameworks added to the library
    // search path by the first call only; then the loader, which takes the name with ".so" in any case or without it,
    // and reports each failure on standard error (with the name asked for) and in the log (with the file tried).
    void bundle()
    {
        QFETCH(QString, bundle);
        QFETCH(QString, library);
        QFETCH(QString, before);
        QTemporaryDir parentLayout;
        const QString layout = inChild() ? qEnvironmentVariable("VELD_LAYOUT") : parentLayout.path();
        const QString frameworks = layout + '/' + bundle + "/Contents/Frameworks";
        if (!inChild()) {
            QVERIFY(writeFile(layout + '/' + library + "/libveldprobe.so", fileBytes(VELD_PROBELIB)));
            QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
            env.insert("VELD_LAYOUT", layout);
            before.isEmpty() ? env.remove("LD_LIBRARY_PATH") : env.insert("LD_LIBRARY_PATH", before.replace("%1", frameworks));
            return runRowInChild({layout + '/' + bundle + "/Contents/MacOS/VELD Installer", {}, env});
        }
        QCOMPARE(QString::fromStdString(GetInstallPath()), layout + '/' + bundle);
        QCOMPARE(QString::fromStdString(GetHelpPath()), layout + '/' + bundle + "/Contents/Resources/English.lproj/VELD Installer Help/help/");
        OpenMacLogWithBanner(QFile::encodeName(layout + "/log").constData(), "P");
        const QString after = before.isEmpty() ? frameworks : QString(before).replace("%1", frameworks);
        for (int call = 0; call < 2; ++call) {
            QCOMPARE(setMacDYLDPath(), 0);
            QCOMPARE(qEnvironmentVariable("LD_LIBRARY_PATH"), after);
        }
        QStringList logged = logMessages(layout + "/log").mid(2);
        const QStringList set{"LD_LIBRARY_PATH was (null)", "setting of LD_LIBRARY_PATH to " + after + " returned 0",
                              "LD_LIBRARY_PATH is now " + after};
        QCOMPARE(logged, before.isEmpty() ? set : QStringList{"LD_LIBRARY_PATH was " + after});
        const QString tried = layout + '/' + bundle + (before.isEmpty() ? "/Contents" : "/..") + "/Frameworks/libveldprobe";
        void *handle = nullptr, *missing = nullptr, *wrong = this;
        const QString err = standardErrorOf([&] {
            handle = LoadLibraryA(before.isEmpty() ? "libveldprobe.SO" : "libveldprobe");
            missing = GetProcAddress(handle, "veld_no_such");
            wrong = LoadLibraryA("libveldprobe.dylib");
        });
        void *answer = GetProcAddress(handle, "veld_probe_answer");
        QCOMPARE(answer ? reinterpret_cast<int (*)()>(answer)() : 0, 42);
        QVERIFY(!missing && !wrong);
        logged = logMessages(layout + "/log").mid(logged.size() + 2);
        QCOMPARE(logged.value(0), "Successfully loaded DLL '" + tried + ".so'");
        QVERIFY2(logged.value(1).startsWith("DLL ERROR: (veld_no_such): ") && err.startsWith("DLL ERROR: (veld_no_such): "), qPrintable(err));
        QVERIFY2(logged.value(2).startsWith("DLL ERROR: loading DLL '" + tried + ".dylib.so' '" + tried + ".dylib.so: ")
                     && err.contains("DLL ERROR: loading DLL 'libveldprobe.dylib' '" + tried + ".dylib.so: "), qPrintable(err));
    }
};

QTEST_GUILESS_MAIN(tst_InstallPath)
#include "tst_installpath.moc"
