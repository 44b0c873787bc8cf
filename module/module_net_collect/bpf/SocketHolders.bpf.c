/* Goes through the open files of all processes inside the kernel and reports those that are sockets
 * open for others: listening TCP and unconnected UDP. One pass costs a fraction of reading the
 * links below /proc, because nothing leaves the kernel but what is wanted. */

#include "SocketHolder.h"

#include <linux/bpf.h>
#include <linux/in.h>

#include <bpf/bpf_core_read.h>
#include <bpf/bpf_helpers.h>
#include <bpf/bpf_tracing.h>

/* include/linux/socket.h */
#define AF_INET 2
#define AF_INET6 10

/* include/net/tcp_states.h; a UDP socket that is connected to nobody is TCP_CLOSE. */
#define TCP_CLOSE 7
#define TCP_LISTEN 10

/* The few kernel types that are read, reduced to the members needed. The loader finds out where the
 * running kernel keeps them. */
#pragma clang attribute push(__attribute__((preserve_access_index)), apply_to = record)

struct inode {
    unsigned long i_ino;
};

struct file {
    struct inode* f_inode;
};

struct sock_common {
    unsigned short skc_family;
    volatile unsigned char skc_state;
};

struct sock {
    struct sock_common __sk_common;
    __u16 sk_protocol;
};

struct socket {
    struct sock* sk;
};

struct task_struct {
    int tgid;
};

struct bpf_iter_meta {
    struct seq_file* seq;
};

struct bpf_iter__task_file {
    struct bpf_iter_meta* meta;
    struct task_struct* task;
    __u32 fd;
    struct file* file;
};

#pragma clang attribute pop

static int is_open_for_others(struct sock* sk) {
    unsigned short family = BPF_CORE_READ(sk, __sk_common.skc_family);
    unsigned char state = BPF_CORE_READ(sk, __sk_common.skc_state);
    __u16 protocol = BPF_CORE_READ(sk, sk_protocol);
    if (family != AF_INET && family != AF_INET6) {
        return 0;
    }
    return (protocol == IPPROTO_TCP && state == TCP_LISTEN) ||
           (protocol == IPPROTO_UDP && state == TCP_CLOSE);
}

SEC("iter/task_file")
int report_sockets(struct bpf_iter__task_file* context) {
    struct file* file = context->file;
    struct task_struct* task = context->task;
    struct SocketHolder holder = {};
    struct socket* socket;
    struct sock* sk;
    if (!file || !task) {
        return 0;
    }
    socket = bpf_sock_from_file(file);
    if (!socket) {
        return 0;
    }
    sk = BPF_CORE_READ(socket, sk);
    if (!sk || !is_open_for_others(sk)) {
        return 0;
    }
    holder.inode = BPF_CORE_READ(file, f_inode, i_ino);
    holder.pid = task->tgid;
    /* When the buffer is full the kernel hands it over and calls again for the same file. */
    bpf_seq_write(context->meta->seq, &holder, sizeof(holder));
    return 0;
}

char LICENSE[] SEC("license") = "GPL";
