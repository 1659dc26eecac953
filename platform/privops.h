#ifndef VELD_PLATFORM_PRIVOPS_H
#define VELD_PLATFORM_PRIVOPS_H

#include "authpolicy.h"

/*
 * The privileged helper's operations, carried out by the helper itself on
 * descriptors: every part of a path is opened without following symbolic
 * links, so no operation ever follows a link it did not create. Failures are
 * told on standard error in the words of the tool the request names.
 */

enum class Outcome { Done, Failed, Refused };

/**
 * Carries out an admitted operation. Refused, with *why, when what the file
 * system shows puts it outside the installation (admitFound): a temporary
 * file that is not the calling user's own or does not hold the product's
 * definition for that user, a file or link where a folder is changed, a
 * destination folder or launch definition that this helper did not make, a
 * preference or definition folder that someone other than root can change.
 */
Outcome perform(const Operation &op, HelperRun &run, std::string *why);

#endif
