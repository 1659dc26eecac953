#include "veld_installer.h"
#include "wizardface.h"

#include "pages/conclusionpage.h"
#include "pages/eulapage.h"
#include "pages/pickdestpage.h"
#include "pages/sourcepage.h"
#include "platform/log.h"
#include "platform/privileges.h"
#include "platform/texts.h"
#include "platform/users.h"

#include <QPixmap>

VELD_Installer *install_wizard = nullptr;

namespace {

QString defaultTitle()
{
    return VELD_Installer::tr(kWelcomeTitle);
}

} // namespace

VELD_Installer::VELD_Installer(QWidget *parent)
    : QWizard(parent)
{
    // First, so that everything built below can already write to the log.
    ShouldStartMacLogging();
    gAdminGid = getGroupId(adminGroupName());

    dressWizard(*this, QPixmap(QStringLiteral(":/images/VELD_DVD_Artwork.png")));

    // The source page starts looking for the database as it is built, so the
    // first scan runs while the agreement is being read.
    setPage(kEulaPageId, new EulaPage);
    setPage(kSourcePageId, new SourcePage);
    setPage(kPickDestPageId, new PickDestPage);
    auto *conclusion = new ConclusionPage;
    setPage(kConclusionPageId, conclusion);
    // A move that an earlier run left unfinished is completed before anything else.
    setStartId(conclusion->takeInterruptedMove() ? kConclusionPageId : kEulaPageId);

    setWindowTitle(defaultTitle());
}

void VELD_Installer::SetWindowTitle(std::string title)
{
    setWindowTitle(title.empty() ? defaultTitle() : QString::fromStdString(title));
}

QWidget *GetMainWindow()
{
    return install_wizard;
}
