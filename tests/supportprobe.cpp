// Runs support-library calls named on the command line, in order, and prints
// each result on a line of its own, so that tests can drive a fresh process
// under an executable name and a folder layout of their choosing.
#include "platform/installpath.h"
#include "platform/log.h"
#include "platform/users.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

int usage(const char *command)
{
    fprintf(stderr, "supportprobe: unknown or incomplete command '%s'\n", command);
    return 2;
}

} // namespace

int main(int argc, char **argv)
{
    void *library = nullptr;
    for (int i = 1; i < argc; ++i) {
        const std::string command = argv[i];
        const bool hasArg = i + 1 < argc;
        const bool hasTwoArgs = i + 2 < argc;
        if (command == "should") {
            printf("should=%d\n", ShouldStartMacLogging() ? 1 : 0);
        } else if (command == "open" && hasTwoArgs) {
            OpenMacLogWithBanner(argv[i + 1], argv[i + 2]);
            i += 2;
        } else if (command == "macopen" && hasArg) {
            printf("macopen=%d\n", OpenMacLog(argv[++i]) ? 1 : 0);
        } else if (command == "xaction" && hasTwoArgs) {
            OpenXactionLog(argv[i + 1], argv[i + 2]);
            i += 2;
        } else if (command == "felog") {
            printf("felog=%d\n", FELogging() ? 1 : 0);
        } else if (command == "msg" && hasArg) {
            log_msg("%s\n", argv[++i]);
        } else if (command == "cont" && hasArg) {
            log_msg_cont("%s\n", argv[++i]);
        } else if (command == "timemsg" && hasArg) {
            log_time_msg(7, "%s\n", argv[++i]);
        } else if (command == "long" && hasArg) {
            const std::string text(strtoul(argv[++i], nullptr, 10), 'x');
            log_msg("%s", text.c_str());
        } else if (command == "installpath") {
            printf("installpath=%s\n", GetInstallPath().c_str());
        } else if (command == "helppath") {
            printf("helppath=%s\n", GetHelpPath().c_str());
        } else if (command == "dyld") {
            const int result = setMacDYLDPath();
            const char *value = getenv("LD_LIBRARY_PATH");
            printf("dyld=%d env=%s\n", result, value ? value : "(unset)");
        } else if (command == "load" && hasArg) {
            library = LoadLibraryA(argv[++i]);
            printf("load=%d\n", library ? 1 : 0);
        } else if (command == "sym" && hasArg) {
            void *address = GetProcAddress(library, argv[++i]);
            if (address)
                printf("sym=%d\n", reinterpret_cast<int (*)()>(address)());
            else
                printf("sym=null\n");
        } else if (command == "gid" && hasArg) {
            printf("gid=%u\n", getGroupId(argv[++i]));
        } else if (command == "user" && hasArg) {
            printf("user=%s\n", getUserName(static_cast<uid_t>(strtoul(argv[++i], nullptr, 10))).c_str());
        } else {
            return usage(argv[i]);
        }
        fflush(stdout);
    }
    return 0;
}
