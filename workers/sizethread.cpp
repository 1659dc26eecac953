#include "sizethread.h"

#include "pages/pagestate.h"

#include <QCoreApplication>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QScopeGuard>
#include <QTimer>

#include <algorithm>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <vector>

namespace {

const char *const kDataSuffixes[] = {"qventry", "qvkentry", "qvindex", "qvkindex"};

// One folder's listing, read whole and closed before its sub-folders are
// entered, so that a deep tree never holds more than one directory open.
struct Listing {
    QByteArray dir;        // path of the folder, as the walk reached it
    struct Entry {
        QByteArray name;
        bool folder;
        quint64 size;      // data files only
    };
    std::vector<Entry> entries;
    std::size_t next = 0;
};

QByteArray joinPath(const QByteArray &dir, const QByteArray &name)
{
    return dir.endsWith('/') ? dir + name : dir + '/' + name;
}

// Reads the folder's sub-folders and data files in the file system's order.
// Symbolic links and special files are left out; an unreadable folder lists
// nothing. A data file whose size cannot be read is still listed, with size 0.
void readListing(Listing &listing, const std::atomic<bool> &cancelled)
{
    DIR *dir = ::opendir(listing.dir.constData());
    if (!dir)
        return;
    const int fd = ::dirfd(dir);
    while (const dirent *entry = ::readdir(dir)) {
        if (cancelled.load(std::memory_order_relaxed))
            break;
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
    ::closedir(dir);
}

std::atomic<SizeThread::FolderHook> sFolderHook{nullptr};

void listFolder(Listing &listing, const std::atomic<bool> &cancelled, SizeThread::FolderHook hook)
{
    if (hook)
        hook(listing.dir, cancelled);
    readListing(listing, cancelled);
}

// The walk behind dirSize. Files directly in path carry path as given; files
// further down carry the absolute, clean path of their folder.
quint64 walk(const QString &path, QList<QFileInfo> &list, const std::atomic<bool> &cancelled,
             SizeThread::FolderHook hook = nullptr)
{
    const QFileInfo root(path);
    if (!root.isDir())
        return 0;

    QString top = path;
    while (top.size() > 1 && top.endsWith(QLatin1Char('/')))
        top.chop(1);
    const QString topPrefix = top.endsWith(QLatin1Char('/')) ? top : top + QLatin1Char('/');

    quint64 total = 0;
    std::vector<Listing> stack(1);
    stack.back().dir = QFile::encodeName(top);
    listFolder(stack.back(), cancelled, hook);
    const QByteArray absoluteTop = QFile::encodeName(root.absoluteFilePath());

    while (!stack.empty()) {
        if (cancelled.load(std::memory_order_relaxed))
            return total;
        Listing &current = stack.back();
        if (current.next == current.entries.size()) {
            stack.pop_back();
            continue;
        }
        const Listing::Entry &entry = current.entries[current.next++];
        const bool atTop = stack.size() == 1;
        if (entry.folder) {
            Listing sub;
            sub.dir = joinPath(atTop ? absoluteTop : current.dir, entry.name);
            listFolder(sub, cancelled, hook);
            stack.push_back(std::move(sub));
        } else {
            total += entry.size;
            list.append(QFileInfo(atTop ? topPrefix + QFile::decodeName(entry.name)
                                        : QFile::decodeName(joinPath(current.dir, entry.name))));
        }
    }
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

quint64 SizeThread::dirSize(const QString &path, QList<QFileInfo> &list)
{
    const std::atomic<bool> never{false};
    return walk(path, list, never);
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
    QList<QFileInfo> found;
    const quint64 total = walk(path, found, m_cancelled, sFolderHook.load());
    if (m_cancelled.load())
        return;
    totalSize = total;
    {
        std::lock_guard<std::mutex> lock(m_foundMutex);
        m_found = std::move(found);
        m_resultReady = true;
    }
    emit pathSize(path, totalSize);
}

void SizeThread::publish()
{
    {
        // The thread has written its last to m_found before the signal that runs this.
        std::lock_guard<std::mutex> lock(m_foundMutex);
        if (m_cancelled.load())
            m_found.clear();
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
