#include "privilegedsupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QThread>

#include <algorithm>
#include <pwd.h>
#include <unistd.h>

uid_t userId(const char *name)
{
    const passwd *entry = getpwnam(name);
    return entry ? entry->pw_uid : uid_t(-1);
}

bool privilegedUsersReady()
{
    return geteuid() == 0 && userId("veldadmin") != uid_t(-1) && userId("veldguest") != uid_t(-1)
           && QFileInfo::exists(QStringLiteral("/etc/sudoers.d/veld-authhelper"));
}

QStringList asUser(const QString &user, const QString &program, const QStringList &args)
{
    return QStringList{QStringLiteral("setpriv"), "--reuid=" + user, "--regid=" + user, QStringLiteral("--init-groups"),
                       program}
           + args;
}

QList<pid_t> helperProcesses(const QString &helper)
{
    QList<pid_t> found;
    for (const QString &entry : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        bool isPid = false;
        const pid_t pid = pid_t(entry.toInt(&isPid));
        QFile cmdline(QStringLiteral("/proc/%1/cmdline").arg(entry));
        if (isPid && pid != getpid() && cmdline.open(QIODevice::ReadOnly)
            && cmdline.readAll().split('\0').contains(QFile::encodeName(helper)))
            found << pid;
    }
    return found;
}

bool allGone(const QList<pid_t> &pids)
{
    for (int waited = 0; waited < 30000; waited += 20) {
        if (std::none_of(pids.begin(), pids.end(),
                         [](pid_t pid) { return QFileInfo::exists(QStringLiteral("/proc/%1").arg(pid)); }))
            return true;
        QThread::msleep(20);
    }
    return false;
}

bool CountingLauncher::create(const QString &folder)
{
    m_folder = folder;
    // The test users start it from here.
    if (!QFile::setPermissions(folder, QFileDevice::Permissions(0x7755)))
        return false;
    QFile script(path());
    if (!script.open(QIODevice::WriteOnly))
        return false;
    script.write("#!/bin/sh\necho started >> \"$(dirname \"$0\")/launches\"\nexec sudo -n \"$@\"\n");
    script.close();
    return script.setPermissions(QFileDevice::Permissions(0x7555)) && reset();
}

int CountingLauncher::launches() const
{
    QFile counter(m_folder + QStringLiteral("/launches"));
    return counter.open(QIODevice::ReadOnly) ? counter.readAll().count('\n') : -1;
}

bool CountingLauncher::reset() const
{
    QFile counter(m_folder + QStringLiteral("/launches"));
    if (!counter.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    counter.close();
    return counter.setPermissions(QFileDevice::Permissions(0x6666));
}

QProcessEnvironment CountingLauncher::environment(const QString &helper, const QString &launcherCommand,
                                                  const QProcessEnvironment &env) const
{
    QProcessEnvironment result = env;
    result.insert(QStringLiteral("VELD_AUTH_HELPER"), helper);
    result.insert(QStringLiteral("VELD_AUTH_LAUNCHER"), launcherCommand.isEmpty() ? path() : launcherCommand);
    return result;
}
