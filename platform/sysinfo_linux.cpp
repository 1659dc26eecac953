#include "sysinfo_os.h"

#include <QGuiApplication>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <unistd.h>
#include <utility>

namespace {

const char kCpuInfoPath[] = "/proc/cpuinfo";
const char kProductNamePath[] = "/sys/devices/virtual/dmi/id/product_name";

bool readFile(const char *path, std::string *text)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        return false;
    std::ostringstream content;
    content << file.rdbuf();
    *text = content.str();
    return true;
}

// "key<tabs and blanks>: value" lines of one processor's block.
bool splitField(const std::string &line, std::string *key, std::string *value)
{
    const size_t colon = line.find(':');
    if (colon == std::string::npos)
        return false;
    size_t keyEnd = colon;
    while (keyEnd > 0 && (line[keyEnd - 1] == ' ' || line[keyEnd - 1] == '\t'))
        --keyEnd;
    *key = line.substr(0, keyEnd);
    *value = line.substr(colon + 1);
    if (!value->empty() && value->front() == ' ')
        value->erase(0, 1);
    return true;
}

bool copyValue(const void *value, size_t width, void *buffer, size_t *size)
{
    if (!buffer || !size || width > *size)
        return false;
    memcpy(buffer, value, width);
    *size = width;
    return true;
}

bool copyCount(long count, void *buffer, size_t *size)
{
    if (count <= 0)
        return false;
    const int32_t value = int32_t(count);
    return copyValue(&value, sizeof value, buffer, size);
}

bool copyText(const std::string &text, void *buffer, size_t *size)
{
    return !text.empty() && copyValue(text.c_str(), text.size() + 1, buffer, size);
}

} // namespace

int cpuInfoCoreCount(const std::string &cpuInfo)
{
    std::set<std::pair<std::string, std::string>> cores;
    std::string physical, core, line, key, value;
    std::istringstream lines(cpuInfo);
    bool more = true;
    while (more) {
        more = bool(std::getline(lines, line));
        if (!more || line.empty()) {
            if (!physical.empty() && !core.empty())
                cores.emplace(physical, core);
            physical.clear();
            core.clear();
        } else if (splitField(line, &key, &value)) {
            if (key == "physical id")
                physical = value;
            else if (key == "core id")
                core = value;
        }
    }
    return int(cores.size());
}

std::string cpuInfoBrand(const std::string &cpuInfo)
{
    std::string line, key, value;
    std::istringstream lines(cpuInfo);
    while (std::getline(lines, line)) {
        if (splitField(line, &key, &value) && key == "model name")
            return value;
    }
    return std::string();
}

bool osSysctlByName(const char *name, void *buffer, size_t *size)
{
    const std::string setting = name ? name : "";
    if (setting == "hw.memsize") {
        const long pages = sysconf(_SC_PHYS_PAGES);
        const long pageSize = sysconf(_SC_PAGESIZE);
        if (pages <= 0 || pageSize <= 0)
            return false;
        const uint64_t bytes = uint64_t(pages) * uint64_t(pageSize);
        return copyValue(&bytes, sizeof bytes, buffer, size);
    }
    if (setting == "hw.ncpu")
        return copyCount(sysconf(_SC_NPROCESSORS_CONF), buffer, size);
    if (setting == "hw.logicalcpu")
        return copyCount(sysconf(_SC_NPROCESSORS_ONLN), buffer, size);
    std::string text;
    if (setting == "hw.physicalcpu")
        return readFile(kCpuInfoPath, &text) && copyCount(cpuInfoCoreCount(text), buffer, size);
    if (setting == "machdep.cpu.brand_string")
        return readFile(kCpuInfoPath, &text) && copyText(cpuInfoBrand(text), buffer, size);
    if (setting == "hw.model") {
        if (!readFile(kProductNamePath, &text))
            return false;
        while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
            text.pop_back();
        return copyText(text, buffer, size);
    }
    return false;
}

bool osSysctlHardware(int item, void *buffer, size_t *size)
{
    switch (item) {
    case kHardwareProcessorCount: return osSysctlByName("hw.ncpu", buffer, size);
    case kHardwareMemorySize: return osSysctlByName("hw.memsize", buffer, size);
    default: return false;
    }
}

MacVersionFacts osMacVersionFacts()
{
    return MacVersionFacts();
}

Qt::KeyboardModifiers osModifierKeys()
{
    // The toolkit asks its platform plugin, which exists only inside a GUI application.
    return qGuiApp ? QGuiApplication::queryKeyboardModifiers() : Qt::KeyboardModifiers();
}

unsigned long osPressedMouseButtons()
{
    // The toolkit's button bits sit where macOS puts the same buttons' numbers.
    return qGuiApp ? (unsigned long)(QGuiApplication::mouseButtons()) : 0ul;
}
