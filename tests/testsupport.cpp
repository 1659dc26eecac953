#include "testsupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>

#include <fcntl.h>
#include <unistd.h>

ProcessResult runProcess(const QString &program, const QStringList &args, const QProcessEnvironment &env)
{
    QProcess process;
    process.setProcessEnvironment(env);
    process.start(program, args);
    ProcessResult result;
    if (!process.waitForStarted(60000) || !process.waitForFinished(120000)) {
        process.kill();
        process.waitForFinished(5000);
        return result;
    }
    result.out = QString::fromUtf8(process.readAllStandardOutput());
    result.err = QString::fromUtf8(process.readAllStandardError());
    if (process.exitStatus() == QProcess::NormalExit)
        result.exitCode = process.exitCode();
    return result;
}

const QString kLogDateStampPattern =
    QStringLiteral("(Sun|Mon|Tue|Wed|Thu|Fri|Sat) (Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) "
                   "[ 123]\\d \\d\\d:\\d\\d:\\d\\d \\d{4}");

QStringList logMessages(const QString &path)
{
    static const QRegularExpression prefix(QStringLiteral("^\\[[^ \\]]* -?\\d+\\]") + kLogDateStampPattern + QStringLiteral(": "));
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QStringList();
    QStringList lines = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'));
    if (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast();
    for (QString &line : lines)
        line.remove(prefix);
    return lines;
}

bool copyFileTo(const QString &source, const QString &target)
{
    QDir().mkpath(QFileInfo(target).absolutePath());
    QFile::remove(target);
    return QFile::copy(source, target);
}

bool makeFile(const QString &path, qint64 size)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.resize(size);
}

QStringList asUnprivilegedUser(const QString &program, const QStringList &args)
{
    if (::geteuid() != 0)
        return QStringList{program} + args;
    return QStringList{QStringLiteral("setpriv"), QStringLiteral("--reuid=nobody"), QStringLiteral("--regid=nogroup"),
                       QStringLiteral("--clear-groups"), QStringLiteral("--"), program} + args;
}

QString placeProbe(const QString &path)
{
    if (!copyFileTo(QStringLiteral(VELD_SUPPORTPROBE), path))
        return QString();
    QFile::setPermissions(path, QFile::permissions(path) | QFile::ExeOwner | QFile::ExeGroup | QFile::ExeOther);
    return path;
}

QStringList inPrivateMounts(const QString &setup, const QStringList &setupArgs, const QString &program,
                            const QStringList &args)
{
    QStringList command{QStandardPaths::findExecutable(QStringLiteral("unshare"))};
    if (geteuid() != 0)
        command << QStringLiteral("--map-root-user");
    command << QStringLiteral("--mount") << QStringLiteral("sh") << QStringLiteral("-c")
            << setup + QStringLiteral(" && shift %1 && exec \"$@\"").arg(setupArgs.size()) << QStringLiteral("sh")
            << setupArgs << program << args;
    return command;
}

QStringList withGroupDatabase(const QString &groupFile, const QString &program, const QStringList &args)
{
    return inPrivateMounts(QStringLiteral("mount --bind \"$1\" /etc/group"), {groupFile}, program, args);
}

QStringList withEmptyMedia(const QString &program, const QStringList &args)
{
    return inPrivateMounts(QStringLiteral("mount -t tmpfs tmpfs /media"), {}, program, args);
}

QString scratchTemplate(const QString &name)
{
    const QString base = QFileInfo(QStringLiteral("/dev/shm")).isWritable() ? QStringLiteral("/dev/shm")
                                                                            : QDir::tempPath();
    return base + QLatin1Char('/') + name + QStringLiteral("-XXXXXX");
}

bool buildWideTree(const QString &root, int folders, int filesPerFolder)
{
    for (int d = 0; d < folders; ++d) {
        const QByteArray dir = QFile::encodeName(root) + "/f" + QByteArray::number(d % 10) + "/d" + QByteArray::number(d);
        if (!QDir().mkpath(QFile::decodeName(dir)))
            return false;
        for (int f = 0; f < filesPerFolder; ++f) {
            const QByteArray name = dir + "/e" + QByteArray::number(f) + (f % 3 ? ".qventry" : ".txt");
            const int fd = ::open(name.constData(), O_CREAT | O_WRONLY, 0644);
            const bool written = fd >= 0 && ::write(fd, "x", 1) == 1;
            if (fd >= 0)
                ::close(fd);
            if (!written)
                return false;
        }
    }
    return true;
}

ScratchPreferences::ScratchPreferences()
{
    QDir().mkpath(userFolder());
    QDir().mkpath(systemFolder());
}

QString ScratchPreferences::userFolder() const
{
    return m_dir.filePath(QStringLiteral("home/.config"));
}

QString ScratchPreferences::systemFolder() const
{
    return m_dir.filePath(QStringLiteral("etc/xdg"));
}

void ScratchPreferences::writeDomainFile(const QString &folder, const QString &domain, const QStringList &lines) const
{
    QFile file(folder + QLatin1Char('/') + domain + QStringLiteral(".conf"));
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        qFatal("cannot write %s", qPrintable(file.fileName()));
    file.write("[General]\n");
    for (const QString &line : lines)
        file.write(line.toUtf8() + '\n');
}

QProcessEnvironment ScratchPreferences::environment() const
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), userFolder());
    env.insert(QStringLiteral("XDG_CONFIG_DIRS"), systemFolder() + QStringLiteral(":/nonexistent/second"));
    return env;
}

void ScratchPreferences::applyToThisProcess() const
{
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(userFolder()));
    qputenv("XDG_CONFIG_DIRS", QFile::encodeName(systemFolder()));
}
