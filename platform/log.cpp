#include "log.h"

#include "executable.h"
#include "prefstore.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <pwd.h>
#include <string>
#include <unistd.h>

const char *const kLogPreferenceDomain = "com.halvorn.Quorvan";

namespace {

const size_t kMessageSize = 8192;
const size_t kDateSize = 64;

FILE *logfp = nullptr;
// Holds any program name of up to 255 bytes; longer names are cut.
char sLogBanner[256] = "";
int sPID = 0;

void setBanner(const char *banner)
{
    strncpy(sLogBanner, banner, sizeof(sLogBanner) - 1);
    sLogBanner[sizeof(sLogBanner) - 1] = '\0';
}

void vlogPrefixed(const char *format, va_list args)
{
    char message[kMessageSize];
    vsnprintf(message, sizeof(message), format, args);
    char date[kDateSize];
    log_datestr(date);
    if (logfp) {
        fprintf(logfp, "[%s %d]%s: %s", sLogBanner, sPID, date, message);
        fflush(logfp);
    }
}

} // namespace

bool ShouldStartMacLogging()
{
    if (logfp)
        return true;
    sPID = static_cast<int>(getpid());

    const std::string exe = currentExecutablePath();
    if (exe.empty())
        return false;
    const std::string::size_type slash = exe.rfind('/');
    if (slash == std::string::npos)
        return false;

    // The banner and the preference key are the file name without blanks and apostrophes.
    std::string name = exe.substr(slash + 1);
    name.erase(std::remove_if(name.begin(), name.end(), [](char c) { return c == ' ' || c == '\''; }), name.end());
    setBanner(name.c_str());

    const std::string key = name + "_LogLocation";
    const std::string location = prefReadAppValue(kLogPreferenceDomain, key.c_str());
    if (location.empty())
        return false;
    OpenMacLogWithBanner(location.c_str(), name.c_str());
    return true;
}

void OpenMacLogWithBanner(const char *path, const char *banner)
{
    if (!path || !*path || !banner || !*banner || logfp)
        return;
    setBanner(banner);
    logfp = fopen(path, "a+e");   // "e": no child (cp, mv, df, the helper) inherits the log
    sPID = static_cast<int>(getpid());
    if (!logfp)
        return;

    fprintf(logfp, "---%s[%d] started---\n", banner, sPID);
    const passwd *pw = getpwuid(geteuid());
    if (pw)
        fprintf(logfp, "Effective UID is %s \"%s\"(%u)\n", pw->pw_name, pw->pw_gecos ? pw->pw_gecos : "",
                static_cast<unsigned>(pw->pw_uid));
    else
        fprintf(logfp, "ERROR getting user information\n");
    endpwent();
    fflush(logfp);
}

FILE *OpenMacLog(const char *path)
{
    logfp = fopen(path, "a+e");
    return logfp;
}

void OpenXactionLog(const char *key, const char *banner)
{
    sLogBanner[0] = '\0';
    const std::string location = prefReadAppValue(kLogPreferenceDomain, key);
    OpenMacLogWithBanner(location.c_str(), banner);
}

FILE *FELogging()
{
    return logfp;
}

void log_msg(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    vlogPrefixed(format, args);
    va_end(args);
}

void logFailure(const char *format, ...)
{
    char text[kMessageSize];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    fputs(text, stderr);
    fflush(stderr);
    log_msg("%s", text);
}

void log_time_msg(int, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    vlogPrefixed(format, args);
    va_end(args);
}

void log_msg_cont(const char *format, ...)
{
    char message[kMessageSize];
    va_list args;
    va_start(args, format);
    vsnprintf(message, sizeof(message), format, args);
    va_end(args);
    if (logfp) {
        fputs(message, logfp);
        fflush(logfp);
    }
}

void log_datestr(char *buffer)
{
    const time_t now = time(nullptr);
    tm local;
    localtime_r(&now, &local);
    asctime_r(&local, buffer);
    // Cut at the last line break; a text without one is left whole.
    for (char *p = buffer + strlen(buffer); p > buffer; --p) {
        if (*p == '\n' || *p == '\r') {
            *p = '\0';
            break;
        }
    }
}

void MDAC_log_datestr(char *buffer)
{
    log_datestr(buffer);
}

char *fileNameFromDateStamp(char *stamp)
{
    char *p = stamp;
    for (; *p; ++p) {
        if (*p == '\n' || *p == '\r') {
            *p = '\0';
            break;
        }
        if (*p == ' ' || *p == ':')
            *p = '_';
    }
    return p;
}

char *datestr_file(char *buffer)
{
    const time_t now = time(nullptr);
    tm local;
    localtime_r(&now, &local);
    asctime_r(&local, buffer);
    return fileNameFromDateStamp(buffer);
}
