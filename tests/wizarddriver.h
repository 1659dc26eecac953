#ifndef VELD_TESTS_WIZARDDRIVER_H
#define VELD_TESTS_WIZARDDRIVER_H

#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

#include <functional>

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

/** The command line that runs program with args, as a test wraps it (a namespace, another user). */
using CommandWrapper = std::function<QStringList(const QString &program, const QStringList &args)>;

/**
 * Copies this test program into a bundle "Test Installer.app" in layout and
 * runs its "--scenario NAME" mode there, wrapped by wrap, with env; fails the
 * current test unless every scenario case passes. The copy's bundle makes
 * layout/VELDV400 the source beside it.
 */
void runScenario(const QString &layout, const QString &scenario, const QProcessEnvironment &env,
                 const CommandWrapper &wrap);

#endif
