#ifndef VELD_PLATFORM_SYSINFO_H
#define VELD_PLATFORM_SYSINFO_H

#include <Qt>

#include <cstdint>
#include <string>

/*
 * Queries that describe the machine: system version, memory, processor
 * counts, the machine's marketing name and processor brand, and the state of
 * the modifier keys and mouse buttons. Nothing in the installer depends on
 * their results; the compute service's configuration uses them.
 *
 * System settings are named as on macOS ("hw.memsize", "hw.ncpu",
 * "hw.logicalcpu", "hw.physicalcpu", "hw.model",
 * "machdep.cpu.brand_string"). On Linux they are answered from sysconf,
 * /proc/cpuinfo and the firmware's product name; any other name cannot be read.
 *
 * The model table is filled on first use without a lock: make the first
 * lookup from one thread before other threads use it.
 */

/** The system's minor version (6 stands for 10.6 or earlier; 10 when it cannot be
 *  determined). Logs how it was found. */
int MacOSVersion();

/** The modifier keys held now, as the toolkit's bits (Command is Control, Control is Meta on
 *  macOS): Shift, Control, Alt and Meta only. No modifiers without a running GUI application. */
Qt::KeyboardModifiers MacGetModifierKeys();

/** The mouse buttons held now: bit n for button n (0 left, 1 right, 2 middle, then the
 *  extra buttons). */
unsigned long MacMouseButtons();

/** Stores the memory size in MB; 0xFFFFFFFF (nothing written) when out is null, else 0.
 *  verbose writes the size to standard error. */
uint32_t hn_ram(uint32_t *out, bool verbose);

/** Stores the processor count; 0xFFFFFFFF when out is null, else 0. */
uint32_t hn_cpu_logical_count(uint32_t *out, bool verbose);

/** As hn_cpu_logical_count; verbose writes the count's line a second time. */
uint32_t hn_cpu_count(uint32_t *out, bool verbose);

/** Reads the named setting, widening a 1-, 2- or 4-byte value without sign; false (out
 *  untouched) when it cannot be read or is wider than 8 bytes. */
bool sysctlbynameuint64(const char *name, uint64_t *out);

/** The named setting's value, or 0 when it cannot be read. */
uint64_t sysctlbynameuint64(const char *name);

/** The named setting as text (at most 512 bytes with its terminator), or empty. */
std::string sysctlbynamestring(const char *name);

/** Logical processors: "hw.logicalcpu", else "hw.ncpu", else 1. */
int cpu_logical_count();

/** Physical cores: "hw.physicalcpu", else cpu_logical_count(). */
int cpu_core_count();

/** Fills the model table once; later calls do nothing. */
void init_model_information();

/** The marketing name of model when the table lists brand, exactly, for that model;
 *  otherwise model itself. */
std::string get_model_name(const std::string &model, const std::string &brand);

/** get_model_name of this machine, one blank, its processor brand. */
std::string GetMacBrandCPU();

/** Writes this machine's name and processor summary, such as "MacBook (Late 2009) (dual
 *  processor)", into out; the caller provides room for the name and 29 bytes more. */
void GetMacMachineSpecs(char *out);

/** " (single processor)", " (dual processor)", " (quad processor)" or " (N processors)". */
std::string processorSummary(int cores);

/** What the system tells about its version; the decision below is the same on both systems. */
struct MacVersionFacts {
    bool hasAppKit = false;              // false where there is no AppKit (Linux)
    double appKitVersion = 0;
    bool answersOperatingSystemVersion = false;
    int minor = 0;
    int patch = 0;
};

/** MacOSVersion's decision on facts, with its log line. */
int macOSMinorVersion(const MacVersionFacts &facts);

/** The toolkit's modifier bits for macOS event modifier flags; other flags are dropped. */
Qt::KeyboardModifiers modifiersFromEventFlags(unsigned long flags);

/** Processor questions of the compute service, answered from the counts above. */
class CCPUDirectory
{
public:
    static bool Is64BitOS();
    /** "P4e", as is GetDefaultCPUDirectory(). */
    static std::string GetCPUDirectory();
    static std::string GetDefaultCPUDirectory();
    /** hn_cpu_count's count; the flag is ignored. */
    static int NumberOfCPUs(bool ignored);
    /** hn_cpu_logical_count's count. */
    static int NumberOfLogicalThreads();
};

#endif
