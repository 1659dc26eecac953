#ifndef VELD_PLATFORM_LOCATIONS_H
#define VELD_PLATFORM_LOCATIONS_H

// The fixed folders of the installation, which differ between the systems.

#ifdef __APPLE__
/** Where the database goes unless the user picks another parent folder. */
inline constexpr char kDefaultDestination[] = "/Library/Application Support/Halvornworks/VELDV400";
/** The parent whose volume stands for every destination below it, whether or not the destination exists yet. */
inline constexpr char kSharedParent[] = "/Library/Application Support";
/** The tool that gives a folder to a user and a group, run with rights. */
inline constexpr char kChownTool[] = "/usr/sbin/chown";
/** The maker's folder, shared by its products and prepared for all administrators. */
inline constexpr char kMakersFolder[] = "/Library/Application Support/Halvornworks";
/** The destination used when the page is shown without one; the missing blank is the product's own. */
inline constexpr char kFallbackDestination[] = "/Library/ApplicationSupport/Halvornworks/VELDV400";
/** The system-wide preferences, for all users; the privileged helper writes nowhere else. */
inline constexpr char kSystemPreferencesFolder[] = "/Library/Preferences";
#else
inline constexpr char kDefaultDestination[] = "/usr/local/share/Halvornworks/VELDV400";
inline constexpr char kSharedParent[] = "/usr/local/share";
inline constexpr char kChownTool[] = "/bin/chown";
inline constexpr char kMakersFolder[] = "/usr/local/share/Halvornworks";
inline constexpr char kFallbackDestination[] = "/usr/local/share/Halvornworks/VELDV400";
// A constant, as on macOS: a desktop's XDG_CONFIG_DIRS never sends the system-wide preference elsewhere.
inline constexpr char kSystemPreferencesFolder[] = "/etc/xdg";
#endif

/** The name of the database's folder; the destination chooser numbers it ("VELDV400_0", ...) when it is taken. */
inline constexpr char kDatabaseFolderName[] = "VELDV400";

/** The system-wide preference that tells the modelling application where the database is. */
inline constexpr char kDatabasePrefDomain[] = "com.halvorn.QuorvanVELD";
inline constexpr char kDatabasePrefKey[] = "VELDFullDatabasePath";

/** The compute service's label in its launch definition. */
inline constexpr char kServiceLabel[] = "com.halvorn.qv_computeservice";

/** Where the compute service's launch definition goes: for the whole system, and for every user's session. */
inline constexpr char kLaunchDaemonDefinition[] = "/Library/LaunchDaemons/com.halvorn.qv_computeservice.plist";
inline constexpr char kLaunchAgentDefinition[] = "/Library/LaunchAgents/com.halvorn.qv_computeservice.plist";

#endif
