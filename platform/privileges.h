#ifndef VELD_PLATFORM_PRIVILEGES_H
#define VELD_PLATFORM_PRIVILEGES_H

#include <QString>

#include <cstdint>

class QWidget;

/*
 * System-wide folders that every administrator may write: group "admin" (on
 * Linux the administrators' group of adminGroupName()) and mode 0775. Each
 * step is tried with the user's own rights first; only a refusal by the file
 * system leads to the same step run with the administrator right, asked for
 * once per run after the user was told why.
 *
 * Every step writes its outcome to the log; failures also go to standard
 * error. User-interface thread only: the dialogs are modal.
 */

/** Non-zero: the installation is for all users; folders get the administrators' group and
 *  mode 0775, and privileged commands are allowed. While 0, fixupDirectory does nothing. */
extern int32_t gSystemScope;

/** Id of the administrators' group, or 0xFFFFFFFF when there is none; set by the wizard's constructor. */
extern uint32_t gAdminGid;

/** Why the installer needs rights, shown before the system's password dialog. */
extern QString gPrivilegeReason;

/** A splash window hidden before any dialog of this unit is shown; null unless set. */
extern QWidget *gSplashScreen;

/**
 * Whether the current user may give files to group, found by trying it on a
 * new file "/tmp/qv_computecontrol.XXXXXX" (removed again). False for a group
 * that does not exist. Root always may.
 */
bool isUserInGroup(const char *group);

/** A modal information box with the installer's icon and title; either text may be null. */
void installInfoDialog(const char *text, const char *informative);

/**
 * Obtains the administrator right into gMacAuthorizationRef after telling the
 * user why (gPrivilegeReason). An account outside the administrators' group
 * is only told so and offered cancellation. 0: obtained; 1: cancelled or refused.
 */
int establishPrivsForSetup();

/**
 * Gives the folder at path the administrators' group and group write (mode
 * 0775 when it lacked group write), with rights where the user's own are
 * refused. 0: done or nothing to do; 1: stat failed; 2: not a folder;
 * 3: privileged chgrp failed; 4: chown failed otherwise or rights not
 * obtained; 5: privileged chmod failed; 6: chmod failed otherwise.
 */
int fixupDirectory(const char *path);

/**
 * Creates the folder at path, with rights where the user may not, and gives
 * it to the user and the administrators' group. 0: created with rights;
 * 1: privileged mkdir failed; 2: privileged chown failed; 3: mkdir refused
 * and not system-wide; 4: rights not obtained; otherwise the result of
 * fixupDirectory after a mkdir without rights.
 */
int createProductDirectory(const char *path);

/**
 * Creates parent and parent/name. With rights, parent stays root's with the
 * administrators' group and only parent/name is given to the user.
 * 0: created with rights; 1: mkdir of parent failed; 2: chgrp of parent
 * failed; 3: mkdir of parent/name failed; 4: chown of parent/name failed or
 * rights not obtained; 5: mkdir refused and not system-wide; otherwise the
 * result of createProductDirectory after a mkdir without rights.
 */
int createResourceDirectory(const char *parent, const char *name);

/**
 * Makes sure that parent/name exists as a system-wide folder, creating or
 * fixing up what is missing. 0 on success; 1 when a stat failed for a reason
 * other than absence; otherwise the code of the function it ended in.
 */
int verifyResourceDirectory(const char *parent, const char *name);

#endif
