#include "sizethread.h"

#include "pages/pagestate.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QEventLoop>
#include <QFile>
#include <QScopeGuard>
#include <QTimer>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

const char *const kDataSuffixes[] = {"qventry", "qvkentry", "qvindex", "qvkindex"};

// Folders open at once, at most: deeper down, a folder's descriptor is closed
// while the walk is below it and opened again through ".." when it comes back.
const std::size_t kOpenFolders = 64;

const int kFolderFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NONBLOCK;

// One folder's listing, read whole before its sub-folders are entered. Its
// descriptor stays open for opening them, relative to it, so that no path is
// ever longer than one name.
struct Listing {
    QByteArray dir;        // absolute path of the folder, as the walk reached it
    DIR *stream = nullptr; // open while the walk may still enter a sub-folder of it
    int fd = -1;           // the stream's descriptor, or one opened again through ".."
    dev_t device = 0;
    ino_t inode = 0;
    bool lost = false;     // it could not be opened again: its remaining sub-folders cannot be reached
    struct Entry {
        QByteArray name;
        bool folder;
        quint64 size;      // data files only
    };
    std::vector<Entry> entries;
    std::size_t next = 0;

    void close()
    {
        if (stream)
            ::closedir(stream);
        else if (fd >= 0)
            ::close(fd);
        stream = nullptr;
        fd = -1;
    }
};

QByteArray joinPath(const QByteArray &dir, const QByteArray &name)
{
    return dir.endsWith('/') ? dir + name : dir + '/' + name;
}

// Takes fd (a folder) and reads its sub-folders and data files in the file
// system's order. Symbolic links and special files are left out. A data file
// whose size cannot be read is still listed, with size 0. False when the
// folder could not be read to its end (what was read stays listed).
bool readListing(Listing &listing, int fd, const std::atomic<bool> &cancelled)
{
    struct stat self;
    if (::fstat(fd, &self) != 0) {
        ::close(fd);
        return false;
    }
    listing.device = self.st_dev;
    listing.inode = self.st_ino;
    listing.stream = ::fdopendir(fd);
    if (!listing.stream) {
        ::close(fd);
        return false;
    }
    listing.fd = fd;
    for (;;) {
        errno = 0;
        const dirent *entry = ::readdir(listing.stream);
        if (!entry)
            return errno == 0;
        if (cancelled.load(std::memory_order_relaxed))
            return true;
        const char *name = entry->d_name;
        if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0')))
            continue;
        unsigned char type = entry->d_type;
        struct stat st;
        bool haveStat = false;
        if (type == DT_UNKNOWN) {
            if (::fstatat(fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0)
                continue;
            haveStat = true;
            type = S_ISDIR(st.st_mode) ? DT_DIR : S_ISREG(st.st_mode) ? DT_REG : DT_UNKNOWN;
        }
        if (type == DT_DIR) {
            listing.entries.push_back({QByteArray(name), true, 0});
        } else if (type == DT_REG && SizeThread::isDataFileName(name)) {
            if (!haveStat)
                haveStat = ::fstatat(fd, name, &st, AT_SYMLINK_NOFOLLOW) == 0;
            listing.entries.push_back({QByteArray(name), false, haveStat ? quint64(st.st_size) : 0});
        }
    }
}

std::atomic<SizeThread::FolderHook> sFolderHook{nullptr};

// The walk behind dirSize: depth-first, one descriptor per folder on the way
// down (at most kOpenFolders open), so that depth is no obstacle.
quint64 walk(const QString &path, QList<SourceFile> &list, QList<QByteArray> *unreadable,
             const std::atomic<bool> &cancelled, SizeThread::FolderHook hook = nullptr)
{
    const QByteArray given = QFile::encodeName(path);
    std::vector<Listing> stack(1);
    stack.back().dir = QFile::encodeName(QDir::cleanPath(QFileInfo(path).absoluteFilePath()));
    if (hook)
        hook(given, cancelled);
    const int rootFd = given.isEmpty() ? -1 : ::open(given.constData(), kFolderFlags);
    if (rootFd < 0)
        return 0;
    const auto cannotRead = [&](const QByteArray &folder) {
        if (unreadable)
            unreadable->append(folder);
    };
    if (!readListing(stack.back(), rootFd, cancelled))
        cannotRead(stack.back().dir);

    quint64 total = 0;
    while (!stack.empty()) {
        if (cancelled.load(std::memory_order_relaxed))
            break;
        Listing &current = stack.back();
        if (current.next == current.entries.size()) {
            if (stack.size() > 1) {
                Listing &parent = stack[stack.size() - 2];
                const bool needed = std::any_of(parent.entries.begin() + parent.next, parent.entries.end(),
                                                [](const Listing::Entry &e) { return e.folder; });
                if (parent.fd < 0 && !parent.lost && needed) {
                    // The same folder or none: the tree may have changed since the walk went down.
                    parent.fd = ::openat(current.fd, "..", kFolderFlags);
                    struct stat again;
                    if (parent.fd >= 0 && (::fstat(parent.fd, &again) != 0 || again.st_dev != parent.device
                                           || again.st_ino != parent.inode))
                        parent.close();
                    parent.lost = parent.fd < 0;
                }
            }
            current.close();
            stack.pop_back();
            continue;
        }
        const Listing::Entry &entry = current.entries[current.next++];
        if (!entry.folder) {
            total += entry.size;
            list.append({joinPath(current.dir, entry.name), entry.size});
            continue;
        }
        Listing sub;
        sub.dir = joinPath(current.dir, entry.name);
        if (hook)
            hook(sub.dir, cancelled);
        const int fd = current.lost ? -1 : ::openat(current.fd, entry.name.constData(), kFolderFlags | O_NOFOLLOW);
        if (fd < 0) {
            cannotRead(sub.dir);
            continue;
        }
        const bool whole = readListing(sub, fd, cancelled);
        if (!whole)
            cannotRead(sub.dir);
        if (sub.fd < 0)
            continue;
        stack.push_back(std::move(sub));
        if (stack.size() > kOpenFolders)
            stack[stack.size() - 1 - kOpenFolders].close();
    }
    for (Listing &open : stack)
        open.close();
    return total;
}

// Every live scanner, and every waitForScans in progress; user-interface thread only.
std::vector<SizeThread *> &scanners()
{
    static std::vector<SizeThread *> all;
    return all;
}

struct Waiter {
    QEventLoop *loop;
    bool *woken;
};

std::vector<Waiter> &waiters()
{
    static std::vector<Waiter> all;
    return all;
}

void wakeWaiters()
{
    for (const Waiter &waiter : waiters()) {
        *waiter.woken = true;
        waiter.loop->quit();
    }
}

} // namespace

