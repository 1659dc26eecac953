#include "pickdestpage.h"

#include "app/veld_installer.h"

PickDestPage::PickDestPage(QWidget *parent)
    : QWizardPage(parent)
{
    setTitle(tr("Select Database location"));
}

int PickDestPage::nextId() const
{
    return kConclusionPageId;
}
