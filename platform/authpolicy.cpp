#include "authpolicy.h"

#include "locations.h"

#include <algorithm>
#include <climits>
#include <cstdlib>

namespace {

bool isPlainPath(const std::string &path)
{
    if (path.size() < 2 || path.size() >= PATH_MAX || path[0] != '/' || path.back() == '/')
        return false;
    for (size_t start = 1; start <= path.size();) {
        const size_t end = std::min(path.find('/', start), path.size());
        const std::string part = path.substr(start, end - start);
        if (part.empty() || part == "." || part == "..")
            return false;
        start = end + 1;
    }
    return true;
}

bool isBelowOrAt(const std::string &path, const std::string &folder)
{
    return path == folder || path.compare(0, folder.size() + 1, folder + '/') == 0;
}

bool isMakers(const std::string &path)
{
    return isBelowOrAt(path, kMakersFolder);
}

bool isLaunchDefinition(const std::string &path)
{
    return path == kLaunchDaemonDefinition || path == kLaunchAgentDefinition;
}

bool parseMode(const std::string &text, mode_t *mode)
{
    const std::string digits = text.size() == 4 && text[0] == '0' ? text.substr(1) : text;
    if (digits != "755" && digits != "775" && digits != "644")
        return false;
    *mode = mode_t(std::strtoul(digits.c_str(), nullptr, 8));
    return true;
}

bool parseId(const std::string &text, unsigned long *id)
{
    if (text.empty() || text.size() > 10 || !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }))
        return false;
    *id = std::strtoul(text.c_str(), nullptr, 10);
    return *id < 0xFFFFFFFFul;
}

bool isAlnum(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// The temporary file that createLaunchDaemonAgent writes before it asks for the copy.
bool isOwnTemporary(const std::string &path)
{
    const std::string stem = "/tmp/qv_computecontrol.";
    return path.size() == stem.size() + 6 && path.compare(0, stem.size(), stem) == 0
           && std::all_of(path.begin() + long(stem.size()), path.end(), isAlnum);
}

bool isProductDomain(const std::string &name)
{
    const std::string prefix = "com.halvorn.";
    return name.size() > prefix.size() && name.compare(0, prefix.size(), prefix) == 0
           && std::all_of(name.begin(), name.end(), [](char c) { return isAlnum(c) || c == '.' || c == '_' || c == '-'; });
}

const char kShape[] = "not a form of arguments the installer uses";
const char kPlace[] = "not a place this installation changes";

std::string admitPath(const std::string &path, bool inPlace, Operation *op)
{
    if (!isPlainPath(path))
        return kShape;
    if (!inPlace)
        return kPlace;
    op->path = path;
    return std::string();
}

} // namespace

std::string admit(const std::string &tool, const std::vector<std::string> &a, HelperRun &run, Operation *op)
{
    const size_t n = a.size();
    unsigned long owner = 0, group = 0;
    if (tool == "/bin/mkdir") {
        op->verb = Verb::MakeFolder;
        if (n != 3 || a[0] != "-m" || !parseMode(a[1], &op->mode))
            return kShape;
        const bool fixes = run.destination.empty() && isPlainPath(a[2]) && !isMakers(a[2]) && !isLaunchDefinition(a[2]);
        const std::string refusal = admitPath(a[2], fixes || isMakers(a[2]) || a[2] == run.destination, op);
        if (refusal.empty() && fixes)
            run.destination = a[2];
        return refusal;
    }
    if (tool == "/bin/chmod") {
        op->verb = Verb::SetMode;
        if (n != 2 || !parseMode(a[0], &op->mode))
            return kShape;
        return admitPath(a[1], isMakers(a[1]) || a[1] == run.destination || isLaunchDefinition(a[1]), op);
    }
    if (tool == "/usr/bin/chgrp") {
        op->verb = Verb::SetGroup;
        if (n != 2 || !parseId(a[0], &group))
            return kShape;
        if (group != run.adminGroup)
            return "not the administrators' group";
        op->group = gid_t(group);
        return admitPath(a[1], isMakers(a[1]), op);
    }
    if (tool == "/bin/chown") {
        op->verb = Verb::SetOwner;
        const size_t colon = n == 2 ? a[0].find(':') : std::string::npos;
        if (colon == std::string::npos || !parseId(a[0].substr(0, colon), &owner) || !parseId(a[0].substr(colon + 1), &group))
            return kShape;
        if (owner != run.caller || group != run.adminGroup)
            return "not the calling user and the administrators' group";
        op->owner = uid_t(owner);
        op->group = gid_t(group);
        return admitPath(a[1], isMakers(a[1]), op);
    }
    if (tool == "/bin/cp") {
        op->verb = Verb::Copy;
        if (n != 2)
            return kShape;
        if (!isOwnTemporary(a[0]))
            return "not the installer's temporary file";
        op->source = a[0];
        return admitPath(a[1], isLaunchDefinition(a[1]), op);
    }
    if (!run.helperFolder.empty() && tool == run.helperFolder + "/veld-defaults") {
        const bool write = n == 4 && a[0] == "write", remove = n == 3 && a[0] == "delete";
        op->verb = write ? Verb::WritePreference : Verb::DeletePreference;
        if ((!write && !remove) || a[2].empty())
            return kShape;
        op->key = a[2];
        op->value = write ? a[3] : std::string();
        return admitPath(a[1], isProductDomain(a[1].substr(a[1].rfind('/') + 1)), op);
    }
    return "not a tool the installer runs";
}

bool isRootsAlone(const struct stat &st, bool last)
{
    return st.st_uid == 0 && ((st.st_mode & 022) == 0 || (!last && S_ISDIR(st.st_mode) && (st.st_mode & S_ISVTX)));
}

bool isRootsAlonePath(const std::string &path)
{
    char resolved[PATH_MAX];
    if (path.empty() || path[0] != '/' || !::realpath(path.c_str(), resolved))
        return false;
    std::string at = resolved;
    for (bool last = true;; last = false) {
        struct stat st;
        if (::stat(at.c_str(), &st) != 0 || !isRootsAlone(st, last))
            return false;
        if (at == "/")
            return true;
        const size_t slash = at.rfind('/');
        at = slash == 0 ? std::string("/") : at.substr(0, slash);
    }
}

uid_t callerFromLauncher(const char *pkexecUid, const char *sudoUid, uid_t realUser)
{
    for (const char *given : {pkexecUid, sudoUid}) {
        unsigned long id = 0;
        if (given && parseId(given, &id))
            return uid_t(id);
    }
    return realUser;
}
