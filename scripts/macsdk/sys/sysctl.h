/* Declarations for the macOS compile check, from Apple's sys/sysctl.h and its sysctl(3) page. */
#ifndef VELD_MACSDK_SYS_SYSCTL_H
#define VELD_MACSDK_SYS_SYSCTL_H

#include <stddef.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

#define CTL_HW 6
#define HW_NCPU 3
#define HW_MEMSIZE 24

int sysctl(int *name, u_int namelen, void *oldp, size_t *oldlenp, void *newp, size_t newlen);
int sysctlbyname(const char *name, void *oldp, size_t *oldlenp, void *newp, size_t newlen);

#ifdef __cplusplus
}
#endif

#endif
