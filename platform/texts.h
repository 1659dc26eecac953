#ifndef VELD_PLATFORM_TEXTS_H
#define VELD_PLATFORM_TEXTS_H

// Texts that the user reads in more than one place, written once.

/** The program's name in messages, dialog titles and the help folder. */
inline constexpr char kProgramName[] = "VELD Installer";

/** The window's title and the first two pages' title, each translated in its own class's context. */
inline constexpr char kWelcomeTitle[] = "Welcome to the Quorvan Spectra and Properties Database Installer";

/** Ends every reason shown before administrator rights are asked for. */
inline constexpr char kPasswordFollows[] = "You will be asked to provide the name and password of a user that has "
                                           "administrative capabilities for this computer.";

#endif
