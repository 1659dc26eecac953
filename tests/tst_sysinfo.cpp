#include "platform/log.h"
#include "platform/machinemodels.h"
#include "platform/sysinfo.h"
#include "platform/sysinfo_os.h"
#include "testsupport.h"

#include <QFile>
#include <QRegularExpression>
#include <QSet>
#include <QWindow>
#include <QtTest>

namespace {

const char kMacBook52[] = "MacBook5,2";
const char kP7450[] = "Intel(R) Core(TM)2 Duo CPU     P7450  @ 2.13GHz";

// The value of key in /proc/meminfo, in kB; -1 when absent.
qint64 meminfoValue(const QString &key)
{
    QFile file(QStringLiteral("/proc/meminfo"));
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    const QRegularExpression line(QStringLiteral("^%1:\\s+(\\d+) kB$").arg(key), QRegularExpression::MultilineOption);
    const QRegularExpressionMatch match = line.match(QString::fromLatin1(file.readAll()));
    return match.hasMatch() ? match.captured(1).toLongLong() : -1;
}

int commandCount(const QString &program, const QStringList &args)
{
    const ProcessResult result = runProcess(program, args);
    return result.exitCode == 0 ? result.out.trimmed().toInt() : -1;
}

} // namespace

class tst_SysInfo : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void modelTable();
    void modelName_data();
    void modelName();
    void processorSummary_data();
    void processorSummary();
    void osVersion_data();
    void osVersion();
    void eventFlags_data();
    void eventFlags();
    void cpuInfo_data();
    void cpuInfo();
    void thisMachine();
    void liveInput();
    void withoutApplication();

private:
    QTemporaryDir m_dir;
    QString m_log;
};

void tst_SysInfo::initTestCase()
{
    QVERIFY(m_dir.isValid());
    m_log = m_dir.filePath(QStringLiteral("sysinfo.log"));
    QVERIFY(OpenMacLog(QFile::encodeName(m_log).constData()));
}

void tst_SysInfo::modelTable()
{
    // The rows as written, before the maps could fold a repeated model or pair into one.
    int pairs = 0;
    QSet<QString> models;
    QSet<QString> writtenPairs;
    const QRegularExpression intelBrand(QStringLiteral("^\\S.{34}\\S  @ \\d\\.\\d\\dGHz$"));
    for (size_t i = 0; i < kModelRowCount; ++i) {
        const ModelRow &row = kModelRows[i];
        models.insert(QString::fromLatin1(row.model));
        for (const char *processor : row.processors) {
            if (!processor)
                continue;
            ++pairs;
            writtenPairs.insert(QString::fromLatin1(row.model) + QLatin1Char('|') + QLatin1String(processor));
            const QString brand = QString::fromLatin1(processor);
            if (brand.contains(QLatin1String(" @ ")))
                QVERIFY2(intelBrand.match(brand).hasMatch(), processor);
            QCOMPARE(get_model_name(row.model, processor), std::string(row.name));
        }
    }
    QCOMPARE(int(kModelRowCount), 95);
    QCOMPARE(models.size(), 95);
    QCOMPARE(pairs, 216);
    QCOMPARE(writtenPairs.size(), 216);
}

void tst_SysInfo::modelName_data()
{
    QTest::addColumn<QString>("model");
    QTest::addColumn<QString>("brand");
    QTest::addColumn<QString>("name");
    QTest::newRow("listed pair") << kMacBook52 << kP7450 << "MacBook (Early 2009)";
    QTest::newRow("PowerPC") << "PowerMac7,2" << "PowerPC G5 (970)" << "Power Mac G5";
    QTest::newRow("another model's processor") << kMacBook52 << "Intel(R) Core(TM)2 Duo CPU     P7550  @ 2.26GHz"
                                               << kMacBook52;
    QTest::newRow("one blank fewer") << kMacBook52 << "Intel(R) Core(TM)2 Duo CPU    P7450  @ 2.13GHz"
                                     << kMacBook52;
    QTest::newRow("unknown model") << "Mac99,9" << kP7450 << "Mac99,9";
    QTest::newRow("no model") << "" << kP7450 << "";
}

void tst_SysInfo::modelName()
{
    QFETCH(QString, model);
    QFETCH(QString, brand);
    QFETCH(QString, name);
    QCOMPARE(QString::fromStdString(get_model_name(model.toStdString(), brand.toStdString())), name);
}

void tst_SysInfo::processorSummary_data()
{
    QTest::addColumn<int>("cores");
    QTest::addColumn<QString>("summary");
    QTest::newRow("1") << 1 << " (single processor)";
    QTest::newRow("2") << 2 << " (dual processor)";
    QTest::newRow("3") << 3 << " (3 processors)";
    QTest::newRow("4") << 4 << " (quad processor)";
    QTest::newRow("8") << 8 << " (8 processors)";
    QTest::newRow("widest") << int(INT_MIN) << " (-2147483648 processors)";
}

void tst_SysInfo::processorSummary()
{
    QFETCH(int, cores);
    QFETCH(QString, summary);
    QCOMPARE(QString::fromStdString(::processorSummary(cores)), summary);
}

