#ifndef VELD_PLATFORM_AUTHORITY_H
#define VELD_PLATFORM_AUTHORITY_H

#include <cstdio>
#include <initializer_list>

/*
 * The administrator right, obtained once and interactively, and the system
 * tools run with it. Nothing else in the installer reaches root.
 *
 * macOS: Authorization Services. Linux: one root process, veld-authhelper,
 * started through a launcher (/usr/bin/pkexec, or the command named by the
 * environment variable VELD_AUTH_LAUNCHER, such as "/usr/bin/sudo -n", when
 * that program is root's alone; directly when the installer already runs as
 * root), kept for as long as the authority is held, and carrying out only the
 * installation's own operations (authpolicy.h).
 *
 * User-interface thread only. A password dialog blocks the calling thread, and
 * so does reading a tool's output.
 */

#ifdef __APPLE__
#include <Security/Authorization.h>
#else
#include <cstdint>

typedef int32_t OSStatus;
/** One held authority: the running helper. */
typedef struct VeldAuthority *AuthorizationRef;

// The statuses of the macOS service, with the same numbers and meanings.
enum : OSStatus {
    errAuthorizationSuccess = 0,
    errAuthorizationInvalidRef = -60002,
    errAuthorizationDenied = -60005,
    errAuthorizationCanceled = -60006,
    errAuthorizationInternal = -60008,
    errAuthorizationToolExecuteFailure = -60031,
    errAuthorizationToolEnvironmentError = -60032,
};

#include <string>

/** The folder of the helper that createAuthority starts, which names the preference writer veld-defaults. */
std::string authorityHelperFolder();

/** How long createAuthority waits for the helper's first answer (the password dialog's time); tests shorten it. */
void setHelperStartLimit(int milliseconds);
#endif

/** The installer's one authority; null until createAuthority has been called on it. */
extern AuthorizationRef gMacAuthorizationRef;

/**
 * Creates an authority in *ref and asks for the administrator right (the
 * system's name-and-password dialog). False, after one line on standard
 * error, when it was not granted; *ref is then still set, and a command run
 * with it asks again.
 */
bool createAuthority(AuthorizationRef *ref);

/** Releases the authority and its rights and sets *ref to null; the release's status. */
OSStatus freeAuthority(AuthorizationRef *ref);

/**
 * Runs tool (an absolute path) as root with the arguments of the null-
 * terminated argv (the tool's own path not repeated), copying its standard
 * output to standard error until the output ends. True when the tool was
 * started; its exit code is never read. A failure is reported on standard error.
 */
bool runCommandWithAuthority(AuthorizationRef auth, const char *tool, char *const *argv);

/** runCommandWithAuthority with the arguments as a list. */
bool runCommandWithAuthority(AuthorizationRef auth, const char *tool, std::initializer_list<const char *> args);

/**
 * As runCommandWithAuthority, but the command and its standard output go to
 * log. True only when the tool was started and printed at least one byte.
 */
bool runCommandWithAuthorityToLog(AuthorizationRef auth, const char *tool, char *const *argv, FILE *log);

#endif
