#include "sourcepage.h"

#include "pageids.h"

SourcePage::SourcePage(QWidget *parent)
    : QWizardPage(parent)
{
    setTitle(tr("Welcome to the Quorvan Spectra and Properties Database Installer"));
}

int SourcePage::nextId() const
{
    return kPickDestPageId;
}
