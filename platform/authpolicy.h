#ifndef VELD_PLATFORM_AUTHPOLICY_H
#define VELD_PLATFORM_AUTHPOLICY_H

#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <vector>

/**
 * What the privileged helper grants: the installation's own operations on the
 * installation's own places, every one a constant of the helper. A request
 * names a tool and its arguments as the installer issues them; the helper
 * carries it out itself (see privops.h), so no program runs as root.
 *
 *   /bin/mkdir -m MODE PATH     PATH in the maker's folder, or this run's destination: a folder named
 *                               "VELDV400" or "VELDV400_" + digits, as the destination chooser names it
 *   /bin/chmod MODE PATH        a folder in the maker's folder, the destination this helper made,
 *                               or (644) the launch definition this helper wrote
 *   /usr/bin/chgrp GID PATH     GID the administrators' group; a folder in the maker's folder
 *   /bin/chown UID:GID PATH     UID the calling user, GID the administrators' group; a folder below the maker's folder
 *   /bin/cp TEMP DEFINITION     TEMP the caller's own /tmp/qv_computecontrol.XXXXXX, holding the product's
 *                               launch definition naming the caller (UserName); DEFINITION the launch daemon's place
 *   HELPERFOLDER/veld-defaults write|delete SYSTEMPREFS/DOMAIN KEY [VALUE]
 *                               the installation's own preference (its domain and key) in the
 *                               system preference folder
 *
 * MODE is 755, 775 or 644, with or without a leading 0. A PATH is absolute and
 * plain: no empty, "." or ".." part and no trailing "/". The destination is
 * fixed by its first mkdir for the helper's life. What the places turn out to
 * be on disk (a folder, a link, a file with several names, the temporary
 * file's owner and content) is judged by admitFound once the operation has
 * opened them without following a link.
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

/** What the helper knows about its run. */
struct HelperRun {
    uid_t caller = uid_t(-1);        // the user the launcher started the helper for
    std::string callerName;          // that user's login name, empty when unknown
    gid_t adminGroup = gid_t(-1);    // the administrators' group, -1 when there is none
    std::string helperFolder;
    std::string destination;         // set by the first mkdir outside the maker's folder
    bool destinationMade = false;    // whether this helper made the destination's folder
    dev_t definitionDevice = 0;      // the launch definition this helper wrote, if any
    ino_t definitionInode = 0;
};

/**
 * Why the helper must not run tool with args; empty when it may, with *op
 * filled. Admitting the first mkdir outside the maker's folder fixes run's
 * destination.
 */
std::string admit(const std::string &tool, const std::vector<std::string> &args, HelperRun &run, Operation *op);

/**
 * What an admitted operation found on disk, opened without following a link:
 * the object it changes (SetMode, SetGroup, SetOwner), or the temporary file
 * and its bytes (Copy).
 */
struct Found {
    struct stat object = {};
    std::string content;
};

/** Why what op found puts it outside the installation; empty when it may go on. */
std::string admitFound(const Operation &op, const Found &found, const HelperRun &run);

/**
 * Why bytes are not the product's own launch definition for the user named
 * login, as writeLaunchDaemonAgent writes it for all users; empty when they are.
 * The property list is parsed: its label, one program argument, the user
 * (never root, never absent, never twice) and the two flags, and nothing else.
 */
std::string definitionRefusal(const std::string &bytes, const std::string &login);

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
