#ifndef VELD_PAGES_PICKDESTPAGE_H
#define VELD_PAGES_PICKDESTPAGE_H

#include "pagestate.h"

#include <QWizardPage>

class QLineEdit;
class QPushButton;

/**
 * The folder whose volume stands for destination's: the shared parent for a
 * destination below it (a plain, case-sensitive prefix test); otherwise the
 * text before the last "/", or destination itself when that "/" is the first
 * character or there is none.
 */
QString probeFolderFor(const QString &destination);

/** The room files take on a disk of blockSize-byte blocks: each size rounded up to whole blocks (0: bytes as they are). */
quint64 bytesInBlocks(const QList<SourceFile> &files, quint64 blockSize);

/**
 * The amount the destination lacks, for the user: whole GB above 10^9 bytes,
 * whole MB above 10^6, else whole KB, the remainder dropped and two zero
 * decimals shown ("2.00 GB" for 2.9 * 10^9). shortage >= 0.
 */
QString shortageText(qint64 shortage);

/**
 * The third page: proposes the database's destination, lets the user pick
 * another parent folder, and on Continue decides between moving (same volume
 * as the source) and copying, refusing a copy that the destination's free
 * space cannot hold, in bytes or in the destination's whole blocks. Publishes the destination as the mandatory field "path"
 * and the decision as sCopyFiles.
 */
class PickDestPage : public QWizardPage
{
    Q_OBJECT

public:
    explicit PickDestPage(QWidget *parent = nullptr);
    ~PickDestPage() override;

    void initializePage() override;
    void setVisible(bool visible) override;
    bool validatePage() override;
    int nextId() const override;

private slots:
    void chooseDestination();

private:
    void showDestination();
    bool finishSourceScans();

    QPushButton *chooseButton;
    // Carries the field "path"; never shown, so it has no parent and the page owns it.
    QLineEdit *pathEdit;
    bool validating = false;
    // Counts the destinations shown: a Continue that waited for the source
    // stands only if the user saw no other destination meanwhile.
    quint64 shownDestinations = 0;
};

#endif
