#ifndef VELD_PAGES_PICKDESTPAGE_H
#define VELD_PAGES_PICKDESTPAGE_H

#include <QWizardPage>

/** The third page: where the database is installed. */
class PickDestPage : public QWizardPage
{
    Q_OBJECT

public:
    explicit PickDestPage(QWidget *parent = nullptr);

    int nextId() const override;
};

#endif
