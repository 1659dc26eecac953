/* Declarations for the macOS compile check, from Apple's documentation of TargetConditionals.h:
 * the build targets macOS on an Intel or Apple silicon Mac, not iOS, tvOS, watchOS or a simulator. */
#ifndef VELD_MACSDK_TARGETCONDITIONALS_H
#define VELD_MACSDK_TARGETCONDITIONALS_H

#define TARGET_OS_MAC 1
#define TARGET_OS_OSX 1
#define TARGET_OS_IPHONE 0
#define TARGET_OS_IOS 0
#define TARGET_OS_TV 0
#define TARGET_OS_WATCH 0
#define TARGET_OS_MACCATALYST 0
#define TARGET_OS_SIMULATOR 0
#define TARGET_OS_EMBEDDED 0
#define TARGET_CPU_X86_64 1
#define TARGET_RT_LITTLE_ENDIAN 1
#define TARGET_RT_64_BIT 1

#endif
