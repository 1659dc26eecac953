/* Declarations for the macOS compile check, from Apple's sys/mount.h and its statfs(2) page: the
 * 64-bit-inode form of struct statfs, which carries the mounted device's name. */
#ifndef VELD_MACSDK_SYS_MOUNT_H
#define VELD_MACSDK_SYS_MOUNT_H

#include <stdint.h>
#include <sys/types.h> /* fsid_t, uid_t */

#ifdef __cplusplus
extern "C" {
#endif

#define MFSTYPENAMELEN 16
#define MNAMELEN 1024

struct statfs {
    uint32_t f_bsize;
    int32_t f_iosize;
    uint64_t f_blocks;
    uint64_t f_bfree;
    uint64_t f_bavail;
    uint64_t f_files;
    uint64_t f_ffree;
    fsid_t f_fsid;
    uid_t f_owner;
    uint32_t f_type;
    uint32_t f_flags;
    uint32_t f_fssubtype;
    char f_fstypename[MFSTYPENAMELEN];
    char f_mntonname[MNAMELEN];
    char f_mntfromname[MNAMELEN];
    uint32_t f_flags_ext;
    uint32_t f_reserved[7];
};

int statfs(const char *path, struct statfs *buf);

#ifdef __cplusplus
}
#endif

#endif
