#ifndef VELD_PLATFORM_MESSAGEBOX_H
#define VELD_PLATFORM_MESSAGEBOX_H

#include <QString>

class QMessageBox;

/**
 * text as a message box shows it: every word longer than a line's worth (a path, mostly) may break after each
 * "/" and every 24 characters (a zero-width space marks the place), and one longer than 240 characters is cut in
 * its middle ("…"). Shorter words are left alone, so an ordinary text comes back unchanged. *changed (may be null)
 * tells whether anything was added or cut.
 */
QString wrappableText(const QString &text, bool *changed = nullptr);

/**
 * Gives box the installer's icon and title and text as wrappableText shows it, so that the box stays within
 * the wizard's width however long a path it names. Where the text had to be changed, the whole text, as it was,
 * is also in the box's details area (to read or copy) and in the log. Hides gSplashScreen.
 */
void prepareMessageBox(QMessageBox &box, const QString &text);

#endif
