#ifndef VELD_TESTS_TESTSUPPORT_H
#define VELD_TESTS_TESTSUPPORT_H

// What the tests share: processes, rows run in a child, files, /proc, the privileged users, preferences, the wizard.

#include <QtTest>

#include <fcntl.h>
#include <functional>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

/** What a finished process left behind; exitCode is -1 when it did not start, crashed or hung. */
struct ProcessResult {
    int exitCode = -1;
    QString out;
    QString err;
};

/** Runs command (the program first) to its end, at most 240 s. */
ProcessResult runProcess(const QStringList &command, const QProcessEnvironment &env = QProcessEnvironment::systemEnvironment());

/** Turns a command line into one that runs it another way. */
using Wrap = std::function<QStringList(const QStringList &command)>;
/** As user, with the user's groups. */
Wrap asUser(const QString &user);
/** As "nobody" when this process is root, so that permissions apply. */
Wrap asOrdinaryUser();
/** In a private mount namespace (mapped to root when not root), after the shell command setup with "$1"... = setupArgs. */
Wrap inPrivateMounts(const QString &setup, const QStringList &setupArgs = {});
/** In a private mount namespace where folder stands at the maker's folder, the only place the helper prepares. */
Wrap atMakersFolder(const QString &folder);
/** In a private mount namespace where folder stands at the system preference folder, /etc/xdg. */
Wrap atSystemPreferences(const QString &folder);
QStringList wrapped(QStringList command, const QList<Wrap> &wraps);

// How the current row runs again in a child process: this test program, or a copy of it at copyTo, started with the
// row's function and data tag through wraps (the first innermost), with env. The child asserts on its own data.
struct ChildRow {
    QString copyTo = QString();
    QList<Wrap> wraps = {};
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
};
inline bool inChild() { return qEnvironmentVariableIsSet("VELD_TEST_CHILD"); }
/** Runs the current row as row says and fails it unless it passed in the child. */
void runRowInChild(const ChildRow &row = ChildRow());
/** The command that runs the current row as row says, and its environment in *env (for a child the test ends itself). */
QStringList childRowCommand(const ChildRow &row, QProcessEnvironment *env);

QByteArray fileBytes(const QString &path);
inline QString fileText(const QString &path) { return QString::fromUtf8(fileBytes(path)); }
/** Writes the file whole, making its folders, and sets its mode; false on failure. */
bool writeFile(const QString &path, const QByteArray &bytes, int mode = 0644);
/** A sparse file of the given size, with its folders. */
bool makeFile(const QString &path, qint64 size);
struct SourceFile;
/** The files' paths, decoded. */
QStringList paths(const QList<SourceFile> &list);
/** Lines "KIND|PATH|ARGUMENT" below root: f file (size), d folder, l link (target), m chmod (octal), p pipe, s socket. */
bool buildTree(const QString &root, const QStringList &entries);
/** "OWNER:GROUP MODE" of path, the mode in octal, or "absent". */
QString ownership(const QString &path);
/** What this process writes to standard error while work runs. */
QByteArray standardErrorOf(const std::function<void()> &work);
/** True when text is pattern, where "*" stands for any text. */
bool matchesGlob(const QString &text, const QString &pattern);
/** The log's date stamp (asctime_r without its newline), as a regular expression. */
extern const QString kLogDateStampPattern;
/** The lines of a log file without their "[banner pid]date: " or "date: " prefix. */
QStringList logMessages(const QString &path);

/** Columns rule, input and expected, and a row "RULE: NAME" for each {RULE, NAME, INPUT, EXPECTED}. */
void ruleRows(const QList<QStringList> &rows);

/** Processes other than this one with an argument that contains text. */
QList<pid_t> processesMentioning(const QString &text);
/** Waits up to 30 s for every one of pids to be gone. */
bool allGone(const QList<pid_t> &pids);

