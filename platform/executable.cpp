#include "executable.h"

#include "executable_os.h"

namespace {

const size_t kPathBytes = 4096;

} // namespace

std::string currentExecutablePath()
{
    char buffer[kPathBytes];
    const long length = osExecutablePath(buffer, sizeof buffer);
    // A result that fills the buffer may have been cut: report failure rather than a wrong path.
    if (length < 1 || size_t(length) >= sizeof buffer)
        return std::string();
    return std::string(buffer, size_t(length));
}
