// Measures the source scanner on one tree and prints one key=value line per figure:
//   veld-bench-scan TREE [RUNS]
// First SizeThread::dirSize alone, best of RUNS runs after one warm-up run. Then
// RUNS real SizeThread scans while a 1-ms timer on this (the user-interface)
// thread records the longest time the event loop did not turn. Each phase also
// reports how far it raised the peak resident memory above the RSS the process
// had before the first scan. The memory figures need Linux's /proc.

#include "pages/pagestate.h"
#include "workers/sizethread.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <sys/resource.h>
#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace {

// A field of /proc/self/status such as VmRSS, in KiB; -1 when it cannot be read.
long statusKiB(const char *field)
{
    std::ifstream status("/proc/self/status");
    const std::size_t length = std::strlen(field);
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, length, field) == 0 && line.size() > length && line[length] == ':')
            return std::strtol(line.c_str() + length + 1, nullptr, 10);
    }
    return -1;
}

// Lowers the kernel's peak-RSS mark (VmHWM, and with it ru_maxrss) to the
// current RSS, so that a later VmHWM is the peak of what ran after this call.
bool resetPeakRss()
{
    std::ofstream clearRefs("/proc/self/clear_refs");
    clearRefs << "5";
    clearRefs.flush();
    return bool(clearRefs);
}

// Hands the heap freed by one phase back to the system, so that the next phase
// starts from about the RSS the first one did and is not credited with memory
// that the allocator merely kept. (The scan allocates on its own thread, hence
// in another malloc arena that would not reuse what this thread kept.)
void returnFreedHeap()
{
#ifdef __GLIBC__
    ::malloc_trim(0);
#endif
}

long maxRssKiB()
{
    struct rusage usage {};
    if (::getrusage(RUSAGE_SELF, &usage) != 0)
        return -1;
#ifdef __APPLE__
    return usage.ru_maxrss / 1024; // bytes there, KiB on Linux
#else
    return usage.ru_maxrss;
#endif
}

void printMs(const char *key, qint64 nanoseconds)
{
    std::printf("%s=%.3f\n", key, double(nanoseconds) / 1e6);
}

void printMb(const char *key, long kib)
{
    if (kib < 0)
        std::printf("%s=unknown\n", key);
    else
        std::printf("%s=%.1f\n", key, double(kib) / 1024.0);
}

[[noreturn]] void fail(const char *message, int code)
{
    std::fprintf(stderr, "veld-bench-scan: %s\n", message);
    std::exit(code);
}

// Times dirSize, best of runs after one warm-up run. Each run fills a list of
// its own, freed outside the timing.
qint64 timeDirSize(const QString &tree, int runs, quint64 &bytes, int &files)
{
    qint64 bestNs = -1;
    for (int run = 0; run <= runs; ++run) {
        QList<SourceFile> list;
        QElapsedTimer clock;
        clock.start();
        bytes = SizeThread::dirSize(tree, list);
        const qint64 ns = clock.nsecsElapsed();
        files = list.size();
        if (run > 0 && (bestNs < 0 || ns < bestNs))
            bestNs = ns;
    }
    return bestNs;
}

struct ScanFigures {
    qint64 bestScanNs = -1;  // from start() until a pathSize receiver has run
    qint64 worstGapNs = 0;   // longest stretch without a timer turn
    long turns = 0;
};

