/* Declarations for the macOS compile check, from Apple's documentation of Availability.h: the
 * version numbers as 10xxyy values, and a deployment target of macOS 10.13 (Qt 5.15's minimum)
 * built with the macOS 11 SDK. */
#ifndef VELD_MACSDK_AVAILABILITY_H
#define VELD_MACSDK_AVAILABILITY_H

#define __MAC_10_0 1000
#define __MAC_10_1 1010
#define __MAC_10_2 1020
#define __MAC_10_3 1030
#define __MAC_10_4 1040
#define __MAC_10_5 1050
#define __MAC_10_6 1060
#define __MAC_10_7 1070
#define __MAC_10_8 1080
#define __MAC_10_9 1090
#define __MAC_10_10 101000
#define __MAC_10_11 101100
#define __MAC_10_12 101200
#define __MAC_10_13 101300
#define __MAC_10_14 101400
#define __MAC_10_15 101500
#define __MAC_10_16 101600
#define __MAC_11_0 110000

#define __MAC_OS_X_VERSION_MIN_REQUIRED __MAC_10_13
#define __MAC_OS_X_VERSION_MAX_ALLOWED __MAC_11_0

#endif
