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

/** Clicks Continue on the source page once the scans have ended, reaching the destination page. */
void goToDestPage(QWizard &wizard);

/** Picks folder with the destination page's "Choose..." button and checks the dialog it opens. */
void choose(QWizard &wizard, const QString &folder);

/**
 * From now on, prints every message box as "dialog=TITLE|TEXT|INFORMATIVE|
 * BUTTONS|ICON" (the default button marked "*", line breaks as "\n") and
 * answers it by clicking its default button (its only button when none is
 * default), or with Escape.
 */
void answerMessageBoxes(bool escape);

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

/** The command line that runs program with args, as a test wraps it (a namespace, another user). */
using CommandWrapper = std::function<QStringList(const QString &program, const QStringList &args)>;

/**
 * Copies this test program into a bundle "Test Installer.app" in layout and
 * runs its "--scenario NAME" mode there, wrapped by wrap, with env; fails the
 * current test unless every scenario case passes. The copy's bundle makes
 * layout/VELDV400 the source beside it. output, when given, receives what
 * the scenario printed.
 */
void runScenario(const QString &layout, const QString &scenario, const QProcessEnvironment &env,
                 const CommandWrapper &wrap, QString *output = nullptr);

/**
 * The main() of a test program whose copies also run its scenarios: "--scenario NAME"
 * runs that function of Scenarios (as runScenario starts it), anything else runs Test.
 */
#define VELD_SCENARIO_MAIN(Scenarios, Test)                                                              \
    int main(int argc, char **argv)                                                                      \
    {                                                                                                    \
        QApplication app(argc, argv);                                                                    \
        if (argc == 3 && qstrcmp(argv[1], "--scenario") == 0) {                                          \
            Scenarios scenarios;                                                                         \
            return QTest::qExec(&scenarios, QStringList{QString::fromLocal8Bit(argv[0]),                 \
                                                        QString::fromLocal8Bit(argv[2])});               \
        }                                                                                                \
        Test test;                                                                                       \
        QTEST_SET_MAIN_SOURCE_PATH                                                                       \
        return QTest::qExec(&test, argc, argv);                                                          \
    }

#endif
