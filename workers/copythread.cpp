#include "copythread.h"

#include "pages/pagestate.h"
#include "platform/childprocess.h"

#include <QFile>
#include <QSet>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const char kNoFiles[] = "The source database data files couldn't be found.";
const char kFolderNotRead[] = "The folder %1 of the source database could not be read, so its data files were not installed.";
const char kOneMoreFolderNotRead[] = " One other folder of it could not be read either.";
const char kMoreFoldersNotRead[] = " %1 other folders of it could not be read either.";
const char kNotReadable[] = "The installed file %1 could not be made readable for all users.";
const int kFailure = -100;
const int kCancelPollMs = 100;
const mode_t kReadableByAll = S_IRUSR | S_IRGRP | S_IROTH;

// Opens folder (an absolute path of any length) one name at a time; -1 on failure.
int openFolder(const QByteArray &folder)
{
    int fd = ::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (const QByteArray &name : folder.split('/')) {
        if (name.isEmpty() || fd < 0)
            continue;
        const int next = ::openat(fd, name.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::close(fd);
        fd = next;
    }
    return fd;
}

struct Descriptor {
    int fd = -1;
    ~Descriptor() { fd < 0 || ::close(fd); }
};

} // namespace

CopyThread::CopyThread(QObject *parent, QString path)
    : QThread(parent)
    , path(std::move(path))
    , files(sSourceFiles)
    , unreadableFolders(sUnreadableFolders)
    , moveFiles(sCopyFiles)
{
}

CopyThread::~CopyThread()
{
    cancel();
    wait();
    std::lock_guard<std::mutex> ended(m_running);
}

QString CopyThread::getPath() const
{
    return path;
}

void CopyThread::cancel()
{
    m_cancelled = true;
}

QList<QByteArray> CopyThread::transferArguments(bool move, const QByteArray &source, const QByteArray &target)
{
    if (move)
        return {source, target};
    return {QByteArrayLiteral("-pf"), source, target};
}

QString CopyThread::processErrorText(QProcess::ProcessError error)
{
    switch (error) {
    case QProcess::FailedToStart:
        return QStringLiteral(" failed to start.");
    case QProcess::Crashed:
        return QStringLiteral(" crashed.");
    case QProcess::Timedout:
        return QStringLiteral(" no response.");
    case QProcess::ReadError:
        return QStringLiteral(" read error.");
    case QProcess::WriteError:
        return QStringLiteral(" write error.");
    default:
        return QStringLiteral(" unknown error.");
    }
}

void CopyThread::run()
{
    std::lock_guard<std::mutex> running(m_running);
    unpriviledgedCopy();
}

bool CopyThread::waitForChild(ChildProcess &child)
{
    while (!child.waitForFinished(kCancelPollMs)) {
        if (m_cancelled) {
            child.kill();
            return false;
        }
    }
    return true;
}

void CopyThread::unpriviledgedCopy()
{
    const QByteArray target = QFile::encodeName(path) + '/';
    const QString program = moveFiles ? QStringLiteral("/bin/mv") : QStringLiteral("/bin/cp");
    const std::string programPath = QFile::encodeName(program).toStdString();
    emit copyResult(kFailure, QString::fromLatin1(kNoFiles));
    // Process-wide, and meant to stay so after the transfer.
    umask(022);

    ChildProcess child;
    QSet<QByteArray> made;    // the targets that this run created
    QByteArray notReadable;   // the first installed file that could not be made readable for all
    int count = 0;
    for (const SourceFile &file : files) {
        if (m_cancelled)
            return;
        const QByteArray name = file.fileName(), targetFile = target + name;
        struct stat status;
        const bool existed = ::lstat(targetFile.constData(), &status) == 0 && !made.contains(name);
        // A path too long for the program is handed over from the file's own folder.
        QByteArray source = file.path;
        Descriptor folder;
        if (source.size() >= PATH_MAX && (folder.fd = openFolder(source.left(source.size() - name.size()))) >= 0)
            source = "./" + name;
        std::vector<std::string> arguments;
        for (const QByteArray &argument : transferArguments(moveFiles, source, target))
            arguments.push_back(argument.toStdString());
        // Never leave a cut data file behind, nor remove one that was there before this run;
        // a move that went through keeps its file.
        const auto removeCut = [&] {
            struct stat left;
            if (!existed && (!moveFiles || ::fstatat(folder.fd >= 0 ? folder.fd : AT_FDCWD, source.constData(), &left, AT_SYMLINK_NOFOLLOW) == 0))
                ::unlink(targetFile.constData());
        };
        const auto failAs = [&](QProcess::ProcessError error) {
            emit copyResult(kFailure, program + QLatin1Char(':') + processErrorText(error));
        };
        if (!child.start(programPath, arguments, folder.fd))
            return failAs(QProcess::FailedToStart);
        if (!waitForChild(child))
            return removeCut();
        if (child.crashed()) {
            removeCut();
            return failAs(QProcess::Crashed);
        }
        const QByteArray &complaint = child.standardError();
        // An empty standard error is success, whatever the exit code.
        if (complaint.isEmpty()) {
            made.insert(name);
            // The database is for every user of the machine.
            if (::lstat(targetFile.constData(), &status) == 0 && S_ISREG(status.st_mode)
                && (status.st_mode & kReadableByAll) != kReadableByAll && ::chmod(targetFile.constData(), 0644) != 0
                && notReadable.isEmpty())
                notReadable = targetFile;
            emit copyResult(0, QString());
            emit copiedFile(++count);
            continue;
        }
        removeCut();
        fprintf(stderr, "VELDV400 Installer: %s", complaint.constData());
        fflush(stderr);
        emit copyResult(kFailure, QStringLiteral("Error message is:\n") + QString::fromUtf8(complaint.constData()));
        return;
    }
    if (!unreadableFolders.isEmpty()) {
        QString text = QString::fromLatin1(kFolderNotRead).arg(QString::fromUtf8(unreadableFolders.first()));
        if (unreadableFolders.size() == 2)
            text += QString::fromLatin1(kOneMoreFolderNotRead);
        else if (unreadableFolders.size() > 2)
            text += QString::fromLatin1(kMoreFoldersNotRead).arg(unreadableFolders.size() - 1);
        emit copyResult(kFailure, text);
    } else if (!notReadable.isEmpty()) {
        emit copyResult(kFailure, QString::fromLatin1(kNotReadable).arg(QString::fromUtf8(notReadable)));
    }
}
