// Measures CopyThread against a bare cp on the data files below one folder and
// prints one key=value line per figure:
//   veld-bench-copy large|small SOURCE SCRATCH [ROUNDS]
// After one untimed copy, the files (as SizeThread::dirSize lists them) are copied
// ROUNDS times by CopyThread and ROUNDS times by each reference, every other
// round in the opposite order, so that no side always runs first. Each run writes
// into a fresh empty folder below SCRATCH, checked and removed outside the
// timing; the medians are compared. The reference is a shell loop with one
// "/bin/cp -pf FILE DIR/" per file, which is what the product's rule allows;
// "large" also takes one "/bin/cp -p FILES... DIR/", for information.
// Both sides run while this (the user-interface) thread turns its event loop,
// where a 1-ms timer records the longest stretch without a turn: the figure for
// the reference tells how much of the worker's is the machine's own. Beside the
// wall-clock times go the processor times (this process and its children), which
// other load on the machine disturbs far less.

#include "pages/pagestate.h"
#include "workers/copythread.h"
#include "workers/sizethread.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QProcess>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sys/resource.h>
#include <vector>

namespace {

[[noreturn]] void fail(const QString &message, int code)
{
    std::fprintf(stderr, "veld-bench-copy: %s\n", qPrintable(message));
    std::exit(code);
}

// User and system time of this process and its waited-for children.
qint64 cpuNs()
{
    qint64 ns = 0;
    for (int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        struct rusage usage {};
        ::getrusage(who, &usage);
        for (const timeval &t : {usage.ru_utime, usage.ru_stime})
            ns += qint64(t.tv_sec) * 1000000000 + qint64(t.tv_usec) * 1000;
    }
    return ns;
}

// A run's copy must be complete: every file, flat, with its size.
void check(const QString &dest, const QList<SourceFile> &files)
{
    for (const SourceFile &file : files) {
        const QFileInfo copy(dest + QLatin1Char('/') + QFile::decodeName(file.fileName()));
        if (!copy.isFile() || quint64(copy.size()) != file.size)
            fail(QStringLiteral("%1 is missing or cut short").arg(copy.filePath()), 1);
    }
    if (QDir(dest).entryList(QDir::Files | QDir::Hidden).size() != files.size())
        fail(QStringLiteral("%1 holds more than the copied files").arg(dest), 1);
}

struct Run {
    qint64 ns = 0;         // from the start until the end reached this thread
    qint64 cpuNs = 0;
    qint64 worstGapNs = 0; // longest stretch without a timer turn
};

// Turns the event loop from start(loop) until something there quits it.
template <typename Start>
Run timed(Start start)
{
    Run run;
    QEventLoop loop;
    QElapsedTimer clock;
    qint64 lastTurnNs = 0;
    QTimer ticker;
    // Not 0 ms: a timer that fires on every turn would keep one of two cores busy.
    ticker.setInterval(1);
    ticker.setTimerType(Qt::PreciseTimer);
    QObject::connect(&ticker, &QTimer::timeout, &loop, [&] {
        const qint64 now = clock.nsecsElapsed();
        run.worstGapNs = std::max(run.worstGapNs, now - lastTurnNs);
        lastTurnNs = now;
    });
    const qint64 cpuBefore = cpuNs();
    clock.start();
    ticker.start();
    start(loop);
    loop.exec();
    run.ns = clock.nsecsElapsed();
    run.cpuNs = cpuNs() - cpuBefore;
    run.worstGapNs = std::max(run.worstGapNs, run.ns - lastTurnNs);
    return run;
}

Run runWorker(const QList<SourceFile> &files, const QString &dest)
{
    sSourceFiles = files;
    sCopyFiles = false; // copy, not move
    CopyThread copy(nullptr, dest);
    int copied = 0, lastCode = 1;
    QString lastMessage;
    // Queued to this thread, as the pages get them.
    QObject receiver;
    QObject::connect(&copy, &CopyThread::copiedFile, &receiver, [&](int n) { copied = n; });
    QObject::connect(&copy, &CopyThread::copyResult, &receiver, [&](int code, const QString &message) {
        lastCode = code;
        lastMessage = message;
    });
    const Run run = timed([&](QEventLoop &loop) {
        QObject::connect(&copy, &QThread::finished, &loop, &QEventLoop::quit);
        copy.start();
    });
    if (lastCode != 0 || copied != files.size())
        fail(QStringLiteral("CopyThread stopped after %1 files: %2").arg(copied).arg(lastMessage), 1);
    return run;
}

Run runReference(bool perFile, const QList<SourceFile> &files, const QString &dest)
{
    // The loop gets the folder as $1 and the files after it.
    const QString loop = QStringLiteral("d=$1; shift; for f; do /bin/cp -pf \"$f\" \"$d/\" || exit 1; done");
    QStringList args = perFile ? QStringList{QStringLiteral("-c"), loop, QStringLiteral("bash"), dest}
                               : QStringList{QStringLiteral("-p")};
    for (const SourceFile &file : files)
        args << QFile::decodeName(file.path);
    if (!perFile)
        args << dest + QLatin1Char('/');
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedChannels);
    const Run run = timed([&](QEventLoop &loop) {
        QObject::connect(&process, qOverload<int, QProcess::ExitStatus>(&QProcess::finished), &loop, &QEventLoop::quit);
        QObject::connect(&process, &QProcess::errorOccurred, &loop, &QEventLoop::quit);
        process.start(perFile ? QStringLiteral("/bin/bash") : QStringLiteral("/bin/cp"), args);
    });
    if (process.error() != QProcess::UnknownError || process.exitCode() != 0)
        fail(QStringLiteral("the reference copy failed"), 1);
    return run;
}