void tst_SysInfo::osVersion_data()
{
    QTest::addColumn<bool>("hasAppKit");
    QTest::addColumn<double>("appKit");
    QTest::addColumn<bool>("answers");
    QTest::addColumn<int>("minor");
    QTest::addColumn<QString>("logLine");
    const QString older = QStringLiteral("App is running under 10.%1 (minor not available)- AppKit %2");
    QTest::newRow("10.5") << true << 949.0 << true << 6 << older.arg(QLatin1String("6 or earlier"), "949.000000");
    QTest::newRow("10.6 bound") << true << 1138.0 << true << 6 << older.arg(QLatin1String("6 or earlier"), "1138.000000");
    QTest::newRow("10.7 lowest") << true << 1138.5 << true << 7 << older.arg("7", "1138.500000");
    QTest::newRow("10.8 bound") << true << 1187.0 << true << 8 << older.arg("8", "1187.000000");
    QTest::newRow("10.8 highest") << true << 1264.99 << true << 8 << older.arg("8", "1264.990000");
    QTest::newRow("10.9 exactly") << true << 1265.0 << false << 9 << older.arg("9", "1265.000000");
    QTest::newRow("process info") << true << 1265.2 << true << 11
                                  << "App is running under 10.11.6 [NSProcessInfo processInfo]";
    QTest::newRow("no process info") << true << 1404.0 << false << 10
                                     << "**** WARNING **** OS Version could not be determined";
    QTest::newRow("no AppKit") << false << 0.0 << false << 10
                               << "**** WARNING **** OS Version could not be determined";
}

void tst_SysInfo::osVersion()
{
    QFETCH(bool, hasAppKit);
    QFETCH(double, appKit);
    QFETCH(bool, answers);
    QFETCH(int, minor);
    QFETCH(QString, logLine);
    MacVersionFacts facts;
    facts.hasAppKit = hasAppKit;
    facts.appKitVersion = appKit;
    facts.answersOperatingSystemVersion = answers;
    facts.minor = answers ? 11 : 0;
    facts.patch = answers ? 6 : 0;
    QCOMPARE(macOSMinorVersion(facts), minor);
    const QStringList lines = logMessages(m_log);
    QVERIFY(!lines.isEmpty());
    QCOMPARE(lines.last(), logLine);
}

void tst_SysInfo::eventFlags_data()
{
    QTest::addColumn<qulonglong>("flags");
    QTest::addColumn<int>("modifiers");
    QTest::newRow("shift") << qulonglong(1ul << 17) << int(Qt::ShiftModifier);
    QTest::newRow("control is Meta") << qulonglong(1ul << 18) << int(Qt::MetaModifier);
    QTest::newRow("option is Alt") << qulonglong(1ul << 19) << int(Qt::AltModifier);
    QTest::newRow("command is Control") << qulonglong(1ul << 20) << int(Qt::ControlModifier);
    QTest::newRow("all four") << qulonglong(0xFul << 17)
                              << int(Qt::ShiftModifier | Qt::ControlModifier | Qt::AltModifier | Qt::MetaModifier);
    // Caps lock, numeric pad, help, function and the device-dependent low bits.
    QTest::newRow("others dropped") << qulonglong((1ul << 16) | (1ul << 21) | (1ul << 22) | (1ul << 23) | 0xFFFFul)
                                    << 0;
}

void tst_SysInfo::eventFlags()
{
    QFETCH(qulonglong, flags);
    QFETCH(int, modifiers);
    QCOMPARE(int(modifiersFromEventFlags(flags)), modifiers);
}

void tst_SysInfo::cpuInfo_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("cores");
    QTest::addColumn<QString>("brand");
    const QString brand = QStringLiteral("Intel(R) Xeon(R) CPU           E5462  @ 2.80GHz");
    QString twoSockets;   // 2 packages x 2 cores x 2 threads
    for (int cpu = 0; cpu < 8; ++cpu)
        twoSockets += QStringLiteral("processor\t: %1\nmodel name\t: %2\nphysical id\t: %3\ncore id\t\t: %4\n\n")
                          .arg(cpu).arg(brand).arg(cpu / 4).arg(cpu % 2);
    QTest::newRow("two packages, threads") << twoSockets << 4 << brand;
    QTest::newRow("no trailing blank line") << "processor\t: 0\nmodel name\t: X\nphysical id\t: 0\ncore id\t\t: 0"
                                            << 1 << "X";
    QTest::newRow("no core ids") << "processor\t: 0\nBogoMIPS\t: 50.00\n\nprocessor\t: 1\nBogoMIPS\t: 50.00\n"
                                 << 0 << "";
    QTest::newRow("core id without package") << "processor\t: 0\ncore id\t\t: 0\n\n" << 0 << "";
    QTest::newRow("empty") << "" << 0 << "";
}

void tst_SysInfo::cpuInfo()
{
    QFETCH(QString, text);
    QFETCH(int, cores);
    QFETCH(QString, brand);
    QCOMPARE(cpuInfoCoreCount(text.toStdString()), cores);
    QCOMPARE(QString::fromStdString(cpuInfoBrand(text.toStdString())), brand);
}

