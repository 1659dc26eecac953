#ifndef VELD_PAGES_SOURCEPAGE_H
#define VELD_PAGES_SOURCEPAGE_H

#include <QWizardPage>

/** The second page: where the database is read from. */
class SourcePage : public QWizardPage
{
    Q_OBJECT

public:
    explicit SourcePage(QWidget *parent = nullptr);

    int nextId() const override;
};

#endif
