#ifndef VELD_PAGES_SOURCEPAGE_H
#define VELD_PAGES_SOURCEPAGE_H

#include <QPointer>
#include <QWizardPage>

#include <string>

class QLabel;
class QPushButton;
class SizeThread;

/** The size figure shown to the user: decimal GB, two decimals, '.' in every locale. */
QString sizeFigure(quint64 bytes);

/**
 * The removable-disk source candidate: "/Volumes/USB DISK/VELDV400" on macOS,
 * "/media/<login name>/USB DISK/VELDV400" on Linux, or "" for a user without one.
 */
std::string removableSourceFolder();

/**
 * The second page: finds the database folder (beside the bundle, on the
 * removable disk, or one the user picks), has it measured, and shows its size.
 * Its scan starts as the page is built, while the agreement is on the screen.
 */
class SourcePage : public QWizardPage
{
    Q_OBJECT

public:
    explicit SourcePage(QWidget *parent = nullptr);

    bool isComplete() const override;
    int nextId() const override;

    /** Bytes of data files in the source as last reported by a scan; 0 until then. */
    quint64 dbSize;

private slots:
    void updateDBSize(QString path, quint64 finishedSize);
    void customDBSourceLocation(QString path, quint64 finishedSize);
    void chooseSource();

private:
    void startScan(const QString &folder, void (SourcePage::*resultSlot)(QString, quint64));
    bool isCurrentScan() const;
    // The size and files of the scan whose result is shown now.
    void takeResult(const QString &folder, quint64 finishedSize);

    QLabel *statusLabel;
    QPushButton *findButton;
    // The latest scan; an earlier one that a new choice replaced no longer counts.
    QPointer<SizeThread> sizeThread;
    bool sourceMissing;
};

#endif
