#include "pickdestpage.h"

#include "pageids.h"

PickDestPage::PickDestPage(QWidget *parent)
    : QWizardPage(parent)
{
    setTitle(tr("Select Database location"));
}

int PickDestPage::nextId() const
{
    return kConclusionPageId;
}
