#include "preffile.h"

#include <QFile>
#include <QSettings>
#include <QStringList>
#include <QVariant>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::string failure(const std::string &what, int error)
{
    return what + ": " + strerror(error);
}

bool syncPath(const std::string &path, int flags)
{
    const int fd = open(path.c_str(), flags | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool synced = fsync(fd) == 0;
    close(fd);
    return synced;
}

// Copies the old file at path into the new one's descriptor; why it failed, or an empty string.
std::string copyOldFile(const std::string &path, int fd)
{
    const int old = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (old < 0)
        return failure(path, errno);
    const bool copied = copyAll(old, fd);
    const int error = errno;
    close(old);
    return copied ? std::string() : failure(path, error);
}

// Whether the file at path holds exactly the keys and values of intended. The toolkit
// does not notice a write that fails part-way (on a full disk it reports success for a
// cut file), so the file is read again under a new name of its own, for which the
// toolkit has no cached copy.
bool readsBackAs(const std::string &path, const QSettings &intended)
{
    const std::string check = path + ".check";
    if (link(path.c_str(), check.c_str()) != 0)
        return false;
    bool same;
    {
        const QSettings reread(QFile::decodeName(check.c_str()), QSettings::IniFormat);
        const QStringList keys = intended.allKeys();
        same = reread.status() == QSettings::NoError && reread.allKeys() == keys
               && std::all_of(keys.begin(), keys.end(),
                              [&](const QString &key) { return reread.value(key) == intended.value(key); });
    }
    unlink(check.c_str());
    return same;
}

// Changes key in the new file at temp and makes it ready to replace path; why it failed, or
// an empty string.
std::string changeNewFile(const std::string &path, const std::string &temp, const QString &key, const QString *value)
{
    QSettings settings(QFile::decodeName(temp.c_str()), QSettings::IniFormat);
    if (settings.status() != QSettings::NoError)
        return path + ": not a preference file in INI form; left as it is";
    if (value)
        settings.setValue(key, *value);
    else
        settings.remove(key);
    settings.sync();
    if (settings.status() != QSettings::NoError || !readsBackAs(temp, settings))
        return "cannot write the new " + path + " beside it (is the disk full?)";
    // The toolkit wrote the new file under temp's name; from here on it is held by its descriptor.
    const int fd = open(temp.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    const bool ready = fd >= 0 && fchmod(fd, 0644) == 0 && fsync(fd) == 0;
    const int error = errno;
    if (fd >= 0)
        close(fd);
    return ready ? std::string() : failure("cannot write the new " + path + " beside it", error);
}

} // namespace

bool copyAll(int from, int to)
{
    char buffer[65536];
    for (;;) {
        const ssize_t got = read(from, buffer, sizeof buffer);
        if (got == 0)
            return true;
        if (got < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        for (ssize_t done = 0; done < got;) {
            const ssize_t put = write(to, buffer + done, size_t(got - done));
            if (put < 0 && errno != EINTR)
                return false;
            done += put > 0 ? put : 0;
        }
    }
}

bool prefFileRead(const QString &path, const QString &key, QString *value)
{
    struct stat status;
    if (stat(QFile::encodeName(path).constData(), &status) != 0 || !S_ISREG(status.st_mode))
        return false;
    QSettings settings(path, QSettings::IniFormat);
    if (settings.status() != QSettings::NoError || !settings.contains(key))
        return false;
    const QVariant found = settings.value(key);
    // A file written by hand may hold an unquoted value with commas, which the format reads as a list.
    if (found.type() == QVariant::StringList)
        *value = found.toStringList().join(QLatin1Char(','));
    else
        *value = found.toString();
    return true;
}

std::string prefFileWrite(const std::string &path, const QString &key, const QString *value)
{
    if (key.isEmpty())
        return "no key given";
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos || slash + 1 == path.size())
        return path + ": not a file path";
    const std::string folder = slash == 0 ? std::string("/") : path.substr(0, slash);
    if (QString::fromUtf8(folder.c_str()).toUtf8().toStdString() != folder)
        return folder + ": the folder's name is not UTF-8";

    struct stat status;
    const bool exists = lstat(path.c_str(), &status) == 0;
    if (!exists && errno != ENOENT)
        return failure(path, errno);
    if (exists && !S_ISREG(status.st_mode))
        return path + ": not a regular file; left as it is";
    if (!exists && !value)
        return std::string();

    // The new file is made beside the old one, so that a rename can replace it in one step.
    std::string temp = folder + (slash == 0 ? "" : "/") + ".veld-defaults.XXXXXX";
    const int fd = mkostemp(&temp[0], O_CLOEXEC);
    if (fd < 0)
        return failure("cannot create a file in " + folder, errno);
    std::string error = exists ? copyOldFile(path, fd) : std::string();
    close(fd);
    if (error.empty())
        error = changeNewFile(path, temp, key, value);
    if (error.empty() && rename(temp.c_str(), path.c_str()) != 0)
        error = failure("cannot replace " + path, errno);
    if (!error.empty()) {
        unlink(temp.c_str());
        return error;
    }
    syncPath(folder, O_RDONLY | O_DIRECTORY);
    return std::string();
}
