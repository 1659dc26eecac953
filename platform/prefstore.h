#ifndef VELD_PLATFORM_PREFSTORE_H
#define VELD_PLATFORM_PREFSTORE_H

#include <string>

/**
 * The string stored under key in the preference domain, as the application
 * sees it: the current user's value first, then the system-wide one.
 *
 * macOS: CFPreferencesCopyAppValue. Linux: the INI file named after the
 * domain with ".conf" appended, in $XDG_CONFIG_HOME (default ~/.config),
 * then in the first folder of $XDG_CONFIG_DIRS (default /etc/xdg).
 *
 * Returns the value in UTF-8. An absent value, one that is not a string and
 * one longer than 4095 bytes in UTF-8 read as empty. Never fails.
 */
std::string prefReadAppValue(const char *domain, const char *key);

#endif
