/* Declarations for the macOS compile check, from Apple's dlfcn.h and its dlopen(3) page. */
#ifndef VELD_MACSDK_DLFCN_H
#define VELD_MACSDK_DLFCN_H

#ifdef __cplusplus
extern "C" {
#endif

#define RTLD_LOCAL 0x4
#define RTLD_FIRST 0x100

void *dlopen(const char *path, int mode);
void *dlsym(void *handle, const char *symbol);
int dlclose(void *handle);
char *dlerror(void);

#ifdef __cplusplus
}
#endif

#endif
