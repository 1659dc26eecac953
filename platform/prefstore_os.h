#ifndef VELD_PLATFORM_PREFSTORE_OS_H
#define VELD_PLATFORM_PREFSTORE_OS_H

// The system's side of the preference store: each body holds only the
// system's calls; texts, encodings and the command's shape are shared.

#include <QString>

#include <string>

enum class PrefSearch {
    AllUsers,      // the value stored for any user on the current host
    Application,   // the current user's value first, then the system-wide one
};

/** The string stored under key in domain; false when there is none. */
bool osPrefCopyValue(PrefSearch search, const QString &domain, const QString &key, QString *value);

/** Sets key (removes it when value is null) in the current user's domain and writes the
 *  domain out; true when it was written. */
bool osPrefSetAppValue(const QString &domain, const QString &key, const QString *value);

/** Refreshes this process's view of domain after another process wrote it. */
void osPrefAppSynchronize(const QString &domain);

/** The current user's own preference folder, without a trailing '/'. */
std::string osUserPreferencesFolder();

/** The folder of the system-wide preference files, with its trailing '/'. */
std::string osSystemPreferencesFolder();

/** The tool that writes and deletes system-wide preferences, run with rights. */
std::string osDefaultsTool();

#endif