// scripts/privileged-users.sh makes "veldadmin" (an administrator, sudo runs the helper) and "veldguest" (neither).
uid_t userId(const QString &name);
/** The rows go through the installer's default launcher, pkexec, not a counting "sudo -n" (ctest's *_pkexec runs). */
inline bool throughPkexec() { return qEnvironmentVariableIsSet("VELD_TEST_PKEXEC"); }
/** What the privileged tests need and lack here, or "": root, the users and, through pkexec, polkit's rule for them. */
QString privilegedMissing();
/** Skips the test unless the privileged tests can run; fails it instead where VELD_REQUIRE_PRIVILEGED is set (CI). */
#define REQUIRE_PRIVILEGED()                                                                                       \
    do {                                                                                                           \
        const QString missing = inChild() ? QString() : privilegedMissing();                                       \
        if (!missing.isEmpty()) {                                                                                  \
            if (qEnvironmentVariableIsSet("VELD_REQUIRE_PRIVILEGED"))                                              \
                QFAIL(qPrintable("the privileged tests must run here: " + missing));                               \
            QSKIP(qPrintable("not set up here: " + missing));                                                      \
        }                                                                                                          \
    } while (0)

/** A launcher in folder (opened to the test users) that counts its starts in folder/launches, then runs "sudo -n". */
bool createCountingLauncher(const QString &folder);
inline int launches(const QString &folder) { return fileBytes(folder + "/launches").count('\n'); }
/** env with VELD_AUTH_HELPER = helper and VELD_AUTH_LAUNCHER = launcher. */
QProcessEnvironment withLauncher(const QString &helper, const QString &launcher,
                                 QProcessEnvironment env = QProcessEnvironment::systemEnvironment());

// The installer's system-wide preference: its domain and key.
inline const QString kPrefDomain = QStringLiteral("com.halvorn.QuorvanVELD"), kPrefKey = QStringLiteral("VELDFullDatabasePath");
/** Preference folders of their own below folder ("home/.config", and "etc/xdg" to stand at the system's), made here,
 * as an environment. */
QProcessEnvironment scratchPreferences(const QString &folder);
/** Writes "[General]" and the raw lines into folder/domain.conf. */
void writePreferences(const QString &folder, const QString &domain, const QStringList &lines);

// ---- The wizard, driven as a user drives it, for the page tests

class QWizard;

/** A click where a user would click: on the agreement box's indicator. */
void clickAcceptBox(QWizard &wizard);

/** Shows the wizard, accepts the agreement and goes on to the source page. */
void goToSourcePage(QWizard &wizard);

// Answers the next folder dialog: types folder into its name field and confirms, or cancels it for an empty folder.
// What the dialog showed goes to folderDialogSeen as "CAPTION|START FOLDER|dirs only".
void answerFolderDialog(const QString &folder);
extern QString folderDialogSeen;

/** Clicks Continue on the source page once the scans have ended, reaching the destination page. */
void goToDestPage(QWizard &wizard);

/** Picks folder with the destination page's "Choose..." button and checks the dialog it opens. */
void choose(QWizard &wizard, const QString &folder);

// From now on, answers every message box with its default button (else its first) or Escape, and keeps it in
// answeredMessageBoxes as "TITLE|TEXT|INFORMATIVE|BUTTONS|ICON" (the default button marked "*").
void answerMessageBoxes(bool escape);
extern QStringList answeredMessageBoxes;
// The same boxes as "WIDTH|DETAILED TEXT", the width in pixels as shown.
extern QStringList answeredMessageBoxLayouts;

// Holds a scan at a folder until the test lets it go, so that a test meets a scan in the state it needs whatever the
// machine's speed. Once closed, the first scan to reach its second folder (its first one listed) waits there until
// release(), or until it is cancelled; later scans pass.
namespace ScanGate {
void close();
/** True once a scan waits at the gate; false after 60 s without one. */
bool waitUntilHeld();
void release();
/** Folders that scans reached after their cancellation (zero when every cancelled walk stopped at once). */
int foldersAfterCancel();
} // namespace ScanGate

#endif
