#include "conclusionpage.h"

ConclusionPage::ConclusionPage(QWidget *parent)
    : QWizardPage(parent)
{
}

int ConclusionPage::nextId() const
{
    return -1;
}
