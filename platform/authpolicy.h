#ifndef VELD_PLATFORM_AUTHPOLICY_H
#define VELD_PLATFORM_AUTHPOLICY_H

#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <vector>

/**
 * What the privileged helper grants: the installation's own operations and
 * nothing else. A request names a tool and its arguments as the installer
 * issues them; the helper carries it out itself (see privops.h), so no
 * program runs as root.
 *
 *   /bin/mkdir -m MODE PATH     PATH in the maker's folder, or this run's destination
 *   /bin/chmod MODE PATH        PATH in the maker's folder, the destination, or a launch definition
 *   /usr/bin/chgrp GID PATH     GID the administrators' group; PATH in the maker's folder
 *   /bin/chown UID:GID PATH     UID the calling user, GID the administrators' group; PATH in the maker's folder
 *   /bin/cp TEMP DEFINITION     TEMP a /tmp/qv_computecontrol.XXXXXX file; DEFINITION a launch definition
 *   HELPERFOLDER/veld-defaults write|delete FOLDER/DOMAIN KEY [VALUE]
 *                               DOMAIN one of the product's ("com.halvorn.*"), KEY not empty
 *
 * MODE is 755, 775 or 644, with or without a leading 0. A PATH is absolute and
 * plain: no empty, "." or ".." part and no trailing "/". The destination is
 * the first path outside the other places that a mkdir names; it stays fixed
 * for the helper's life. Checks that need the file system (who owns the
 * preference folder and the temporary file, no symbolic links) are made where
 * the operation runs.
 */

enum class Verb { MakeFolder, SetMode, SetGroup, SetOwner, Copy, WritePreference, DeletePreference };

/** One admitted request, in the helper's own terms. */
struct Operation {
    Verb verb = Verb::SetMode;
    std::string path;     // what the operation changes
    std::string source;   // Copy: the file copied
    mode_t mode = 0;
    uid_t owner = uid_t(-1);
    gid_t group = gid_t(-1);
    std::string key, value;   // the preference's
};

/** What the helper knows about its run; destination is set by the first mkdir outside the other places. */
struct HelperRun {
    uid_t caller = uid_t(-1);        // the user the launcher started the helper for
    gid_t adminGroup = gid_t(-1);    // the administrators' group, -1 when there is none
    std::string helperFolder;
    std::string destination;
    bool destinationMade = false;    // whether this helper made the destination's folder
};

/**
 * Why the helper must not run tool with args; empty when it may, with *op
 * filled. Admitting the first mkdir outside the other places fixes run's
 * destination.
 */
std::string admit(const std::string &tool, const std::vector<std::string> &args, HelperRun &run, Operation *op);

/**
 * Whether a folder or file with status st is root's alone: owned by root and
 * writable by no one else. A folder above the last one may instead be sticky
 * (as /tmp is), which keeps root's entries in it root's.
 */
bool isRootsAlone(const struct stat &st, bool last);

/**
 * Whether path, as it resolves, and every folder above it are root's alone:
 * then no ordinary user can choose what it names.
 */
bool isRootsAlonePath(const std::string &path);

/** The calling user, from the launcher's own variables (pkexec's, then sudo's); else the real user. */
uid_t callerFromLauncher(const char *pkexecUid, const char *sudoUid, uid_t realUser);

#endif
