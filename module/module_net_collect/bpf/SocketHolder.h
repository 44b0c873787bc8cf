/* What the kernel side and the reader of socket holders share. */
#ifndef SOCKET_HOLDER_H
#define SOCKET_HOLDER_H

#ifdef __cplusplus
#include <cstdint>
using SocketHolderU64 = std::uint64_t;
using SocketHolderU32 = std::uint32_t;
#else
#include <linux/types.h>
typedef __u64 SocketHolderU64;
typedef __u32 SocketHolderU32;
#endif

/* A process that has a socket among its open files. One whose inode is 0 says that a process has
 * more files open than one program can go through. */
struct SocketHolder {
    SocketHolderU64 inode; /* of the socket */
    SocketHolderU32 pid;   /* of the process, not of a thread */
    SocketHolderU32 unused;
};

#ifdef __cplusplus
static_assert(sizeof(SocketHolder) == 16, "both sides must agree");
#else
_Static_assert(sizeof(struct SocketHolder) == 16, "both sides must agree");
#endif

#endif
