#ifndef VELD_PLATFORM_VOLUME_H
#define VELD_PLATFORM_VOLUME_H

#include <string>

/**
 * True when both paths can be examined and lie on the same mounted volume:
 * the same mounted-from device name (macOS, statfs) or the same device number
 * (Linux, stat). A path that cannot be examined lies on no volume, so the
 * answer is then false.
 */
bool sameVolume(const std::string &a, const std::string &b);

/**
 * The folder that df is asked about for folder's free space. macOS: folder
 * itself (it always exists there). Linux: folder when it exists, else its
 * nearest existing ancestor, so that a destination whose parents are not made
 * yet is measured on the volume that will hold them.
 */
std::string spaceProbeFolder(const std::string &folder);

#endif
