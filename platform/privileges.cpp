#include "privileges.h"

#include "authority.h"
#include "locations.h"
#include "log.h"
#include "messagebox.h"
#include "texts.h"
#include "users.h"

#include <QMessageBox>
#include <QPushButton>

#include <cerrno>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

int32_t gSystemScope = 0;
uint32_t gAdminGid = kUnknownGroupId;
QString gPrivilegeReason;
QWidget *gSplashScreen = nullptr;

namespace {

const mode_t kSystemMode = 0775;
const mode_t kUserMode = 0755;
const mode_t kExpectedParentMode = 040775;
const mode_t kDirectoryBit = 040000;
const mode_t kGroupWriteBit = 020;

// Asks for rights unless an authority exists already (one password per run).
bool haveAuthority()
{
    return gMacAuthorizationRef || establishPrivsForSetup() == 0;
}

bool refusedByFileSystem(int error)
{
    return error == EPERM || error == EACCES;
}

// The mode as the create functions pass it to mkdir.
mode_t creationMode()
{
    return gSystemScope ? kSystemMode : kUserMode;
}

} // namespace

bool isUserInGroup(const char *group)
{
    const uint32_t gid = getGroupId(group);
    log_msg("isUserInGroup: getGroupId %s returned %d\n", group ? group : "(null)", int32_t(gid));
    if (int32_t(gid) < 0)
        return false;

    char path[] = "/tmp/qv_computecontrol.XXXXXX";
    const int fd = mkstemp(path);
    log_msg("isUserInGroup: mkstemp(%s) returned %d\n", path, fd);
    if (fd == -1)
        return false;
    // An ordinary user may give its own file only to a group that it belongs to.
    bool member = true;
    if (fchown(fd, uid_t(-1), gid_t(gid)) == -1) {
        const int error = errno;
        log_msg("isUserInGroup: fchown(%d, -1, %d) returned -1\n\n%s\n", fd, int32_t(gid), strerror(error));
        member = false;
    } else {
        log_msg("isUserInGroup: fchown succeeded\n");
    }
    close(fd);
    unlink(path);
    return member;
}

void installInfoDialog(const char *text, const char *informative)
{
    QMessageBox box;
    prepareMessageBox(box, text ? QString::fromUtf8(text) : QString());
    if (informative)
        box.setInformativeText(wrappableText(QString::fromUtf8(informative)));
    box.exec();
}

int establishPrivsForSetup()
{
    if (!isUserInGroup(adminGroupName())) {
        // The wording, its typos included, is the product's own.
        const QString text = QLatin1String(kProgramName) + QStringLiteral(" must be installed by a user who is allowed ")
                             + QStringLiteral("to administer this computer (your account does not have this capability).")
                             + QStringLiteral("\n\n")
                             + QStringLiteral("For the Name/password prompts that follow, you will need to supply the ")
                             + QStringLiteral("name and and password of ANOTHER user with admistrator privileges. ");
        QMessageBox box;
        prepareMessageBox(box, text);
        QPushButton *cancel = box.addButton(QStringLiteral("Cancel Installation"), QMessageBox::RejectRole);
        box.setDefaultButton(cancel);
        box.exec();
        // The box offers nothing but cancellation, so any way of closing it ends here.
        return 1;
    }
    const QByteArray reason = gPrivilegeReason.toUtf8();
    installInfoDialog(reason.constData(), nullptr);
    return createAuthority(&gMacAuthorizationRef) ? 0 : 1;
}

int fixupDirectory(const char *path)
{
    if (!gSystemScope)
        return 0;
    struct stat status;
    if (stat(path, &status) != 0) {
        const int error = errno;
        logFailure("fixupDirectory: Unable to determine status of directory...\n    %s\n%s\n", path, strerror(error));
        return 1;
    }
    // The bit alone, as the product has always tested it.
    if (!(status.st_mode & kDirectoryBit)) {
        logFailure("fixupDirectory: %s is not a directory.\n", path);
        return 2;
    }

    bool changed = false;
    if (status.st_gid != gid_t(gAdminGid)) {
        if (chown(path, uid_t(-1), gid_t(gAdminGid)) == 0) {
            changed = true;
        } else if (!refusedByFileSystem(errno)) {
            const int error = errno;
            logFailure("fixupDirectory: Unable to change group to 'admin' on directory...\n    %s\n%s\n", path,
                        strerror(error));
            return 4;
        } else {
            log_msg("fixupDirectory: trying to set chown group-admin perms on %s\n", path);
            if (!haveAuthority())
                return 4;
            char gid[16];
            snprintf(gid, sizeof gid, "%d", int32_t(gAdminGid));
            if (!runCommandWithAuthority(gMacAuthorizationRef, "/usr/bin/chgrp", {gid, path})) {
                logFailure("fixupDirectory: Unable to change group to 'admin' on directory %s\n", path);
                return 3;
            }
            changed = true;
        }
    }

    if (status.st_mode & kGroupWriteBit) {
        if (!changed)
            return 0;
    } else if (chmod(path, kSystemMode) != 0) {
        // The whole permission set becomes 0775, not only the group-write bit.
        if (!refusedByFileSystem(errno)) {
            const int error = errno;
            logFailure("fixupDirectory: Unable to add group write permission on directory...\n    %s\n%s\n", path,
                        strerror(error));
            return 6;
        }
        log_msg("fixupDirectory: trying to set chmod group-admin perms on %s\n", path);
        if (!haveAuthority())
            return 4;
        if (!runCommandWithAuthority(gMacAuthorizationRef, "/bin/chmod", {"0775", path})) {
            logFailure("fixupDirectory: Unable to add group write permission on directory %s\n", path);
            return 5;
        }
    }
    log_msg("fixupDirectory: succeeded\n");
    return 0;
}