// Runs real scans, each settled and its result checked against dirSize's.
ScanFigures timeScans(QCoreApplication &app, const QString &tree, int runs, quint64 bytes, int files)
{
    ScanFigures figures;
    for (int run = 0; run < runs; ++run) {
        sResultList.clear();
        QElapsedTimer clock;
        qint64 lastTurnNs = 0, deliveredNs = -1;
        quint64 scanBytes = 0;
        QTimer ticker;
        // Not 0 ms: a timer that fires on every turn keeps this thread busy and,
        // on two cores, slows the scan it measures by half.
        ticker.setInterval(1);
        ticker.setTimerType(Qt::PreciseTimer);
        QObject::connect(&ticker, &QTimer::timeout, &app, [&] {
            const qint64 now = clock.nsecsElapsed();
            figures.worstGapNs = std::max(figures.worstGapNs, now - lastTurnNs);
            lastTurnNs = now;
            ++figures.turns;
        });
        auto *scan = new SizeThread(nullptr, tree);
        QObject::connect(scan, &SizeThread::pathSize, &app, [&](const QString &, quint64 total) {
            deliveredNs = clock.nsecsElapsed();
            scanBytes = total;
        });
        clock.start();
        ticker.start();
        scan->start();
        const bool settled = SizeThread::waitForScans();
        // The stretch from the last turn until the result was handed over counts too.
        figures.worstGapNs = std::max(figures.worstGapNs, clock.nsecsElapsed() - lastTurnNs);
        ticker.stop();
        delete scan;
        if (!settled || deliveredNs < 0)
            fail("a scan ended without delivering its result", 1);
        if (scanBytes != bytes || sResultList.size() != files)
            fail("a scan disagreed with dirSize about the bytes or the files", 1);
        if (figures.bestScanNs < 0 || deliveredNs < figures.bestScanNs)
            figures.bestScanNs = deliveredNs;
    }
    return figures;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() < 2 || args.size() > 3 || args.at(1).startsWith(QLatin1Char('-')))
        fail("usage: veld-bench-scan TREE [RUNS]   (RUNS 1..1000, default 5)", 2);
    const QString tree = args.at(1);
    bool ok = true;
    const int runs = args.size() == 3 ? args.at(2).toInt(&ok) : 5;
    if (!ok || runs < 1 || runs > 1000)
        fail("RUNS must be a number from 1 to 1000", 2);
    if (!QFileInfo(tree).isDir())
        fail("TREE is not a folder", 2);
    std::printf("tree=%s\nruns=%d\n", qPrintable(tree), runs);

    const long startupPeakKiB = maxRssKiB();
    const long rssBeforeKiB = statusKiB("VmRSS");
    // Without the reset VmHWM may still hold a higher start-up peak, and the
    // growth would read high; peak_reset=no says so.
    bool peakReset = resetPeakRss();
    const auto growth = [rssBeforeKiB](long peakKiB) {
        return rssBeforeKiB < 0 || peakKiB < 0 ? -1 : std::max(0L, peakKiB - rssBeforeKiB);
    };

    quint64 bytes = 0;
    int files = 0;
    const qint64 dirSizeNs = timeDirSize(tree, runs, bytes, files);
    const long dirSizePeakKiB = statusKiB("VmHWM");
    printMs("dirsize_best_ms", dirSizeNs);
    std::printf("data_bytes=%llu\ndata_files=%d\n", static_cast<unsigned long long>(bytes), files);

    returnFreedHeap();
    peakReset = resetPeakRss() && peakReset;
    const ScanFigures scans = timeScans(app, tree, runs, bytes, files);
    const long scanPeakKiB = statusKiB("VmHWM");
    printMs("thread_scan_best_ms", scans.bestScanNs);
    printMs("loop_gap_max_ms", scans.worstGapNs);
    std::printf("loop_turns=%ld\n", scans.turns);

    // Each reset lowered ru_maxrss too, so the earlier peaks are taken in by hand.
    printMb("peak_rss_mb", std::max({startupPeakKiB, dirSizePeakKiB, maxRssKiB()}));
    printMb("rss_before_scans_mb", rssBeforeKiB);
    printMb("dirsize_peak_growth_mb", growth(dirSizePeakKiB));
    printMb("thread_scan_peak_growth_mb", growth(scanPeakKiB));
    printMb("scan_peak_growth_mb", std::max(growth(dirSizePeakKiB), growth(scanPeakKiB)));
    std::printf("peak_reset=%s\n", peakReset ? "yes" : "no");
    return 0;
}
