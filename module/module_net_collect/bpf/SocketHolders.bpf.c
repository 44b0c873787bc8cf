/* Goes through the open files of all processes inside the kernel and reports those that are sockets
 * open for others: listening TCP and unconnected UDP. One pass costs a fraction of reading the
 * links below /proc, because nothing leaves the kernel but what is wanted.
 *
 * There are two ways. report_tables reads the table of open files of a whole process at once; the
 * kernel gives it one buffer for each process. report_files is called for each open file, which
 * costs three times as much, and is for the process whose sockets do not fit into that buffer. */

#include "SocketHolder.h"

#include <linux/bpf.h>
#include <linux/in.h>

#include <bpf/bpf_core_read.h>
#include <bpf/bpf_helpers.h>
#include <bpf/bpf_tracing.h>

/* include/linux/socket.h */
#define AF_INET 2
#define AF_INET6 10

/* include/uapi/linux/stat.h */
#define S_IFMT 00170000
#define S_IFSOCK 0140000

/* include/net/tcp_states.h; a UDP socket that is connected to nobody is TCP_CLOSE. */
#define TCP_CLOSE 7
#define TCP_LISTEN 10

/* The few kernel types that are read, reduced to the members needed. The loader finds out where the
 * running kernel keeps them. */
#pragma clang attribute push(__attribute__((preserve_access_index)), apply_to = record)

struct inode {
    unsigned short i_mode;
    unsigned long i_ino;
};

struct file {
    struct inode* f_inode;
    void* private_data;
};

struct fdtable {
    unsigned int max_fds;
    struct file** fd;
};

struct files_struct {
    struct fdtable* fdt;
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
    struct file* file;
    struct sock* sk;
};

struct task_struct {
    int tgid;
    struct task_struct* group_leader;
    struct files_struct* files;
};

struct bpf_iter_meta {
    struct seq_file* seq;
};

struct bpf_iter__task {
    struct bpf_iter_meta* meta;
    struct task_struct* task;
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

/* Reports a file that is such a socket. */
static int report(struct seq_file* out, struct file* file, struct socket* socket, __u32 pid) {
    struct SocketHolder holder = {};
    struct sock* sk = BPF_CORE_READ(socket, sk);
    if (!sk || !is_open_for_others(sk)) {
        return 0;
    }
    holder.inode = BPF_CORE_READ(file, f_inode, i_ino);
    holder.pid = pid;
    return bpf_seq_write(out, &holder, sizeof(holder));
}

/* A table of open files on the way through it. */
struct walk {
    struct seq_file* out;
    struct file** files;
    __u32 pid;
};

static struct file* file_at(struct file** files, __u32 index) {
    struct file* file = 0;
    bpf_probe_read_kernel(&file, sizeof(file), files + index);
    return file;
}

/* The files are only looked at, not held: one may be closed and its memory used for another
 * meanwhile. What was read of it counts only if it still stands in the table afterwards. */
static long visit(__u32 index, struct walk* walk) {
    struct file* file = file_at(walk->files, index);
    struct socket* socket;
    if (!file || (BPF_CORE_READ(file, f_inode, i_mode) & S_IFMT) != S_IFSOCK) {
        return 0;
    }
    socket = BPF_CORE_READ(file, private_data);
    /* A path's socket that was opened with O_PATH has no socket behind it. */
    if (!socket || BPF_CORE_READ(socket, file) != file || file_at(walk->files, index) != file) {
        return 0;
    }
    return report(walk->out, file, socket, walk->pid) != 0;
}

SEC("iter/task")
int report_tables(struct bpf_iter__task* context) {
    struct task_struct* task = context->task;
    struct walk walk = {};
    struct files_struct* files;
    struct fdtable* table;
    if (!task) {
        return 0;
    }
    files = BPF_CORE_READ(task, files);
    if (!files) {
        return 0;
    }
    /* Threads share the table of their process, as a rule. */
    if (task != task->group_leader && BPF_CORE_READ(task, group_leader, files) == files) {
        return 0;
    }
    table = BPF_CORE_READ(files, fdt);
    walk.out = context->meta->seq;
    walk.files = BPF_CORE_READ(table, fd);
    walk.pid = task->tgid;
    /* Fails beyond 2^23 files (BPF_MAX_LOOPS, include/linux/bpf.h). */
    if (bpf_loop(BPF_CORE_READ(table, max_fds), visit, &walk, 0) < 0) {
        struct SocketHolder too_many_files = {};
        bpf_seq_write(walk.out, &too_many_files, sizeof(too_many_files));
    }
    return 0;
}

SEC("iter/task_file")
int report_files(struct bpf_iter__task_file* context) {
    struct file* file = context->file;
    struct task_struct* task = context->task;
    struct socket* socket;
    if (!file || !task) {
        return 0;
    }
    socket = bpf_sock_from_file(file);
    if (socket) {
        /* When the buffer is full the kernel hands it over and calls again for the same file. */
        report(context->meta->seq, file, socket, task->tgid);
    }
    return 0;
}

char LICENSE[] SEC("license") = "GPL";
