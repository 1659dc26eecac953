#include "copythread.h"

#include "pages/pagestate.h"
#include "platform/childprocess.h"

#include <QFile>

#include <cstdio>
#include <sys/stat.h>

namespace {

const char kNoFiles[] = "The source database data files couldn't be found.";
const int kFailure = -100;
const int kCancelPollMs = 100;

} // namespace

CopyThread::CopyThread(QObject *parent, QString path)
    : QThread(parent)
    , path(std::move(path))
    , files(sSourceFiles)
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

QStringList CopyThread::transferArguments(bool move, const QString &source, const QString &target)
{
    if (move)
        return {source, target};
    return {QStringLiteral("-pf"), source, target};
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
    const QString target = path + QLatin1Char('/');
    const QString program = moveFiles ? QStringLiteral("/bin/mv") : QStringLiteral("/bin/cp");
    const std::string programPath = QFile::encodeName(program).toStdString();
    emit copyResult(kFailure, QString::fromLatin1(kNoFiles));
    // Process-wide, and meant to stay so after the transfer.
    umask(022);

    ChildProcess child;
    int count = 0;
    for (const QFileInfo &file : files) {
        if (m_cancelled)
            return;
        const QString source = file.absoluteFilePath();
        std::vector<std::string> arguments;
        for (const QString &argument : transferArguments(moveFiles, source, target))
            arguments.push_back(QFile::encodeName(argument).toStdString());
        // Never leave a cut data file behind; a move that went through keeps its file.
        const auto removeCut = [&] {
            if (!moveFiles || QFile::exists(source))
                QFile::remove(target + file.fileName());
        };
        const auto failAs = [&](QProcess::ProcessError error) {
            emit copyResult(kFailure, program + QLatin1Char(':') + processErrorText(error));
        };
        if (!child.start(programPath, arguments))
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
            emit copyResult(0, QString());
            emit copiedFile(++count);
            continue;
        }
        fprintf(stderr, "VELDV400 Installer: %s", complaint.constData());
        fflush(stderr);
        emit copyResult(kFailure, QStringLiteral("Error message is:\n") + QString::fromUtf8(complaint.constData()));
        return;
    }
}
