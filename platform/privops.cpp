#include "privops.h"

#include "preffile.h"

#include <QString>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// A descriptor that closes itself.
struct Fd {
    int fd = -1;
    explicit Fd(int fd = -1) : fd(fd) {}
    Fd(Fd &&other) noexcept : fd(other.fd) { other.fd = -1; }
    Fd &operator=(Fd &&other) noexcept { std::swap(fd, other.fd); return *this; }
    ~Fd() { if (fd >= 0) ::close(fd); }
    explicit operator bool() const { return fd >= 0; }
};

// The folder that holds path's last part, reached from "/" without following a link; -1 with errno set.
// With trusted, every folder on the way must be root's alone (isRootsAlone); EPERM when one is not.
Fd openParent(const std::string &path, std::string *name, bool trusted = false)
{
    Fd folder(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    size_t start = 1;
    for (size_t slash; folder && (slash = path.find('/', start)) != std::string::npos; start = slash + 1) {
        struct stat st;
        if (trusted && (::fstat(folder.fd, &st) != 0 || !isRootsAlone(st, false))) {
            errno = EPERM;
            return Fd();
        }
        folder = Fd(::openat(folder.fd, path.substr(start, slash - start).c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    }
    struct stat st;
    if (folder && trusted && (::fstat(folder.fd, &st) != 0 || !isRootsAlone(st, true))) {
        errno = EPERM;
        return Fd();
    }
    *name = path.substr(start);
    return folder;
}

// path itself, not followed if it is a link (a link is opened as what it is).
Fd openObject(const std::string &path, struct stat *st)
{
    std::string name;
    const Fd folder = openParent(path, &name);
    Fd object(folder ? ::openat(folder.fd, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC) : -1);
    if (object && ::fstat(object.fd, st) != 0)
        return Fd();
    return object;
}

std::string procPath(const Fd &fd)
{
    return "/proc/self/fd/" + std::to_string(fd.fd);
}

Outcome complain(const char *tool, const char *what, const std::string &path)
{
    fprintf(stderr, "%s: %s '%s': %s\n", tool, what, path.c_str(), strerror(errno));
    return Outcome::Failed;
}

Outcome makeFolder(const Operation &op, HelperRun &run)
{
    std::string name;
    const Fd parent = openParent(op.path, &name);
    // Made private first, so that nobody else can reach it before its mode is set.
    if (!parent || ::mkdirat(parent.fd, name.c_str(), 0700) != 0)
        return complain("mkdir", "cannot create directory", op.path);
    const Fd made(::openat(parent.fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!made || ::fchmod(made.fd, op.mode) != 0)
        return complain("mkdir", "cannot set permissions of", op.path);
    if (op.path == run.destination)
        run.destinationMade = true;
    return Outcome::Done;
}

Outcome changeObject(const Operation &op, const HelperRun &run, std::string *why)
{
    const char *tool = op.verb == Verb::SetMode ? "chmod" : op.verb == Verb::SetGroup ? "chgrp" : "chown";
    Found found;
    const Fd object = openObject(op.path, &found.object);
    if (!object)
        return complain(tool, "cannot access", op.path);
    if (!(*why = admitFound(op, found, run)).empty())
        return Outcome::Refused;
    if (op.verb == Verb::SetMode ? ::chmod(procPath(object).c_str(), op.mode) != 0
                                 : ::fchownat(object.fd, "", op.owner, op.group, AT_EMPTY_PATH) != 0)
        return complain(tool, op.verb == Verb::SetMode ? "changing permissions of" : op.verb == Verb::SetGroup ? "changing group of"
                                                                                                            : "changing ownership of",
                        op.path);
    return Outcome::Done;
}

// Reads at most limit bytes of fd into *bytes; false on a read error or when there are more.
bool readUpTo(int fd, size_t limit, std::string *bytes)
{
    char buffer[4096];
    for (;;) {
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return got == 0;
        bytes->append(buffer, size_t(got));
        if (bytes->size() > limit) {
            errno = EFBIG;
            return false;
        }
    }
}

bool writeAll(int fd, const std::string &bytes)
{
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t put = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (put < 0 && errno != EINTR)
            return false;
        done += put > 0 ? size_t(put) : 0;
    }
    return true;
}

// The definition is judged on the bytes read once, and those bytes are what is written.
Outcome copy(const Operation &op, HelperRun &run, std::string *why)
{
    Found found;
    const Fd source = openObject(op.source, &found.object);
    if (!source)
        return complain("cp", "cannot stat", op.source);
    const Fd input(S_ISREG(found.object.st_mode) ? ::open(procPath(source).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC) : -1);
    if (S_ISREG(found.object.st_mode) && (!input || !readUpTo(input.fd, 16384, &found.content)))
        return complain("cp", "cannot read", op.source);
    if (!(*why = admitFound(op, found, run)).empty())
        return Outcome::Refused;
    std::string name;
    const Fd parent = openParent(op.path, &name, true);
    const Fd output(parent ? ::openat(parent.fd, name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644)
                           : -1);
    struct stat st;
    if (!output || ::fstat(output.fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_nlink != 1)
        return complain("cp", "cannot create regular file", op.path);
    if (!writeAll(output.fd, found.content) || ::ftruncate(output.fd, off_t(found.content.size())) != 0)
        return complain("cp", "error copying to", op.path);
    run.definitionDevice = st.st_dev;
    run.definitionInode = st.st_ino;
    return Outcome::Done;
}

bool isUtf8(const std::string &text)
{
    return QString::fromUtf8(text.c_str()).toUtf8().toStdString() == text;
}

Outcome preference(const Operation &op, std::string *why)
{
    std::string name;
    if (!openParent(op.path, &name, true)) {
        if (errno != EPERM)
            return complain("veld-defaults", "cannot reach", op.path);
        *why = "the preference folder is not root's alone";
        return Outcome::Refused;
    }
    if (!isUtf8(op.key) || !isUtf8(op.value)) {
        fputs("veld-defaults: the key or the value is not UTF-8 text\n", stderr);
        return Outcome::Failed;
    }
    // Every folder on the way is root's alone, so the path names the same file throughout.
    const QString value = QString::fromUtf8(op.value.c_str());
    const std::string error = prefFileWrite(op.path + ".conf", QString::fromUtf8(op.key.c_str()),
                                            op.verb == Verb::WritePreference ? &value : nullptr);
    if (error.empty())
        return Outcome::Done;
    fprintf(stderr, "veld-defaults: %s\n", error.c_str());
    return Outcome::Failed;
}

} // namespace

Outcome perform(const Operation &op, HelperRun &run, std::string *why)
{
    switch (op.verb) {
    case Verb::MakeFolder:
        return makeFolder(op, run);
    case Verb::SetMode:
    case Verb::SetGroup:
    case Verb::SetOwner:
        return changeObject(op, run, why);
    case Verb::Copy:
        return copy(op, run, why);
    case Verb::WritePreference:
    case Verb::DeletePreference:
        return preference(op, why);
    }
    return Outcome::Refused;
}
