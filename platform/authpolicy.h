#ifndef VELD_PLATFORM_AUTHPOLICY_H
#define VELD_PLATFORM_AUTHPOLICY_H

#include <string>
#include <vector>

/**
 * Why the privileged helper must not run tool with args; empty when it may.
 * Only the tools the installer runs, each with the argument shapes it uses:
 *   /bin/mkdir -m MODE PATH, /bin/chmod MODE PATH, /usr/bin/chgrp GID PATH,
 *   /bin/chown UID:GID PATH, /bin/cp PATH PATH,
 *   HELPERFOLDER/veld-defaults write PATH KEY VALUE | delete PATH KEY
 * MODE is three or four octal digits, ids are decimal, a PATH is absolute and
 * has no ".." part, a KEY is not empty. Anything else in an argument (blanks,
 * ";", "$(...)", newlines) is plain text to the tool: no shell ever sees it.
 */
std::string refusalReason(const std::string &tool, const std::vector<std::string> &args,
                          const std::string &helperFolder);

#endif
