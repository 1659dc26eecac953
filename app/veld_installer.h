#ifndef VELD_APP_VELD_INSTALLER_H
#define VELD_APP_VELD_INSTALLER_H

#include "pages/pageids.h"

#include <QWizard>

#include <string>

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

/** install_wizard, for support code that needs a parent window. */
QWidget *GetMainWindow();

#endif