SizeThread::SizeThread(QObject *parent, QString path)
    : QThread(parent)
    , path(std::move(path))
{
    scanners().push_back(this);
    // Connected before anyone else can connect, so the files are in
    // sResultList before any other queued receiver of pathSize runs.
    connect(this, &SizeThread::pathSize, this, [this] { publish(); });
}

SizeThread::~SizeThread()
{
    cancel();
    wait();
    { std::lock_guard<std::mutex> lock(m_foundMutex); }
    auto &all = scanners();
    all.erase(std::remove(all.begin(), all.end(), this), all.end());
    wakeWaiters();
}

bool SizeThread::isDataFileName(const char *name)
{
    const char *dot = std::strchr(name, '.');
    if (!dot)
        return false;
    for (const char *suffix : kDataSuffixes) {
        if (std::strcmp(dot + 1, suffix) == 0)
            return true;
    }
    return false;
}

quint64 SizeThread::dirSize(const QString &path, QList<SourceFile> &list, QList<QByteArray> *unreadable)
{
    const std::atomic<bool> never{false};
    return walk(path, list, unreadable, never);
}

void SizeThread::setFolderHook(FolderHook hook)
{
    sFolderHook.store(hook);
}

void SizeThread::cancel()
{
    m_cancelled.store(true);
}

void SizeThread::run()
{
    // The thread's last touch of this object, whichever way run ends.
    auto lastTouch = qScopeGuard([this] { std::lock_guard<std::mutex> lock(m_foundMutex); });
    QList<SourceFile> found;
    QList<QByteArray> unreadable;
    const quint64 total = walk(path, found, &unreadable, m_cancelled, sFolderHook.load());
    if (m_cancelled.load())
        return;
    totalSize = total;
    {
        std::lock_guard<std::mutex> lock(m_foundMutex);
        m_found = std::move(found);
        m_unreadable = std::move(unreadable);
        m_resultReady = true;
    }
    emit pathSize(path, totalSize);
}

void SizeThread::publish()
{
    {
        // The thread has written its last to m_found before the signal that runs this.
        std::lock_guard<std::mutex> lock(m_foundMutex);
        if (m_cancelled.load()) {
            m_found.clear();
            m_unreadable.clear();
        }
    }
    sResultList.append(m_found);
    m_published = true;
    wakeWaiters();
}

bool SizeThread::pending()
{
    if (isRunning())
        return true;
    std::lock_guard<std::mutex> lock(m_foundMutex);
    return m_resultReady && !m_published && !m_cancelled.load();
}

bool SizeThread::scansPending()
{
    const auto &all = scanners();
    return std::any_of(all.begin(), all.end(), [](SizeThread *s) { return s->pending(); });
}

bool SizeThread::waitForScans()
{
    // A scan that ends without a result posts nothing, so the wait also looks
    // again now and then; a delivered result or a deleted scanner wakes it at once.
    const int recheckMs = 10;
    do {
        while (scansPending()) {
            QEventLoop loop;
            bool woken = false;
            waiters().push_back({&loop, &woken});
            QTimer recheck;
            QObject::connect(&recheck, &QTimer::timeout, &loop, [&] {
                woken = true;
                loop.quit();
            });
            recheck.start(recheckMs);
            loop.exec();
            auto &all = waiters();
            all.erase(std::remove_if(all.begin(), all.end(), [&](const Waiter &w) { return w.loop == &loop; }),
                      all.end());
            if (!woken)
                return false;
        }
        // Every scan has ended, so all its results are posted: deliver them to
        // their receivers (the source page sets its size there) before returning.
        QCoreApplication::sendPostedEvents();
    } while (scansPending());
    return true;
}
