#ifndef VELD_PLATFORM_SYSINFO_OS_H
#define VELD_PLATFORM_SYSINFO_OS_H

// The system's side of the machine queries: each body holds only the
// system's calls; widening, fallbacks, texts and the model table are shared.

#include "sysinfo.h"

#include <cstddef>

/** sysctlbyname: copies the named setting's value into buffer and its width into *size;
 *  false when it cannot be read or is wider than *size. */
bool osSysctlByName(const char *name, void *buffer, size_t *size);

/** The items of the hardware group (6) that the queries read. */
constexpr int kHardwareProcessorCount = 3;
constexpr int kHardwareMemorySize = 24;

/** sysctl on the hardware group and item, with the same contract as osSysctlByName. */
bool osSysctlHardware(int item, void *buffer, size_t *size);

MacVersionFacts osMacVersionFacts();

Qt::KeyboardModifiers osModifierKeys();

unsigned long osPressedMouseButtons();

#ifndef __APPLE__
/** The number of distinct (physical id, core id) pairs of a /proc/cpuinfo text; 0 when no
 *  processor in it carries both. */
int cpuInfoCoreCount(const std::string &cpuInfo);

/** The first "model name" of a /proc/cpuinfo text, its inner blanks kept; empty if none. */
std::string cpuInfoBrand(const std::string &cpuInfo);
#endif

#endif
