#ifndef VELD_SERVICE_LAUNCHDAEMON_H
#define VELD_SERVICE_LAUNCHDAEMON_H

#include <cstdio>
#include <string>

/*
 * The launch definition of the compute service "com.halvorn.qv_computeservice":
 * a launch daemon when the installation is for all users (gSystemScope), a
 * launch agent of the current user otherwise; and the server's control lock
 * file. The installer carries these routines for the modelling application
 * and never calls them. User-interface thread only (they may ask for rights).
 */

/**
 * Writes the property list of the definition to stream: the service's
 * program in serviceFolder (null is written as "(null)"), the user running
 * the program as UserName when withUserName, and flagText ("<true/>" or
 * "<false/>") for RunAtLoad and KeepAlive.
 */
void writeLaunchDaemonAgent(FILE *stream, bool withUserName, const char *serviceFolder, const char *flagText);

/**
 * Writes the definition to path, for the folder in $QUOR_COMPUTESERVICE; a
 * system-wide one names the user and, where the file system refuses the
 * user, is written to a temporary file and copied into place with rights
 * (mode 0644). 0: written; 1: temporary file not opened; 2: rights not
 * obtained; 3: privileged copy failed; 4: privileged chmod failed;
 * 5: system-wide file not created for a reason other than permissions;
 * 6: per-user file not created. The file is complete on disk when it returns 0.
 */
int createLaunchDaemonAgent(const char *path, bool systemWide, bool run);

/** createLaunchDaemonAgent after setting the reason shown when rights are asked for. */
int rewriteLaunchDaemonAgentFile(const char *path, bool systemWide, bool run);

/** Where the definition lives for the current scope; empty for a user's without $HOME. */
std::string getServerPlistLocation();

/** 0 when the definition file exists, else the errno of stat. */
int verifyServerPlist();

/** Writes "PID [login]" to folder/QuorvanServer/Control.pid; a failure is reported, not returned. */
void createServerControlLockFile(const char *folder);

/** Removes the lock file that createServerControlLockFile wrote; unlink's result. */
int removeServerControlLockFile();

#endif
