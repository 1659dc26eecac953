#ifndef VELD_PLATFORM_AUTHORITY_OS_H
#define VELD_PLATFORM_AUTHORITY_OS_H

// The system's side of the authority, one body per system. The texts, the
// order of the steps and the meaning of the results live in authority.cpp.

#include "authority.h"

#include <cstddef>
#include <functional>

/** The largest piece of a tool's output that reaches the installer at once, on both systems. */
constexpr size_t kToolOutputPiece = 128;

/** Receives a tool's standard output, in the pieces in which it arrives (at most kToolOutputPiece bytes). */
using ToolOutput = std::function<void(const char *data, size_t size)>;

/** Makes a new authority in *ref, holding no right yet. */
OSStatus osCreateAuthority(AuthorizationRef *ref);

/** Asks for the administrator right on ref; this is where the user is asked. */
OSStatus osRequestAdminRight(AuthorizationRef ref);

/** Releases ref (which may be null) and destroys its rights. */
OSStatus osReleaseAuthority(AuthorizationRef ref);

/**
 * Starts tool with argv as root and passes its standard output to output until
 * it ends. *hadOutputPipe tells whether an output channel came back at all.
 * Returns the status of the start.
 */
OSStatus osExecuteWithAuthority(AuthorizationRef ref, const char *tool, char *const *argv, const ToolOutput &output,
                                bool *hadOutputPipe);

#endif