double median(std::vector<qint64> values)
{
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return double(values[(n - 1) / 2] + values[n / 2]) / 2e9;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() < 4 || args.size() > 5 || (args.at(1) != "large" && args.at(1) != "small"))
        fail(QStringLiteral("usage: veld-bench-copy large|small SOURCE SCRATCH [ROUNDS]   (ROUNDS 1..99, default 3)"), 2);
    const QString name = args.at(1);
    const bool perFile = name == QLatin1String("small");
    bool ok = true;
    const int rounds = args.size() == 5 ? args.at(4).toInt(&ok) : 3;
    if (!ok || rounds < 1 || rounds > 99)
        fail(QStringLiteral("ROUNDS must be a number from 1 to 99"), 2);
    QList<SourceFile> files;
    const quint64 bytes = SizeThread::dirSize(args.at(2), files);
    if (files.isEmpty())
        fail(QStringLiteral("no data files below SOURCE"), 2);
    const QString dest = QDir(args.at(3)).absoluteFilePath(QStringLiteral("veld-bench-copy-dest"));
    if (QFileInfo::exists(dest))
        fail(dest + QStringLiteral(" exists already"), 2);

    // The sides of a round, in turn: the worker, the shell loop that the
    // product's rule (one cp per file) allows, and for the large set one cp of
    // all the files, for information. Every other round runs them backwards.
    enum Side { Worker, Loop, OneCp };
    std::vector<Side> sides{Worker, Loop};
    if (!perFile)
        sides.push_back(OneCp);
    std::vector<std::vector<Run>> runs(sides.size());
    // Round -1 is one untimed cp of all files: the first run after the files were
    // made took up to three times as long as the later ones.
    for (int round = -1; round < rounds; ++round) {
        for (std::size_t turn = 0; turn < (round < 0 ? 1 : sides.size()); ++turn) {
            const Side side = round < 0 ? OneCp : sides[round % 2 ? sides.size() - 1 - turn : turn];
            if (!QDir().mkdir(dest))
                fail(QStringLiteral("cannot make ") + dest, 1);
            const Run run = side == Worker ? runWorker(files, dest) : runReference(side == Loop, files, dest);
            if (round >= 0)
                runs[side].push_back(run);
            check(dest, files);
            if (!QDir(dest).removeRecursively())
                fail(QStringLiteral("cannot remove ") + dest, 1);
        }
    }

    const auto column = [](const std::vector<Run> &runs, qint64 Run::*field) {
        std::vector<qint64> values;
        for (const Run &run : runs)
            values.push_back(run.*field);
        return values;
    };
    const auto seconds = [&](const std::vector<Run> &runs) {
        QStringList parts;
        for (qint64 ns : column(runs, &Run::ns))
            parts << QString::number(double(ns) / 1e9, 'f', 3);
        return parts.join(QLatin1Char('/'));
    };
    const auto worstGapMs = [&](const std::vector<Run> &runs) {
        const std::vector<qint64> gaps = column(runs, &Run::worstGapNs);
        return double(*std::max_element(gaps.begin(), gaps.end())) / 1e6;
    };
    const bool gib = bytes >= (quint64(1) << 30);
    // copy_small_ratio and copy_large_loop_ratio against the loop, copy_large_ratio against one cp.
    for (const Side reference : {Loop, OneCp}) {
        if (reference == OneCp && perFile)
            break;
        const QByteArray key = (name + (perFile || reference == OneCp ? QString() : QStringLiteral("_loop"))).toLatin1();
        const char *const refName = reference == Loop ? "cp loop" : "cp";
        const std::vector<Run> &ref = runs[reference], &work = runs[Worker];
        const double workerS = median(column(work, &Run::ns)), referenceS = median(column(ref, &Run::ns));
        std::printf("copy_%s_ratio=%.2f (worker %.3f s, %s %.3f s, %d files, %.2f %s)\n", key.constData(),
                    workerS / referenceS, workerS, refName, referenceS, int(files.size()),
                    double(bytes) / (gib ? 1 << 30 : 1 << 20), gib ? "GiB" : "MiB");
        std::printf("copy_%s_rounds=worker %s s; %s %s s\n", key.constData(), qPrintable(seconds(work)), refName,
                    qPrintable(seconds(ref)));
        const double workerCpu = median(column(work, &Run::cpuNs)), referenceCpu = median(column(ref, &Run::cpuNs));
        std::printf("copy_%s_cpu_ratio=%.2f (worker %.3f s, %s %.3f s)\n", key.constData(), workerCpu / referenceCpu,
                    workerCpu, refName, referenceCpu);
    }
    std::printf("copy_%s_loop_gap_max_ms=%.3f (while the cp loop ran: %.3f)\n", qPrintable(name), worstGapMs(runs[Worker]),
                worstGapMs(runs[Loop]));
    struct rusage self {};
    ::getrusage(RUSAGE_SELF, &self);   // kilobytes on Linux
    std::printf("copy_%s_peak_rss_mb=%.1f (this process, the worker's runs included)\n", qPrintable(name),
                double(self.ru_maxrss) / 1024);
    return 0;
}
