#ifndef VELD_PAGES_EULAPAGE_H
#define VELD_PAGES_EULAPAGE_H

#include <QWizardPage>

class QCheckBox;

/** The first page: the bundle's agreement, and a check box that must be ticked to go on. */
class EulaPage : public QWizardPage
{
    Q_OBJECT

public:
    explicit EulaPage(QWidget *parent = nullptr);

    bool isComplete() const override;
    int nextId() const override;

private slots:
    void OnLicenseAccepted(bool checked);

private:
    QCheckBox *acceptBox;
};

#endif
