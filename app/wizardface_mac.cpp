#include "wizardface.h"

#include <QPixmap>
#include <QWizard>

void dressWizard(QWizard &wizard, const QPixmap &artwork)
{
    // The default style here is the Mac style, which draws this beside every page.
    wizard.setPixmap(QWizard::BackgroundPixmap, artwork);
}
