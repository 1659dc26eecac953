#include "movejournal.h"

#include "platform/prefstore.h"

#include <QFile>
#include <QList>

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const char kFileName[] = "/com.halvorn.VELDInstaller.move";
const QByteArray kHeading = QByteArrayLiteral("VELD Installer move");
const QByteArray kSourceKey = QByteArrayLiteral("source=");
const QByteArray kDestinationKey = QByteArrayLiteral("destination=");
// A record is two paths; anything much longer is not one.
const qint64 kLongestRecord = 65536;

// The descriptor, locked, of the record this process holds; -1 for none.
int sRecordFd = -1;

std::string journalFile()
{
    return userPreferencesFolder() + kFileName;
}

QByteArray encoded(const QByteArray &path)
{
    return path.toPercentEncoding("/");
}

// Opens the journal and locks it. -1 with errno EWOULDBLOCK when another process holds it.
int openLocked(int flags)
{
    const std::string path = journalFile();
    // The file may be replaced between open and lock; a lock on a name that is gone counts for nothing.
    for (int attempt = 0; attempt < 3; ++attempt) {
        const int fd = ::open(path.c_str(), flags | O_RDWR | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd < 0)
            return -1;
        if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
            const int error = errno;
            ::close(fd);
            errno = error;
            return -1;
        }
        struct stat opened, named;
        if (::fstat(fd, &opened) == 0 && ::stat(path.c_str(), &named) == 0 && opened.st_dev == named.st_dev
            && opened.st_ino == named.st_ino) {
            if (S_ISREG(opened.st_mode))
                return fd;
            ::close(fd);
            errno = EINVAL;
            return -1;
        }
        ::close(fd);
    }
    errno = EAGAIN;
    return -1;
}

QByteArray readAll(int fd)
{
    QByteArray text;
    char buffer[4096];
    for (ssize_t n; (n = ::pread(fd, buffer, sizeof buffer, text.size())) != 0;) {
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 || text.size() + n > kLongestRecord)
            return QByteArray();
        text.append(buffer, int(n));
    }
    return text;
}

bool writeAll(int fd, const QByteArray &text)
{
    if (::ftruncate(fd, 0) != 0)
        return false;
    for (qint64 done = 0; done < text.size();) {
        const ssize_t n = ::pwrite(fd, text.constData() + done, size_t(text.size() - done), done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += n;
    }
    // On the disk before the first file moves, power cut or not.
    return ::fsync(fd) == 0;
}

QByteArray moveRecordText(const MoveRecord &record)
{
    return kHeading + '\n' + kSourceKey + encoded(record.source) + '\n' + kDestinationKey + encoded(record.destination) + '\n';
}

// False, leaving *record alone, unless text is exactly a record with two absolute paths.
bool parseMoveRecord(const QByteArray &text, MoveRecord *record)
{
    const QList<QByteArray> lines = text.split('\n');
    if (lines.size() != 4 || lines[0] != kHeading || !lines[1].startsWith(kSourceKey) || !lines[2].startsWith(kDestinationKey)
        || !lines[3].isEmpty())
        return false;
    const QByteArray source = QByteArray::fromPercentEncoding(lines[1].mid(kSourceKey.size()));
    const QByteArray destination = QByteArray::fromPercentEncoding(lines[2].mid(kDestinationKey.size()));
    // Only what this installer writes: its own encoding of two absolute paths.
    for (const QByteArray &path : {source, destination})
        if (!path.startsWith('/') || path.contains('\0'))
            return false;
    if (lines[1].mid(kSourceKey.size()) != encoded(source) || lines[2].mid(kDestinationKey.size()) != encoded(destination))
        return false;
    *record = {source, destination};
    return true;
}

} // namespace

QString moveJournalPath()
{
    return QFile::decodeName(QByteArray::fromStdString(journalFile()));
}

JournalState takeInterruptedMove(MoveRecord *record)
{
    if (sRecordFd >= 0)
        return JournalState::Recorded;
    const int fd = openLocked(0);
    if (fd < 0)
        return errno == EWOULDBLOCK ? JournalState::Busy : JournalState::None;
    if (!parseMoveRecord(readAll(fd), record)) {
        ::unlink(journalFile().c_str());
        ::close(fd);
        return JournalState::Malformed;
    }
    sRecordFd = fd;
    return JournalState::Interrupted;
}

JournalState recordMove(const MoveRecord &record)
{
    if (sRecordFd >= 0)
        return JournalState::Recorded;
    QByteArray folder = QByteArray::fromStdString(userPreferencesFolder());
    // The folders up to the preference folder, as the preference store makes them.
    for (int slash = folder.indexOf('/', 1); slash > 0; slash = folder.indexOf('/', slash + 1))
        ::mkdir(folder.left(slash).constData(), 0700);
    ::mkdir(folder.constData(), 0700);
    const int fd = openLocked(O_CREAT);
    if (fd < 0)
        return errno == EWOULDBLOCK ? JournalState::Busy : JournalState::Failed;
    MoveRecord earlier;
    if (parseMoveRecord(readAll(fd), &earlier)) {
        ::close(fd);
        return JournalState::Interrupted;
    }
    if (!writeAll(fd, moveRecordText(record))) {
        ::unlink(journalFile().c_str());
        ::close(fd);
        return JournalState::Failed;
    }
    const int dir = ::open(folder.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
        ::fsync(dir);
        ::close(dir);
    }
    sRecordFd = fd;
    return JournalState::Recorded;
}

void forgetMove()
{
    if (sRecordFd < 0)
        return;
    // Only the file this process holds: the name may lead elsewhere by now.
    struct stat held, named;
    const std::string path = journalFile();
    if (::fstat(sRecordFd, &held) == 0 && ::lstat(path.c_str(), &named) == 0 && held.st_dev == named.st_dev
        && held.st_ino == named.st_ino)
        ::unlink(path.c_str());
    releaseMove();
}

void releaseMove()
{
    if (sRecordFd >= 0)
        ::close(sRecordFd);
    sRecordFd = -1;
}
