/* Declarations for the macOS compile check, from Apple's libproc.h: only proc_pidpath. */
#ifndef VELD_MACSDK_LIBPROC_H
#define VELD_MACSDK_LIBPROC_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The path of the executable of process pid; its length, or 0 or less on failure. */
int proc_pidpath(int pid, void *buffer, uint32_t buffersize);

#ifdef __cplusplus
}
#endif

#endif
