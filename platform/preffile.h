#ifndef VELD_PLATFORM_PREFFILE_H
#define VELD_PLATFORM_PREFFILE_H

// Linux: one preference domain is one INI file in the toolkit's format, with
// its keys in the general section. Shared by the installer's preference store
// and veld-defaults, which writes the system-wide files as root.

#include <QString>

#include <string>

/**
 * Looks key up in the INI file at path. False when the file does not hold
 * it, or is missing, unreadable, not a regular file or not in INI form.
 */
bool prefFileRead(const QString &path, const QString &key, QString *value);

/**
 * Sets key to *value, or removes it when value is null, in the INI file at
 * path (any bytes but those of its folder's name, which must be UTF-8). The
 * file's other keys are kept. The file is replaced atomically by one of mode
 * 0644: a reader sees the old file or the new one, never a part, and a
 * failure at any point leaves the old file as it was. Removing a key from a
 * missing file creates none. Returns an empty string on success, else why it
 * failed (the file then untouched). The folder must exist.
 */
std::string prefFileWrite(const std::string &path, const QString &key, const QString *value);

/** Copies everything from one descriptor to the other until the first ends; false when a read or write failed. */
bool copyAll(int from, int to);

#endif
