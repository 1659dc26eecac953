// Runs the authority's calls named on the command line in order, each result on a line, for tests to drive as another user.
#include "platform/authority.h"
#include "platform/log.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <unistd.h>

int main(int argc, char **argv)
{
    AuthorizationRef released = nullptr;
    for (int i = 1; i < argc; ++i) {
        const std::string command = argv[i];
        if (command == "macopen" && i + 1 < argc) {
            printf("macopen=%d\n", OpenMacLog(argv[++i]) ? 1 : 0);
        } else if (command == "auth") {
            const bool granted = createAuthority(&gMacAuthorizationRef);
            printf("\nauth=%d ref=%s\n", granted ? 1 : 0, gMacAuthorizationRef ? "set" : "null");
        } else if ((command == "run" || command == "runlog" || command == "runreleased") && i + 2 < argc
                   && atoi(argv[i + 2]) >= 0 && i + 2 + atoi(argv[i + 2]) < argc) {
            // "TOOL COUNT ARG...".
            const char *tool = argv[i + 1];
            const int count = atoi(argv[i + 2]);
            std::vector<char *> args(argv + i + 3, argv + i + 3 + count);
            args.push_back(nullptr);
            i += 2 + count;
            const bool result = command == "runlog" ? runCommandWithAuthorityToLog(gMacAuthorizationRef, tool, args.data(), FELogging())
                                : runCommandWithAuthority(command == "run" ? gMacAuthorizationRef : released, tool, args.data());
            printf("%s=%d\n", command.c_str(), result ? 1 : 0);
        } else if (command == "free") {
            released = gMacAuthorizationRef;
            const int status = freeAuthority(&gMacAuthorizationRef);
            printf("free=%d ref=%s\n", status, gMacAuthorizationRef ? "set" : "null");
        } else if (command == "limit" && i + 1 < argc) {
            setHelperStartLimit(atoi(argv[++i]));
        } else if (command == "closed") {
            // As when started with its standard input and output closed.
            close(STDIN_FILENO);
            close(STDOUT_FILENO);
        } else if (command == "wait") {
            // Holds the process, and its authority, until a line arrives on standard input.
            printf("waiting\n");
            fflush(stdout);
            char line[16];
            if (!fgets(line, sizeof line, stdin))
                return 0;
        } else {
            fprintf(stderr, "supportprobe: unknown or incomplete command '%s'\n", argv[i]);
            return 2;
        }
        fflush(stdout);
    }
    return 0;
}