void tst_SysInfo::thisMachine()
{
    // Each answer against a source that does not go through the support library.
    const qint64 memTotal = meminfoValue(QStringLiteral("MemTotal"));
    QVERIFY(memTotal > 0);
    QCOMPARE(sysctlbynameuint64("hw.memsize"), quint64(memTotal) * 1024);
    uint32_t value = 0;
    QCOMPARE(hn_ram(&value, false), 0u);
    QCOMPARE(qint64(value), memTotal / 1024);

    const int configured = commandCount(QStringLiteral("getconf"), {QStringLiteral("_NPROCESSORS_CONF")});
    const int online = commandCount(QStringLiteral("getconf"), {QStringLiteral("_NPROCESSORS_ONLN")});
    QVERIFY(configured > 0 && online > 0);
    QCOMPARE(hn_cpu_logical_count(&value, false), 0u);
    QCOMPARE(int(value), configured);
    QCOMPARE(CCPUDirectory::NumberOfCPUs(true), configured);
    QCOMPARE(CCPUDirectory::NumberOfLogicalThreads(), configured);
    QCOMPARE(cpu_logical_count(), online);
    const ProcessResult lscpu = runProcess(QStringLiteral("lscpu"), {QStringLiteral("-p=SOCKET,CORE")});
    QCOMPARE(lscpu.exitCode, 0);
    const QStringList pairs = lscpu.out.split(QLatin1Char('\n'), Qt::SkipEmptyParts)
                                  .filter(QRegularExpression(QStringLiteral("^\\d+,\\d+$")));
    const int cores = pairs.isEmpty() ? online : int(QSet<QString>(pairs.begin(), pairs.end()).size());
    QCOMPARE(cpu_core_count(), cores);

    uint64_t untouched = 42;
    QVERIFY(!sysctlbynameuint64("hw.nosuchsetting", &untouched));
    QCOMPARE(untouched, uint64_t(42));
    QCOMPARE(sysctlbynameuint64("kern.hostname"), uint64_t(0));
    QCOMPARE(sysctlbynamestring("hw.nosuchsetting"), std::string());

    QFile product(QStringLiteral("/sys/devices/virtual/dmi/id/product_name"));
    const QString model = product.open(QIODevice::ReadOnly) ? QString::fromUtf8(product.readAll()).trimmed() : QString();
    QCOMPARE(QString::fromStdString(sysctlbynamestring("hw.model")), model);
    const std::string brand = sysctlbynamestring("machdep.cpu.brand_string");
    QCOMPARE(GetMacBrandCPU(), get_model_name(model.toStdString(), brand) + " " + brand);
    char machine[512];
    GetMacMachineSpecs(machine);
    QCOMPARE(std::string(machine), get_model_name(model.toStdString(), brand) + ::processorSummary(cores));
}

void tst_SysInfo::liveInput()
{
    QWindow window;
    window.resize(100, 100);
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    QCOMPARE(int(MacGetModifierKeys()), 0);
    QTest::keyPress(&window, Qt::Key_A, Qt::ShiftModifier | Qt::AltModifier);
    QCOMPARE(int(MacGetModifierKeys()), int(Qt::ShiftModifier | Qt::AltModifier));
    QTest::keyRelease(&window, Qt::Key_A, Qt::NoModifier);
    QCOMPARE(int(MacGetModifierKeys()), 0);

    QCOMPARE(MacMouseButtons(), 0ul);
    QTest::mousePress(&window, Qt::RightButton);
    QCOMPARE(MacMouseButtons(), 2ul);
    QTest::mouseRelease(&window, Qt::RightButton);
    QCOMPARE(MacMouseButtons(), 0ul);
}

void tst_SysInfo::withoutApplication()
{
    // A process with no application object: no crash, nothing held, the version undetermined.
    const QString log = m_dir.filePath(QStringLiteral("probe.log"));
    const ProcessResult result = runProcess(QStringLiteral(VELD_SUPPORTPROBE), {QStringLiteral("macopen"), log,
                                                                              QStringLiteral("machine")});
    QCOMPARE(result.exitCode, 0);
    const int processors = commandCount(QStringLiteral("getconf"), {QStringLiteral("_NPROCESSORS_CONF")});
    QCOMPARE(result.out, QStringLiteral("macopen=1\nnull=ffffffff,ffffffff,ffffffff\nmodifiers=0 buttons=0 version=10\n"));
    // Nothing for the null pointers; the count's line twice for hn_cpu_count.
    const QString count = QStringLiteral("  system reports %1 processors\n").arg(processors);
    QCOMPARE(result.err, QStringLiteral("  system reports %1MB RAM\n").arg(meminfoValue(QStringLiteral("MemTotal")) / 1024)
                             + count + count + count);
    QCOMPARE(logMessages(log), QStringList{QStringLiteral("**** WARNING **** OS Version could not be determined")});
}

QTEST_MAIN(tst_SysInfo)
#include "tst_sysinfo.moc"
