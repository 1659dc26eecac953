#ifndef VELD_APP_WIZARDFACE_H
#define VELD_APP_WIZARDFACE_H

class QPixmap;
class QWizard;

/**
 * Gives the wizard its face on this system: style, artwork and window size.
 * macOS: the system's own style, with the artwork behind every page.
 * Linux: see wizardface_linux.cpp.
 */
void dressWizard(QWizard &wizard, const QPixmap &artwork);

#endif
