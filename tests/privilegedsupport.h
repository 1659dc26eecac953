#ifndef VELD_TESTS_PRIVILEGEDSUPPORT_H
#define VELD_TESTS_PRIVILEGEDSUPPORT_H

// The privileged tests run programs as the ordinary users that
// scripts/privileged-users.sh makes: "veldadmin", in the administrators'
// group, whom sudo lets run the built helper and nothing else, and
// "veldguest", who is in neither. The launcher is the real "sudo -n", behind
// a script that counts its starts.

#include <QList>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

#include <sys/types.h>

/** The id of the named user, or uid_t(-1). */
uid_t userId(const char *name);

/** True when this process is root and scripts/privileged-users.sh has prepared the machine. */
bool privilegedUsersReady();

/** Skips the test unless the privileged users are ready; fails it instead where
 *  VELD_REQUIRE_PRIVILEGED is set (CI). */
#define REQUIRE_PRIVILEGED()                                                                                  \
    do {                                                                                                      \
        if (!privilegedUsersReady()) {                                                                        \
            if (qEnvironmentVariableIsSet("VELD_REQUIRE_PRIVILEGED"))                                         \
                QFAIL("the privileged tests must run here: run as root after scripts/privileged-users.sh");   \
            QSKIP("needs root and the users of scripts/privileged-users.sh");                                 \
        }                                                                                                     \
    } while (0)

/** The command line that runs program with args as user, with the user's groups. */
QStringList asUser(const QString &user, const QString &program, const QStringList &args = {});

/** Every process whose command line names helper: the helper and its launcher. */
QList<pid_t> helperProcesses(const QString &helper);

/** Waits up to 30 s for every one of pids to be gone. */
bool allGone(const QList<pid_t> &pids);

/**
 * A launcher script in folder ("launch") that counts its starts in
 * folder/launches and then runs "sudo -n". The folder must be searchable by
 * the users who start it.
 */
class CountingLauncher
{
public:
    /** Writes the launcher into folder and opens the folder (0755) to the test users. */
    bool create(const QString &folder);
    QString path() const { return m_folder + QStringLiteral("/launch"); }
    /** Starts counted since the last reset, or -1 when unknown. */
    int launches() const;
    bool reset() const;
    /** env with VELD_AUTH_HELPER = helper and VELD_AUTH_LAUNCHER = this launcher (or another command). */
    QProcessEnvironment environment(const QString &helper, const QString &launcherCommand = QString(),
                                    const QProcessEnvironment &env = QProcessEnvironment::systemEnvironment()) const;

private:
    QString m_folder;
};

#endif
