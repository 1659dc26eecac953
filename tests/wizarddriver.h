#ifndef VELD_TESTS_WIZARDDRIVER_H
#define VELD_TESTS_WIZARDDRIVER_H

#include <QStringList>

class QWizard;

// Drives the wizard as a user does, for the page tests.

/** A click where a user would click: on the agreement box's indicator. */
void clickAcceptBox(QWizard &wizard);

/** Shows the wizard, accepts the agreement and goes on to the source page. */
void goToSourcePage(QWizard &wizard);

/**
 * Answers the next folder dialog when it opens: the folder is typed into its
 * name field and confirmed, or the dialog is cancelled for an empty folder.
 * What the dialog showed is kept for the test to check.
 */
struct DialogAnswer {
    QString caption;
    QString startFolder;
    bool dirsOnly = false;
    bool answered = false;

    void arm(const QString &folder);
};

/** Clicks Continue on the source page once the scans have ended, reaching the destination page. */
void goToDestPage(QWizard &wizard);

/** Picks folder with the destination page's "Choose..." button and checks the dialog it opens. */
void choose(QWizard &wizard, const QString &folder);

/**
 * From now on, answers every message box by clicking its default button (its
 * only button when none is default), or with Escape, and keeps it in
 * answeredMessageBoxes() as "TITLE|TEXT|INFORMATIVE|BUTTONS|ICON" (the default
 * button marked "*").
 */
void answerMessageBoxes(bool escape);
QStringList &answeredMessageBoxes();

/**
 * Holds a scan at a folder until the test lets it go, so that a test meets a
 * scan in the state it needs whatever the machine's speed. Once closed, the
 * first scan to reach its second folder (its first one listed) waits there
 * until release(), or until it is cancelled; later scans pass.
 */
namespace ScanGate {
void close();
/** True once a scan waits at the gate; false after 60 s without one. */
bool waitUntilHeld();
void release();
/** Folders that scans reached after their cancellation (zero when every cancelled walk stopped at once). */
int foldersAfterCancel();
} // namespace ScanGate

#endif
