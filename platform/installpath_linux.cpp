#include "installpath.h"

#include "executable.h"

std::string GetInstallPath()
{
    const std::string exe = currentExecutablePath();
    const std::string::size_type slash = exe.rfind('/');
    if (slash == std::string::npos)
        return std::string();
    std::string folder = exe.substr(0, slash);

    static const std::string kBundleExecutableFolder = "/Contents/MacOS";
    if (folder.size() >= kBundleExecutableFolder.size()
        && folder.compare(folder.size() - kBundleExecutableFolder.size(), std::string::npos, kBundleExecutableFolder) == 0)
        folder.resize(folder.size() - kBundleExecutableFolder.size());
    return folder;
}