int createProductDirectory(const char *path)
{
    const uint32_t adminGid = getGroupId(adminGroupName());
    const mode_t mode = creationMode();
    if (mkdir(path, mode) == 0) {
        log_msg("createProductDirectory: made dir %s w/o needing privs, checking for fixup\n", path);
        return fixupDirectory(path);
    }
    const int error = errno;
    logFailure("createProductDirectory: Unable to mkdir %s, %s\n", path, strerror(error));
    if (!gSystemScope) {
        log_msg("createProductDirectory: gSystemScope = 0, user not privileged\n");
        return 3;
    }

    log_msg("createProductDirectory: trying to mkdir %s with trampoline\n", path);
    if (!haveAuthority())
        return 4;
    char modeText[8];
    snprintf(modeText, sizeof modeText, "%o", unsigned(mode));
    if (!runCommandWithAuthority(gMacAuthorizationRef, "/bin/mkdir", {"-m", modeText, path})) {
        log_msg("createProductDirectory: runCommandWithAuthority(/bin/mkdir %s %s %s) failed\n", "-m", modeText, path);
        return 1;
    }
    char owner[32];
    snprintf(owner, sizeof owner, "%d:%d", int(getuid()), int32_t(adminGid));
    if (!runCommandWithAuthority(gMacAuthorizationRef, kChownTool, {owner, path})) {
        // The wrong path in this text is the product's own.
        log_msg("createProductDirectory: runCommandWithAuthority(/bin/usr/sbin/chown %s %s) failed\n", owner, path);
        return 2;
    }
    log_msg("createProductDirectory: succeeded\n");
    return 0;
}

int createResourceDirectory(const char *parent, const char *name)
{
    const std::string full = std::string(parent) + "/" + name;
    const uint32_t adminGid = getGroupId(adminGroupName());
    const mode_t mode = creationMode();
    if (mkdir(parent, mode) == 0) {
        log_msg("createResourceDirectory: made dir %s w/o needing privs, checking for fixup\n", parent);
        fixupDirectory(parent);
        log_msg("createResourceDirectory: making dir %s w/o needing privs\n", full.c_str());
        return createProductDirectory(full.c_str());
    }
    const int error = errno;
    logFailure("createResourceDirectory: Unable to mkdir %s, %s\n", parent, strerror(error));
    if (!gSystemScope) {
        log_msg("createResourceDirectory: gSystemScope = 0, user not privileged\n");
        return 5;
    }

    log_msg("createResourceDirectory: trying to mkdir %s with trampoline\n", parent);
    if (!haveAuthority())
        return 4;
    char gid[16];
    snprintf(gid, sizeof gid, "%d", int32_t(adminGid));
    char owner[32];
    snprintf(owner, sizeof owner, "%d:%d", int(getuid()), int32_t(adminGid));
    if (!runCommandWithAuthority(gMacAuthorizationRef, "/bin/mkdir", {"-m", "775", parent})) {
        log_msg("createResourceDirectory: runCommandWithAuthority(/bin/mkdir %s %s %s) failed\n", "-m", "775", parent);
        return 1;
    }
    if (!runCommandWithAuthority(gMacAuthorizationRef, "/usr/bin/chgrp", {gid, parent})) {
        log_msg("createResourceDirectory: runCommandWithAuthority(/usr/bin/chgrp %s %s) failed\n", gid, parent);
        return 2;
    }
    if (!runCommandWithAuthority(gMacAuthorizationRef, "/bin/mkdir", {"-m", "775", full.c_str()})) {
        log_msg("createResourceDirectory: runCommandWithAuthority(/bin/mkdir %s %s %s) failed\n", "-m", "775",
                full.c_str());
        return 3;
    }
    if (!runCommandWithAuthority(gMacAuthorizationRef, kChownTool, {owner, full.c_str()})) {
        log_msg("createResourceDirectory: runCommandWithAuthority(/usr/sbin/chown %s %s) failed\n", owner, full.c_str());
        return 4;
    }
    log_msg("createResourceDirectory: succeeded\n");
    return 0;
}

int verifyResourceDirectory(const char *parent, const char *name)
{
    struct stat status;
    if (stat(parent, &status) != 0) {
        const int error = errno;
        if (error == ENOENT) {
            log_msg("verifyResourceDirectory: %s does not exist, creating\n", parent);
            return createResourceDirectory(parent, name);
        }
        logFailure("verifyResourceDirectory: Unable to determine status of file...\n    %s\n%s\n", parent,
                    strerror(error));
        return 1;
    }
    if (gSystemScope && (status.st_mode != kExpectedParentMode || status.st_gid != gid_t(gAdminGid)))
        logFailure("verifyResourceDirectory: \"%s\" exists and has owner %d group %d and mode %o\n", parent,
                    int(status.st_uid), int(status.st_gid), unsigned(status.st_mode));
    // A parent that cannot be fixed up may still hold a usable folder.
    const int fixup = fixupDirectory(parent);
    log_msg("verifyResourceDirectory: fixup of %s returned %d\n", parent, fixup);

    const std::string full = std::string(parent) + "/" + name;
    if (stat(full.c_str(), &status) == 0) {
        log_msg("verifyResourceDirectory: checking %s for fixup\n", full.c_str());
        return fixupDirectory(full.c_str());
    }
    const int error = errno;
    if (error == ENOENT) {
        log_msg("verifyResourceDirectory: %s does not exist, creating\n", full.c_str());
        return createProductDirectory(full.c_str());
    }
    logFailure("verifyResourceDirectory: Unable to determine status of directory...\n    %s\n%s\n", full.c_str(),
                strerror(error));
    return 1;
}
