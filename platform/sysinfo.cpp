#include "sysinfo.h"

#include "log.h"
#include "machinemodels.h"
#include "sysinfo_os.h"

#include <cstdio>
#include <cstring>
#include <map>
#include <set>

namespace {

const uint32_t kNullResult = 0xFFFFFFFF;
const size_t kStringSettingBytes = 512;
const size_t kSummaryBytes = 29;

std::map<std::string, std::string> s_models;
std::map<std::string, std::set<std::string>> s_processors;
bool s_initialized = false;

// The event flags of the modifier keys (NSEventModifierFlag...).
const unsigned long kShiftFlag = 1ul << 17;
const unsigned long kControlFlag = 1ul << 18;
const unsigned long kOptionFlag = 1ul << 19;
const unsigned long kCommandFlag = 1ul << 20;

uint64_t widened(const unsigned char *bytes, size_t size)
{
    switch (size) {
    case 1: return bytes[0];
    case 2: { uint16_t v; memcpy(&v, bytes, sizeof v); return v; }
    case 4: { uint32_t v; memcpy(&v, bytes, sizeof v); return v; }
    default: { uint64_t v; memcpy(&v, bytes, sizeof v); return v; }
    }
}

uint64_t hardwareValue(int item)
{
    unsigned char bytes[8] = {};
    size_t size = sizeof bytes;
    return osSysctlHardware(item, bytes, &size) ? widened(bytes, size) : 0;
}

} // namespace

int macOSMinorVersion(const MacVersionFacts &facts)
{
    if (facts.hasAppKit) {
        const double appKit = facts.appKitVersion;
        if (appKit <= 1138.0) {
            log_msg("App is running under 10.6 or earlier (minor not available)- AppKit %f\n", appKit);
            return 6;
        }
        if (appKit < 1187.0) {
            log_msg("App is running under 10.7 (minor not available)- AppKit %f\n", appKit);
            return 7;
        }
        if (appKit < 1265.0) {
            log_msg("App is running under 10.8 (minor not available)- AppKit %f\n", appKit);
            return 8;
        }
        if (appKit == 1265.0) {
            log_msg("App is running under 10.9 (minor not available)- AppKit %f\n", appKit);
            return 9;
        }
    }
    if (facts.answersOperatingSystemVersion) {
        log_msg("App is running under 10.%d.%d [NSProcessInfo processInfo]\n", facts.minor, facts.patch);
        return facts.minor;
    }
    log_msg("**** WARNING **** OS Version could not be determined\n");
    return 10;
}

int MacOSVersion()
{
    return macOSMinorVersion(osMacVersionFacts());
}

Qt::KeyboardModifiers modifiersFromEventFlags(unsigned long flags)
{
    Qt::KeyboardModifiers modifiers;
    if (flags & kShiftFlag)
        modifiers |= Qt::ShiftModifier;
    if (flags & kCommandFlag)
        modifiers |= Qt::ControlModifier;
    if (flags & kOptionFlag)
        modifiers |= Qt::AltModifier;
    if (flags & kControlFlag)
        modifiers |= Qt::MetaModifier;
    return modifiers;
}

Qt::KeyboardModifiers MacGetModifierKeys()
{
    // Masked here, for both bodies: on Linux the toolkit also reports its keypad and group-switch bits.
    return osModifierKeys() & (Qt::ShiftModifier | Qt::ControlModifier | Qt::AltModifier | Qt::MetaModifier);
}

unsigned long MacMouseButtons()
{
    return osPressedMouseButtons();
}

uint32_t hn_ram(uint32_t *out, bool verbose)
{
    if (!out)
        return kNullResult;
    *out = uint32_t(hardwareValue(kHardwareMemorySize) >> 20);
    if (verbose)
        fprintf(stderr, "  system reports %dMB RAM\n", int(*out));
    return 0;
}

