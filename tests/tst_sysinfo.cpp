#include "platform/log.h"
#include "platform/machinemodels.h"
#include "platform/sysinfo.h"
#include "platform/sysinfo_os.h"
#include "testsupport.h"

namespace {

// The machine's memory in kB, from the kernel's own report.
qint64 memTotal()
{
    return QRegularExpression("^MemTotal:\\s+(\\d+) kB$", QRegularExpression::MultilineOption).match(fileText("/proc/meminfo")).captured(1).toLongLong();
}

int commandCount(const QStringList &command)
{
    return runProcess(command).out.trimmed().toInt();
}

} // namespace

class tst_SysInfo : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        m_log = m_dir.filePath("sysinfo.log");
        QVERIFY(OpenMacLog(QFile::encodeName(m_log).constData()));
    }

    // Every pair of the table, as written, finds its own row's name; Intel brands keep Intel's layout.
    void modelTable()
    {
        int pairs = 0;
        for (size_t i = 0; i < kModelRowCount; ++i) {
            for (const char *processor : kModelRows[i].processors) {
                pairs += processor != nullptr;
                QVERIFY2(!processor || !strstr(processor, " @ ")
                             || QRegularExpression("^\\S.{34}\\S  @ \\d\\.\\d\\dGHz$").match(processor).hasMatch(), processor);
                QVERIFY(!processor || get_model_name(kModelRows[i].model, processor) == kModelRows[i].name);
            }
        }
        QCOMPARE(int(kModelRowCount) * 1000 + pairs, 95 * 1000 + 216);   // 95 models, 216 pairs
    }

    // The model's name, the processor summary, the event flags' modifiers, the cores and brand read from
    // /proc/cpuinfo, and the minor version of the system from AppKit's version ("-": none), where the process
    // information does ("answers") or does not tell 10.11.6, with the line it logs.
    void rules_data()
    {
        const QString p7450 = "Intel(R) Core(TM)2 Duo CPU     P7450  @ 2.13GHz", p7550 = "Intel(R) Core(TM)2 Duo CPU     P7550  @ 2.26GHz";
        const QString xeon = "Intel(R) Xeon(R) CPU           E5462  @ 2.80GHz";
        const QString older = QStringLiteral("App is running under 10.%1 (minor not available)- AppKit %2");
        const QString unknown = QStringLiteral("**** WARNING **** OS Version could not be determined");
        QString twoSockets;   // 2 packages x 2 cores x 2 threads
        for (int cpu = 0; cpu < 8; ++cpu)
            twoSockets += QStringLiteral("processor\t: %1\nmodel name\t: %2\nphysical id\t: %3\ncore id\t\t: %4\n\n")
                              .arg(cpu).arg(xeon).arg(cpu / 4).arg(cpu % 2);
        ruleRows({
            {"model", "listed pair", "MacBook5,2|" + p7450, "MacBook (Early 2009)"},
            {"model", "another model's processor", "MacBook5,2|" + p7550, "MacBook5,2"},
            {"model", "one blank fewer", "MacBook5,2|" + QString(p7450).replace("CPU     ", "CPU    "), "MacBook5,2"},
            {"model", "unknown model", "Mac99,9|" + p7450, "Mac99,9"},
            {"model", "no model", "|" + p7450, ""},
            {"summary", "1", "1", " (single processor)"},
            {"summary", "2", "2", " (dual processor)"},
            {"summary", "4", "4", " (quad processor)"},
            {"summary", "8", "8", " (8 processors)"},
            {"summary", "widest", QString::number(INT_MIN), " (-2147483648 processors)"},
            {"flags", "shift", "20000", QString::number(Qt::ShiftModifier)},
            {"flags", "control is Meta", "40000", QString::number(Qt::MetaModifier)},
            {"flags", "option is Alt", "80000", QString::number(Qt::AltModifier)},
            {"flags", "command is Control", "100000", QString::number(Qt::ControlModifier)},
            // Caps lock, numeric pad, help, function and the device-dependent low bits are dropped.
            {"flags", "others dropped", "e1ffff", "0"},
            {"cpuinfo", "two packages, threads", twoSockets, "4|" + xeon},
            {"cpuinfo", "no trailing blank line", "processor\t: 0\nmodel name\t: X\nphysical id\t: 0\ncore id\t\t: 0", "1|X"},
            {"cpuinfo", "no core ids", "processor\t: 0\nBogoMIPS\t: 50.00\n\nprocessor\t: 1\nBogoMIPS\t: 50.00\n", "0|"},
            {"cpuinfo", "core id without package", "processor\t: 0\ncore id\t\t: 0\n\n", "0|"},
            {"version", "10.6 bound", "1138.0|answers", "6|" + older.arg("6 or earlier", "1138.000000")},
            {"version", "10.7 lowest", "1138.5|answers", "7|" + older.arg("7", "1138.500000")},
            {"version", "10.8 bound", "1187.0|answers", "8|" + older.arg("8", "1187.000000")},
            {"version", "10.9 exactly", "1265.0|", "9|" + older.arg("9", "1265.000000")},
            {"version", "process info", "1265.2|answers", "11|App is running under 10.11.6 [NSProcessInfo processInfo]"},
            {"version", "no process info", "1404.0|", "10|" + unknown},
            {"version", "no AppKit", "-|", "10|" + unknown},
        });
    }

    void rules()
    {
        QFETCH(QString, rule);
        QFETCH(QString, input);
        QFETCH(QString, expected);
        const std::string text = input.toStdString(), first = input.section('|', 0, 0).toStdString();
        const bool answers = input.endsWith("|answers");
        const int minor = rule != "version" ? 0
            : macOSMinorVersion({first != "-", input.section('|', 0, 0).toDouble(), answers, answers ? 11 : 0, answers ? 6 : 0});
        QCOMPARE(rule == "version"   ? QString::number(minor) + '|' + logMessages(m_log).last()
                 : rule == "model"   ? QString::fromStdString(get_model_name(first, input.section('|', 1).toStdString()))
                 : rule == "summary" ? QString::fromStdString(processorSummary(input.toInt()))
                 : rule == "flags"   ? QString::number(int(modifiersFromEventFlags(input.toULong(nullptr, 16))))
                                     : QString::number(cpuInfoCoreCount(text)) + '|' + QString::fromStdString(cpuInfoBrand(text)),
                 expected);
    }

    // Each answer against a source that does not go through the support library.
    void thisMachine()
    {
        QCOMPARE(sysctlbynameuint64("hw.memsize"), quint64(memTotal()) * 1024);
        QCOMPARE(cpu_logical_count(), commandCount({"getconf", "_NPROCESSORS_ONLN"}));
        const QStringList pairs = runProcess({"lscpu", "-p=SOCKET,CORE"}).out.split('\n').filter(QRegularExpression("^\\d+,\\d+$"));
        const int cores = pairs.isEmpty() ? cpu_logical_count() : int(QSet<QString>(pairs.begin(), pairs.end()).size());
        QCOMPARE(cpu_core_count(), cores);
        uint64_t untouched = 42;   // a setting that does not exist
        QVERIFY(!sysctlbynameuint64("hw.nosuchsetting", &untouched) && untouched == 42);
        const std::string model = fileText("/sys/devices/virtual/dmi/id/product_name").trimmed().toStdString();
        const std::string brand = sysctlbynamestring("machdep.cpu.brand_string");
        QCOMPARE(sysctlbynamestring("hw.model"), model);
        QCOMPARE(GetMacBrandCPU(), get_model_name(model, brand) + " " + brand);
        char machine[512];
        GetMacMachineSpecs(machine);
        QCOMPARE(std::string(machine), get_model_name(model, brand) + processorSummary(cores));
        QWindow window;   // the toolkit holds the keypad's bit beside Shift, of which only Shift passes
        QTest::keyPress(&window, Qt::Key_5, Qt::KeypadModifier | Qt::ShiftModifier);
        const QPair<int, int> held(QGuiApplication::queryKeyboardModifiers(), MacGetModifierKeys());
        QTest::keyRelease(&window, Qt::Key_5);   // nothing held afterwards
        QCOMPARE(held, qMakePair(int(Qt::KeypadModifier | Qt::ShiftModifier), int(Qt::ShiftModifier)));
    }

    void withoutApplication()
    {
        // This program without any application object (see main): no crash, nothing held, the version undetermined.
        const QString log = m_dir.filePath("bare.log");
        const ProcessResult result = runProcess({QCoreApplication::applicationFilePath(), "--no-application", log});
        QCOMPARE(result.exitCode, 0);
        QCOMPARE(result.out, QStringLiteral("null=ffffffff,ffffffff,ffffffff\nmodifiers=0 buttons=0 version=10\n"));
        // Nothing for the null pointers; the count's line twice for hn_cpu_count.
        const QString count = QStringLiteral("  system reports %1 processors\n").arg(commandCount({"getconf", "_NPROCESSORS_CONF"}));
        QCOMPARE(result.err, QStringLiteral("  system reports %1MB RAM\n").arg(memTotal() / 1024) + count.repeated(3));
        QCOMPARE(logMessages(log), QStringList{"**** WARNING **** OS Version could not be determined"});
    }

private:
    QTemporaryDir m_dir;
    QString m_log;
};

int main(int argc, char **argv)
{
    if (argc == 3 && qstrcmp(argv[1], "--no-application") == 0) {
        OpenMacLog(argv[2]);
        uint32_t value = 0;
        printf("null=%x,%x,%x\n", hn_ram(nullptr, true), hn_cpu_logical_count(nullptr, true), hn_cpu_count(nullptr, true));
        hn_ram(&value, true);
        hn_cpu_logical_count(&value, true);
        hn_cpu_count(&value, true);
        printf("modifiers=%d buttons=%lu version=%d\n", int(MacGetModifierKeys()), MacMouseButtons(), MacOSVersion());
        return 0;
    }
    QApplication app(argc, argv);
    tst_SysInfo test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}
#include "tst_sysinfo.moc"
