// Runs support-library calls named on the command line, in order, and prints
// each result on a line of its own, so that tests can drive a fresh process
// under an executable name and a folder layout of their choosing.
#include "platform/authority.h"
#include "platform/log.h"
#include "platform/sysinfo.h"
#include "service/launchdaemon.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

int usage(const char *command)
{
    fprintf(stderr, "supportprobe: unknown or incomplete command '%s'\n", command);
    return 2;
}

// The tool and its arguments at argv[i + 1]: "TOOL COUNT ARG...". Advances i past them.
bool toolCommand(int argc, char **argv, int &i, const char **tool, std::vector<char *> *args)
{
    if (i + 2 >= argc)
        return false;
    *tool = argv[i + 1];
    const int count = atoi(argv[i + 2]);
    if (count < 0 || i + 2 + count >= argc)
        return false;
    args->assign(argv + i + 3, argv + i + 3 + count);
    args->push_back(nullptr);
    i += 2 + count;
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    AuthorizationRef released = nullptr;
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
        } else if (command == "auth") {
            const bool granted = createAuthority(&gMacAuthorizationRef);
            printf("\nauth=%d ref=%s\n", granted ? 1 : 0, gMacAuthorizationRef ? "set" : "null");
        } else if (command == "run" || command == "runlog" || command == "runreleased") {
            const char *tool = nullptr;
            std::vector<char *> args;
            if (!toolCommand(argc, argv, i, &tool, &args))
                return usage(command.c_str());
            bool result;
            if (command == "runlog")
                result = runCommandWithAuthorityToLog(gMacAuthorizationRef, tool, args.data(), FELogging());
            else
                result = runCommandWithAuthority(command == "run" ? gMacAuthorizationRef : released, tool, args.data());
            printf("%s=%d\n", command.c_str(), result ? 1 : 0);
        } else if (command == "free") {
            released = gMacAuthorizationRef;
            const int status = freeAuthority(&gMacAuthorizationRef);
            printf("free=%d ref=%s\n", status, gMacAuthorizationRef ? "set" : "null");
        } else if (command == "launchd" && i + 3 < argc) {
            printf("launchd=%d\n", createLaunchDaemonAgent(argv[i + 1], atoi(argv[i + 2]) != 0, atoi(argv[i + 3]) != 0));
            i += 3;
        } else if (command == "machine") {
            // The machine queries in a process without any application object.
            uint32_t value = 0;
            printf("null=%x,%x,%x\n", hn_ram(nullptr, true), hn_cpu_logical_count(nullptr, true),
                   hn_cpu_count(nullptr, true));
            fflush(stdout);
            hn_ram(&value, true);
            hn_cpu_logical_count(&value, true);
            hn_cpu_count(&value, true);
            printf("modifiers=%d buttons=%lu version=%d\n", int(MacGetModifierKeys()), MacMouseButtons(),
                   MacOSVersion());
        } else if (command == "exitnow") {
            // Ends without flushing or closing any stream.
            _exit(0);
        } else if (command == "wait") {
            // Holds the process (and its authority) until a line arrives on standard input.
            printf("waiting pid=%d\n", int(getpid()));
            fflush(stdout);
            char line[16];
            if (!fgets(line, sizeof line, stdin))
                return 0;
        } else {
            return usage(argv[i]);
        }
        fflush(stdout);
    }
    return 0;
}
