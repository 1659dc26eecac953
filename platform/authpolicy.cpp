#include "authpolicy.h"

#include <algorithm>

namespace {

bool allOf(const std::string &text, int (*accept)(int))
{
    return std::all_of(text.begin(), text.end(), [accept](char c) { return accept(static_cast<unsigned char>(c)); });
}

int isOctal(int c)
{
    return c >= '0' && c <= '7';
}

int isDecimal(int c)
{
    return c >= '0' && c <= '9';
}

bool hasParentPart(const std::string &path)
{
    for (size_t start = 0; start <= path.size();) {
        size_t end = path.find('/', start);
        if (end == std::string::npos)
            end = path.size();
        if (path.compare(start, end - start, "..") == 0)
            return true;
        start = end + 1;
    }
    return false;
}

bool isPath(const std::string &text)
{
    return !text.empty() && text[0] == '/' && !hasParentPart(text);
}

bool isMode(const std::string &text)
{
    return (text.size() == 3 || text.size() == 4) && allOf(text, isOctal);
}

bool isId(const std::string &text)
{
    return !text.empty() && text.size() <= 10 && allOf(text, isDecimal);
}

bool isIdPair(const std::string &text)
{
    const size_t colon = text.find(':');
    return colon != std::string::npos && isId(text.substr(0, colon)) && isId(text.substr(colon + 1));
}

bool shapeFits(const std::string &tool, const std::vector<std::string> &a, const std::string &defaultsTool)
{
    const size_t n = a.size();
    if (tool == "/bin/mkdir")
        return n == 3 && a[0] == "-m" && isMode(a[1]) && isPath(a[2]);
    if (tool == "/bin/chmod")
        return n == 2 && isMode(a[0]) && isPath(a[1]);
    if (tool == "/usr/bin/chgrp")
        return n == 2 && isId(a[0]) && isPath(a[1]);
    if (tool == "/bin/chown")
        return n == 2 && isIdPair(a[0]) && isPath(a[1]);
    if (tool == "/bin/cp")
        return n == 2 && isPath(a[0]) && isPath(a[1]);
    if (tool == defaultsTool)
        return (n == 4 && a[0] == "write" && isPath(a[1]) && !a[2].empty())
               || (n == 3 && a[0] == "delete" && isPath(a[1]) && !a[2].empty());
    return false;
}

} // namespace

std::string refusalReason(const std::string &tool, const std::vector<std::string> &args,
                          const std::string &helperFolder)
{
    if (tool.empty() || tool[0] != '/')
        return "the tool's path is not absolute";
    if (hasParentPart(tool))
        return "the tool's path contains \"..\"";
    const std::string defaultsTool = helperFolder + "/veld-defaults";
    const char *const tools[] = {"/bin/mkdir", "/bin/chmod", "/usr/bin/chgrp", "/bin/chown", "/bin/cp"};
    if (std::find(std::begin(tools), std::end(tools), tool) == std::end(tools) && tool != defaultsTool)
        return "not a tool the installer runs";
    if (!shapeFits(tool, args, defaultsTool))
        return "not a form of arguments the installer uses";
    return std::string();
}
