#ifndef VELD_PAGES_CONCLUSIONPAGE_H
#define VELD_PAGES_CONCLUSIONPAGE_H

#include <QWizardPage>

/** The last page: the installation and its outcome. */
class ConclusionPage : public QWizardPage
{
    Q_OBJECT

public:
    explicit ConclusionPage(QWidget *parent = nullptr);

    int nextId() const override;
};

#endif