uint32_t hn_cpu_logical_count(uint32_t *out, bool verbose)
{
    if (!out)
        return kNullResult;
    const uint32_t count = uint32_t(hardwareValue(kHardwareProcessorCount));
    if (verbose)
        fprintf(stderr, "  system reports %d processors\n", int(count));
    *out = count;
    return 0;
}

uint32_t hn_cpu_count(uint32_t *out, bool verbose)
{
    if (!out)
        return kNullResult;
    hn_cpu_logical_count(out, verbose);
    if (verbose)
        fprintf(stderr, "  system reports %d processors\n", int(*out));
    return 0;
}

bool sysctlbynameuint64(const char *name, uint64_t *out)
{
    unsigned char bytes[8] = {};
    size_t size = sizeof bytes;
    if (!name || !out || !osSysctlByName(name, bytes, &size))
        return false;
    *out = widened(bytes, size);
    return true;
}

uint64_t sysctlbynameuint64(const char *name)
{
    uint64_t value = 0;
    return sysctlbynameuint64(name, &value) ? value : 0;
}

std::string sysctlbynamestring(const char *name)
{
    char buffer[kStringSettingBytes] = {};
    size_t size = sizeof buffer;
    if (!name || !osSysctlByName(name, buffer, &size))
        return std::string();
    // The value's width counts its terminator; a value without one ends at the width.
    return std::string(buffer, strnlen(buffer, size));
}

int cpu_logical_count()
{
    uint64_t count = 0;
    if ((sysctlbynameuint64("hw.logicalcpu", &count) && count > 0)
        || (sysctlbynameuint64("hw.ncpu", &count) && count > 0))
        return int(count);
    return 1;
}

int cpu_core_count()
{
    uint64_t count = 0;
    if (sysctlbynameuint64("hw.physicalcpu", &count) && count > 0)
        return int(count);
    return cpu_logical_count();
}

void init_model_information()
{
    if (s_initialized)
        return;
    for (size_t i = 0; i < kModelRowCount; ++i) {
        const ModelRow &row = kModelRows[i];
        s_models[row.model] = row.name;
        for (const char *processor : row.processors) {
            if (processor)
                s_processors[row.model].insert(processor);
        }
    }
    s_initialized = true;
}

std::string get_model_name(const std::string &model, const std::string &brand)
{
    init_model_information();
    const auto processors = s_processors.find(model);
    if (processors != s_processors.end() && processors->second.count(brand)) {
        const auto name = s_models.find(model);
        if (name != s_models.end())
            return name->second;
    }
    return model;
}

std::string GetMacBrandCPU()
{
    const std::string model = sysctlbynamestring("hw.model");
    const std::string brand = sysctlbynamestring("machdep.cpu.brand_string");
    return get_model_name(model, brand) + " " + brand;
}

std::string processorSummary(int cores)
{
    switch (cores) {
    case 1: return " (single processor)";
    case 2: return " (dual processor)";
    case 4: return " (quad processor)";
    default: {
        char text[kSummaryBytes];
        snprintf(text, sizeof text, " (%d processors)", cores);
        return text;
    }
    }
}

void GetMacMachineSpecs(char *out)
{
    if (!out)
        return;
    const std::string model = sysctlbynamestring("hw.model");
    const std::string brand = sysctlbynamestring("machdep.cpu.brand_string");
    const std::string text = get_model_name(model, brand) + processorSummary(cpu_core_count());
    memcpy(out, text.c_str(), text.size() + 1);
}

bool CCPUDirectory::Is64BitOS()
{
    return true;
}

std::string CCPUDirectory::GetCPUDirectory()
{
    return "P4e";
}

std::string CCPUDirectory::GetDefaultCPUDirectory()
{
    return "P4e";
}

int CCPUDirectory::NumberOfCPUs(bool)
{
    uint32_t count = 0;
    hn_cpu_count(&count, false);
    return int(count);
}

int CCPUDirectory::NumberOfLogicalThreads()
{
    uint32_t count = 0;
    hn_cpu_logical_count(&count, false);
    return int(count);
}
