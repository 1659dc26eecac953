/* Declarations for the macOS compile check, from Apple's documentation of Authorization Services
 * (Security/Authorization.h): only what the macOS bodies use. */
#ifndef VELD_MACSDK_AUTHORIZATION_H
#define VELD_MACSDK_AUTHORIZATION_H

#include <MacTypes.h>

#include <stddef.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    errAuthorizationSuccess = 0,
    errAuthorizationInvalidRef = -60002,
    errAuthorizationDenied = -60005,
    errAuthorizationCanceled = -60006,
    errAuthorizationInternal = -60008,
    errAuthorizationToolExecuteFailure = -60031,
    errAuthorizationToolEnvironmentError = -60032,
};

typedef UInt32 AuthorizationFlags;
enum {
    kAuthorizationFlagDefaults = 0,
    kAuthorizationFlagInteractionAllowed = (1 << 0),
    kAuthorizationFlagExtendRights = (1 << 1),
    kAuthorizationFlagDestroyRights = (1 << 3),
    kAuthorizationFlagPreAuthorize = (1 << 4),
};

typedef const struct AuthorizationOpaqueRef *AuthorizationRef;
typedef const char *AuthorizationString;

typedef struct {
    AuthorizationString name;
    size_t valueLength;
    void *value;
    UInt32 flags;
} AuthorizationItem;

typedef struct {
    UInt32 count;
    AuthorizationItem *items;
} AuthorizationItemSet;

typedef AuthorizationItemSet AuthorizationRights;
typedef AuthorizationItemSet AuthorizationEnvironment;

#define kAuthorizationEnvironmentPrompt "prompt"
#define kAuthorizationRightExecute "system.privilege.admin"

OSStatus AuthorizationCreate(const AuthorizationRights *rights, const AuthorizationEnvironment *environment,
                             AuthorizationFlags flags, AuthorizationRef *authorization);
OSStatus AuthorizationFree(AuthorizationRef authorization, AuthorizationFlags flags);
OSStatus AuthorizationCopyRights(AuthorizationRef authorization, const AuthorizationRights *rights,
                                 const AuthorizationEnvironment *environment, AuthorizationFlags flags,
                                 AuthorizationRights **authorizedRights);
/* Deprecated since macOS 10.7, as Apple's header marks it. */
OSStatus AuthorizationExecuteWithPrivileges(AuthorizationRef authorization, const char *pathToTool,
                                            AuthorizationFlags options, char *const *arguments,
                                            FILE **communicationsPipe) __attribute__((deprecated));

#ifdef __cplusplus
}
#endif

#endif
