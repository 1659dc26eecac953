#ifndef VELD_APP_VELD_INSTALLER_H
#define VELD_APP_VELD_INSTALLER_H

#include <QWizard>

#include <cstdint>
#include <string>

/** Page ids. They are not in display order (1, 0, 2, 3); other code addresses the source page as 0. */
enum VeldPageId {
    kSourcePageId = 0,
    kEulaPageId = 1,
    kPickDestPageId = 2,
    kConclusionPageId = 3,
};

/** The installer's wizard: the four pages, the title, the artwork; it opens the log. */
class VELD_Installer : public QWizard
{
    Q_OBJECT

public:
    explicit VELD_Installer(QWidget *parent = nullptr);

    /** An empty title restores the default welcome title. */
    void SetWindowTitle(std::string title);
};

/** The one wizard of the process, set by main; null before. */
extern VELD_Installer *install_wizard;

/** Id of the administrators' group, or 0xFFFFFFFF when there is none; set by the wizard's constructor. */
extern uint32_t gAdminGid;

/** install_wizard, for support code that needs a parent window. */
QWidget *GetMainWindow();

#endif
