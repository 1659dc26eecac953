/* Declarations for the macOS compile check, from Apple's documentation of MacTypes.h (64-bit). */
#ifndef VELD_MACSDK_MACTYPES_H
#define VELD_MACSDK_MACTYPES_H

typedef unsigned char Boolean;
typedef unsigned int UInt32;
typedef signed int SInt32;
typedef SInt32 OSStatus;

#endif
