// veld-defaults: writes and deletes system-wide preferences on Linux, for an
// administrator by hand. The installer's requests name it, and its privileged
// helper carries them out with the same code itself, so that nothing in the
// bundle's folder runs as root. It takes the words of the macOS "defaults"
// tool for the two forms the installer uses:
//   veld-defaults write TARGET KEY VALUE
//   veld-defaults delete TARGET KEY
// TARGET is the preference folder + "/" + the domain; the file is TARGET + ".conf".
#include "platform/preffile.h"

#include <QString>

#include <cstdio>
#include <cstring>
#include <string>
#include <sys/stat.h>

namespace {

int usage()
{
    fputs("usage: veld-defaults write TARGET KEY VALUE\n"
          "       veld-defaults delete TARGET KEY\n",
          stderr);
    return 2;
}

int refuse(const std::string &why)
{
    fprintf(stderr, "veld-defaults: %s\n", why.c_str());
    return 2;
}

bool isUtf8(const char *text)
{
    return QString::fromUtf8(text).toUtf8() == QByteArray(text);
}

} // namespace

int main(int argc, char **argv)
{
    const bool write = argc == 5 && strcmp(argv[1], "write") == 0;
    const bool remove = argc == 4 && strcmp(argv[1], "delete") == 0;
    if (!write && !remove)
        return usage();
    const char *target = argv[2];
    const char *key = argv[3];
    if (target[0] != '/')
        return refuse(std::string("the target must be an absolute path: ") + target);
    if (!*key)
        return refuse("the key is empty");
    if (!isUtf8(key))
        return refuse("the key is not UTF-8 text");
    if (write && !isUtf8(argv[4]))
        return refuse("the value is not UTF-8 text");

    umask(022);
    const QString value = write ? QString::fromUtf8(argv[4]) : QString();
    const std::string error = prefFileWrite(std::string(target) + ".conf", QString::fromUtf8(key), write ? &value : nullptr);
    if (!error.empty()) {
        fprintf(stderr, "veld-defaults: %s\n", error.c_str());
        return 1;
    }
    return 0;
}
