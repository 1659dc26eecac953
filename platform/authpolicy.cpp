#include "authpolicy.h"

#include "locations.h"

#include <QXmlStreamReader>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <map>

namespace {

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

bool isAlnum(char c)
{
    return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

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

std::string lastName(const std::string &path)
{
    return path.substr(path.rfind('/') + 1);
}

// "VELDV400", or "VELDV400_" and digits: the names the destination chooser gives the database's folder.
bool isDatabaseFolderName(const std::string &name)
{
    const std::string stem = kDatabaseFolderName;
    if (name == stem)
        return true;
    const size_t digits = name.size() - stem.size() - 1;
    return name.size() > stem.size() + 1 && digits <= 19 && name.compare(0, stem.size() + 1, stem + '_') == 0
           && std::all_of(name.end() - long(digits), name.end(), isDigit);
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
    if (text.empty() || text.size() > 10 || !std::all_of(text.begin(), text.end(), isDigit))
        return false;
    *id = std::strtoul(text.c_str(), nullptr, 10);
    return *id < 0xFFFFFFFFul;
}

// The temporary file that createLaunchDaemonAgent writes before it asks for the copy.
bool isOwnTemporary(const std::string &path)
{
    const std::string stem = "/tmp/qv_computecontrol.";
    return path.size() == stem.size() + 6 && path.compare(0, stem.size(), stem) == 0
           && std::all_of(path.begin() + long(stem.size()), path.end(), isAlnum);
}

// The one preference the installation records, as veld-defaults' TARGET and KEY.
bool isOwnPreference(const std::string &target, const std::string &key)
{
    return target == std::string(kSystemPreferencesFolder) + '/' + kDatabasePrefDomain && key == kDatabasePrefKey;
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

std::string admitMakeFolder(const std::vector<std::string> &a, HelperRun &run, Operation *op)
{
    op->verb = Verb::MakeFolder;
    if (a.size() != 3 || a[0] != "-m" || !parseMode(a[1], &op->mode))
        return kShape;
    const bool fixes = run.destination.empty() && !isMakers(a[2]) && isDatabaseFolderName(lastName(a[2]));
    const std::string refusal = admitPath(a[2], fixes || isMakers(a[2]) || a[2] == run.destination, op);
    if (refusal.empty() && fixes)
        run.destination = a[2];
    return refusal;
}

std::string admitOwnership(const std::string &tool, const std::vector<std::string> &a, const HelperRun &run, Operation *op)
{
    unsigned long owner = 0, group = 0;
    if (tool == "/usr/bin/chgrp") {
        op->verb = Verb::SetGroup;
        if (a.size() != 2 || !parseId(a[0], &group))
            return kShape;
        if (group != run.adminGroup)
            return "not the administrators' group";
    } else {
        op->verb = Verb::SetOwner;
        const size_t colon = a.size() == 2 ? a[0].find(':') : std::string::npos;
        if (colon == std::string::npos || !parseId(a[0].substr(0, colon), &owner) || !parseId(a[0].substr(colon + 1), &group))
            return kShape;
        if (owner != run.caller || group != run.adminGroup)
            return "not the calling user and the administrators' group";
        op->owner = uid_t(owner);
    }
    op->group = gid_t(group);
    // The maker's folder itself stays root's: only the folders made in it are given to the user.
    return admitPath(a[1], isMakers(a[1]) && (op->verb == Verb::SetGroup || a[1] != kMakersFolder), op);
}

std::string admitPreference(const std::vector<std::string> &a, Operation *op)
{
    const bool write = a.size() == 4 && a[0] == "write", remove = a.size() == 3 && a[0] == "delete";
    op->verb = write ? Verb::WritePreference : Verb::DeletePreference;
    if ((!write && !remove) || a[2].empty())
        return kShape;
    op->key = a[2];
    op->value = write ? a[3] : std::string();
    return admitPath(a[1], isOwnPreference(a[1], a[2]), op);
}

} // namespace

std::string admit(const std::string &tool, const std::vector<std::string> &a, HelperRun &run, Operation *op)
{
    if (tool == "/bin/mkdir")
        return admitMakeFolder(a, run, op);
    if (tool == "/bin/chmod") {
        op->verb = Verb::SetMode;
        if (a.size() != 2 || !parseMode(a[0], &op->mode))
            return kShape;
        const bool definition = a[1] == kLaunchDaemonDefinition && op->mode == 0644;
        return admitPath(a[1], isMakers(a[1]) || a[1] == run.destination || definition, op);
    }
    if (tool == "/usr/bin/chgrp" || tool == kChownTool)
        return admitOwnership(tool, a, run, op);
    if (tool == "/bin/cp") {
        op->verb = Verb::Copy;
        if (a.size() != 2)
            return kShape;
        if (!isOwnTemporary(a[0]))
            return "not the installer's temporary file";
        op->source = a[0];
        return admitPath(a[1], a[1] == kLaunchDaemonDefinition, op);
    }
    if (!run.helperFolder.empty() && tool == run.helperFolder + "/veld-defaults")
        return admitPreference(a, op);
    return "not a tool the installer runs";
}

std::string admitFound(const Operation &op, const Found &found, const HelperRun &run)
{
    const struct stat &st = found.object;
    switch (op.verb) {
    case Verb::Copy:
        if (!S_ISREG(st.st_mode) || st.st_uid != run.caller || st.st_nlink != 1)
            return "not the calling user's own temporary file";
        return definitionRefusal(found.content, run.callerName);
    case Verb::SetMode:
        if (op.path == run.destination && !run.destinationMade)
            return "a destination that this helper did not make";
        if (op.path == kLaunchDaemonDefinition)
            return S_ISREG(st.st_mode) && st.st_nlink == 1 && run.definitionInode != 0 && st.st_ino == run.definitionInode
                           && st.st_dev == run.definitionDevice
                       ? std::string()
                       : "not the launch definition that this helper wrote";
        [[fallthrough]];   // in the maker's folder and at the destination only folders change
    case Verb::SetGroup:
    case Verb::SetOwner:
        return S_ISDIR(st.st_mode) ? std::string() : "not a folder (a file, a link or another kind)";
    default:
        return std::string();
    }
}

namespace {

// The keys of the definition and whether each holds a string, an array of strings or a flag.
enum class Kind { String, Strings, Flag };

const std::map<QString, Kind> &definitionKeys()
{
    static const std::map<QString, Kind> keys{{"Label", Kind::String},     {"ProgramArguments", Kind::Strings},
                                              {"UserName", Kind::String},  {"RunAtLoad", Kind::Flag},
                                              {"KeepAlive", Kind::Flag}};
    return keys;
}

// The next element's start or end, past blanks; false at anything else (text, a comment, an instruction).
bool nextTag(QXmlStreamReader &xml)
{
    for (;;) {
        xml.readNext();
        if (xml.isCharacters() && xml.isWhitespace())
            continue;
        return xml.isStartElement() || xml.isEndElement();
    }
}

bool isStart(QXmlStreamReader &xml, const char *name)
{
    return nextTag(xml) && xml.isStartElement() && xml.name() == QLatin1String(name);
}

// A <string> element's text, read whole; false when it holds anything but text.
bool readString(QXmlStreamReader &xml, QString *text)
{
    if (!xml.isStartElement() || xml.name() != QLatin1String("string") || !xml.attributes().isEmpty())
        return false;
    *text = xml.readElementText(QXmlStreamReader::ErrorOnUnexpectedElement);
    return !xml.hasError();
}

// One value of kind, read whole into values (a flag as "true" or "false").
bool readValue(QXmlStreamReader &xml, Kind kind, QStringList *values)
{
    if (!nextTag(xml) || !xml.isStartElement() || !xml.attributes().isEmpty())
        return false;
    QString text;
    switch (kind) {
    case Kind::String:
        return readString(xml, &text) && (values->append(text), true);
    case Kind::Flag:
        values->append(xml.name().toString());
        return (xml.name() == QLatin1String("true") || xml.name() == QLatin1String("false")) && nextTag(xml) && xml.isEndElement();
    case Kind::Strings:
        if (xml.name() != QLatin1String("array"))
            return false;
        while (nextTag(xml) && xml.isStartElement()) {
            if (!readString(xml, &text))
                return false;
            values->append(text);
        }
        return xml.isEndElement() && xml.name() == QLatin1String("array");
    }
    return false;
}

// The keys of the property list's one dictionary and their values; false when it is anything else.
bool readDefinition(QXmlStreamReader &xml, std::map<QString, QStringList> *entries)
{
    xml.readNext();
    if (!xml.isStartDocument())
        return false;
    while (!xml.atEnd()) {
        xml.readNext();
        if (xml.isDTD()) {
            // No declarations of its own: nothing in the file is expanded into something else.
            if (!xml.entityDeclarations().isEmpty() || !xml.notationDeclarations().isEmpty() || xml.dtdName() != QLatin1String("plist"))
                return false;
        } else if (xml.isStartElement()) {
            break;
        } else if (!(xml.isCharacters() && xml.isWhitespace())) {
            return false;
        }
    }
    const QXmlStreamAttributes version = xml.attributes();
    if (xml.name() != QLatin1String("plist") || version.size() != 1 || version.value("version") != QLatin1String("1.0")
        || !isStart(xml, "dict"))
        return false;
    QString key;
    while (nextTag(xml) && xml.isStartElement() && xml.name() == QLatin1String("key") && xml.attributes().isEmpty()) {
        key = xml.readElementText(QXmlStreamReader::ErrorOnUnexpectedElement);
        const auto kind = definitionKeys().find(key);
        if (xml.hasError() || kind == definitionKeys().end() || entries->count(key) || !readValue(xml, kind->second, &(*entries)[key]))
            return false;
    }
    if (!xml.isEndElement() || xml.name() != QLatin1String("dict") || !nextTag(xml) || !xml.isEndElement())
        return false;
    // Nothing but blanks after the end.
    while (!xml.atEnd()) {
        xml.readNext();
        if (!xml.isEndDocument() && !(xml.isCharacters() && xml.isWhitespace()))
            return false;
    }
    return !xml.hasError();
}

} // namespace

std::string definitionRefusal(const std::string &bytes, const std::string &login)
{
    QXmlStreamReader xml(QByteArray::fromStdString(bytes));
    std::map<QString, QStringList> entries;
    if (!readDefinition(xml, &entries))
        return "not a property list in the launch definition's form";
    if (entries.size() != definitionKeys().size())
        return "a launch definition without all of its entries";
    if (entries["Label"] != QStringList{QString::fromLatin1(kServiceLabel)})
        return "not the product's service label";
    const QStringList program = entries["ProgramArguments"];
    if (program.size() != 1 || !program.first().endsWith(QLatin1String("/qv_computeservice")))
        return "not the service's one program";
    if (login.empty() || login == "root" || entries["UserName"] != QStringList{QString::fromStdString(login)})
        return "not a definition that runs as the calling user";
    return std::string();
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
