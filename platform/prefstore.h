#ifndef VELD_PLATFORM_PREFSTORE_H
#define VELD_PLATFORM_PREFSTORE_H

#include "authority.h"

#include <QByteArray>
#include <QString>

#include <string>

/*
 * String settings addressed by a domain (a reverse-DNS application id such as
 * "com.halvorn.QuorvanVELD") and a key, per user or for all users.
 *
 * macOS: CoreFoundation preferences, and "/usr/bin/defaults" run with rights
 * for the system-wide store. Linux: one INI file per domain (domain + ".conf")
 * in $XDG_CONFIG_HOME (default ~/.config) per user and in /etc/xdg for all
 * users (a constant: never taken from $XDG_CONFIG_DIRS); the system-wide file
 * is written with rights by the privileged helper, as veld-defaults would.
 *
 * Values cross this interface as C strings and byte strings in the Mac Roman
 * encoding: characters outside it become '?', and a value that would not fit
 * in 4096 bytes with its terminator reads as empty. Readers never fail: an
 * absent value, or one in a file that cannot be read, reads as empty.
 * User-interface thread only.
 */

/** The value stored for all users (the system-wide store only), or empty. */
QByteArray MacReadGlobalDefaultSetting(const QString &domain, const QString &key);

/** The value as the application sees it: the user's first, then the system-wide one; or empty. */
QByteArray MacReadLocalDefaultSetting(const QString &domain, const QString &key);

/** The global value when it is not empty, else the local one. */
QByteArray MacReadAnyDefaultSetting(const QString &domain, const QString &key);

/** MacReadAnyDefaultSetting on the domain "com.halvorn." + product. */
QByteArray MacReadAnyDefaultSettingCharKeys(const char *product, const char *key);

/** Sets key for the current user, or removes it when value is null or empty; true when the
 *  domain was written out. */
bool MacWriteLocalDefaultSetting(const QString &domain, const QString &key, const char *value);

/**
 * Sets key for all users with the administrator right of auth ("write"), or
 * removes it when value is null or empty ("delete"); the value's bytes reach
 * the tool unchanged. False, running nothing, when auth is null. True when
 * the tool was started, whatever it then did. Writes nothing to the log.
 */
bool MacWriteGlobalDefaultSetting(const QString &domain, const char *key, const char *value, AuthorizationRef auth);

/**
 * The log's location setting: the string under key in domain as the
 * application sees it, in UTF-8 (not Mac Roman), empty when absent or longer
 * than 4095 bytes. Never fails.
 */
std::string prefReadAppValue(const char *domain, const char *key);

/** The current user's own preference folder (Linux: $XDG_CONFIG_HOME, default ~/.config; macOS:
 *  ~/Library/Preferences), as bytes, without a trailing '/'; it may not exist yet. */
std::string userPreferencesFolder();

/** text in Mac Roman, '?' for each character outside it; empty when the bytes and their
 *  terminator would not fit in capacity. */
QByteArray macRomanFromText(const QString &text, size_t capacity);

/** The text of a Mac Roman C string; null reads as empty. */
QString textFromMacRoman(const char *bytes);

#endif
