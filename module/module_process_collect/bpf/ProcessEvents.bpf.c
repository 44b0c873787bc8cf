/* Reports processes from inside the kernel: who forked, what was executed with which arguments, and
 * which process ended. Everything is taken at the event itself, because a short-lived process is
 * gone before user space could ask for it. */

#include "ProcessRecord.h"

#include <linux/bpf.h>

#include <stdbool.h>

#include <bpf/bpf_core_read.h>
#include <bpf/bpf_helpers.h>
#include <bpf/bpf_tracing.h>

/* A program takes what its tracepoint hands over, needed or not. */
#pragma clang diagnostic ignored "-Wunused-parameter"

/* Directories and mounts on the way from an executable to the root of its mount namespace. */
#define PATH_STEPS 128

/* NAME_MAX of linux/limits.h, as a mask: the verifier has to see the bound. */
#define NAME_MASK 255

#define ARGUMENT_MASK (PROCESS_ARGUMENT_BYTES - 1)
#define PATH_MASK (PROCESS_PATH_BYTES - 1)

/* The few kernel types that are read, reduced to the members needed. The loader finds out where the
 * running kernel keeps them, so that no kernel's headers are needed to build this. */
#pragma clang attribute push(__attribute__((preserve_access_index)), apply_to = record)

typedef struct {
    int counter;
} atomic_t;

struct qstr {
    __u32 len;
    const unsigned char* name;
};

struct dentry {
    struct dentry* d_parent;
    struct qstr d_name;
};

struct vfsmount {
    struct dentry* mnt_root;
};

struct mount {
    struct mount* mnt_parent;
    struct dentry* mnt_mountpoint;
    struct vfsmount mnt;
};

struct path {
    struct vfsmount* mnt;
    struct dentry* dentry;
};

struct file {
    struct path f_path;
};

struct mm_struct {
    unsigned long start_stack;
    unsigned long arg_start;
    unsigned long arg_end;
    struct file* exe_file;
};

struct signal_struct {
    atomic_t live;
};

struct task_struct {
    int pid;
    int tgid;
    struct task_struct* real_parent;
    struct task_struct* group_leader;
    struct mm_struct* mm;
    struct signal_struct* signal;
    __u64 start_boottime;
    char comm[PROCESS_COMM_BYTES];
};

#pragma clang attribute pop

struct linux_binprm;

enum WalkResult {
    WALK_ON,
    WALK_DONE,
    WALK_FAILED,
};

/* How far a path is written. It is kept in memory, not in registers, because the verifier would
 * otherwise follow every mixture of directories and mounts apart, and give up. */
struct Walk {
    struct dentry* dentry;
    struct mount* mount;
    __u32 position; /* where the path begins in the buffer */
    char path[PROCESS_PATH_BYTES + NAME_MASK + 1];
};

/* Where an exec record is put together: too large for the stack of 512 bytes. */
struct Scratch {
    struct ProcessRecord record;
    char texts[PROCESS_ARGUMENT_BYTES + PROCESS_PATH_BYTES];
    struct Walk walk;
};

struct {
    __uint(type, BPF_MAP_TYPE_RINGBUF);
    __uint(max_entries, 1 << 22);
} events SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __uint(max_entries, 1);
    __type(key, __u32);
    __type(value, struct Scratch);
} scratches SEC(".maps");

struct ProcessShared shared;

/* GPL: the helpers that read kernel memory are for such programs only. */
char LICENSE[] SEC("license") = "GPL";

static __always_inline void CountLoss(enum ProcessLoss reason) {
    __sync_fetch_and_add(&shared.losses[reason], 1);
}

/* Ends the reader's sleep. Call it after the record is committed: the commit is a full barrier, so
 * either this sees that the reader sleeps or the reader sees the record. The wake-up itself rides
 * on an empty record that the reader never gets to see. */
static __always_inline void WakeReader(void) {
    volatile __u32* asleep = &shared.readerAsleep;
    void* note;

    if (*asleep == 0)
        return;
    *asleep = 0;
    note = bpf_ringbuf_reserve(&events, sizeof(__u64), 0);
    if (note)
        bpf_ringbuf_discard(note, BPF_RB_FORCE_WAKEUP);
}

/* Forks and exits can wait for the next exec or for the reader's own time-out, which halves the
 * number of wake-ups; but they must not fill the ring while the reader sleeps. */
static __always_inline void WakeReaderWhenFilling(void) {
    if (bpf_ringbuf_query(&events, BPF_RB_AVAIL_DATA) >= shared.wakeThreshold)
        WakeReader();
}

static __always_inline void FillHeader(struct ProcessRecord* record, enum ProcessRecordType type,
                                       struct task_struct* leader) {
    record->version = PROCESS_RECORD_VERSION;
    record->type = type;
    record->flags = 0;
    record->argumentBytes = 0;
    record->pathBytes = 0;
    record->reserved[0] = 0;
    record->reserved[1] = 0;
    record->reserved[2] = 0;
    record->stackStart = 0;
    record->argumentStart = 0;
    record->pid = leader->tgid;
    record->startTime = leader->start_boottime;
    record->eventTime = 0;
    bpf_probe_read_kernel(record->comm, sizeof(record->comm), leader->comm);
}

static __always_inline void SendShort(enum ProcessRecordType type, struct task_struct* leader,
                                      int parentPid, enum ProcessLoss loss) {
    struct ProcessRecord* record = bpf_ringbuf_reserve(&events, sizeof(*record), 0);

    if (!record) {
        CountLoss(loss);
        return;
    }
    FillHeader(record, type, leader);
    record->parentPid = parentPid;
    bpf_ringbuf_submit(record, BPF_RB_NO_WAKEUP);
    WakeReaderWhenFilling();
}

SEC("tp_btf/sched_process_fork")
int BPF_PROG(OnFork, struct task_struct* parent, struct task_struct* child) {
    /* A new thread is no new process. */
    if (child->pid != child->tgid)
        return 0;
    /* With CLONE_PARENT the kernel names the caller's parent; the caller is who did it. */
    SendShort(PROCESS_FORK, child, bpf_get_current_pid_tgid() >> 32, PROCESS_LOSS_FORK_RING_FULL);
    return 0;
}

SEC("tp_btf/sched_process_exit")
int BPF_PROG(OnExit, struct task_struct* task) {
    if (task->signal->live.counter != 0)
        return 0;
    SendShort(PROCESS_EXIT, task->group_leader, 0, PROCESS_LOSS_EXIT_RING_FULL);
    return 0;
}

/* Puts "/name" in front of the path. Returns false when there is no room. */
static __always_inline bool PrependName(struct Walk* walk, struct dentry* dentry) {
    const unsigned char* name = BPF_CORE_READ(dentry, d_name.name);
    const __u32 length = BPF_CORE_READ(dentry, d_name.len) & NAME_MASK;
    __u32 position = walk->position;

    if (position <= length + 1)
        return false;
    position -= length;
    bpf_probe_read_kernel(walk->path + (position & PATH_MASK), length, name);
    position -= 1;
    walk->path[position & PATH_MASK] = '/';
    walk->position = position;
    return true;
}

/* Goes one step towards the root: into the directory above, or across a mount. */
static __always_inline enum WalkResult StepUp(struct Walk* walk) {
    struct dentry* dentry = walk->dentry;
    struct mount* mount = walk->mount;
    struct dentry* parent;

    if (dentry == BPF_CORE_READ(mount, mnt.mnt_root)) {
        struct mount* upper = BPF_CORE_READ(mount, mnt_parent);

        if (upper == mount)
            return WALK_DONE;
        walk->dentry = BPF_CORE_READ(mount, mnt_mountpoint);
        walk->mount = upper;
        return WALK_ON;
    }
    if (!PrependName(walk, dentry))
        return WALK_FAILED;
    parent = BPF_CORE_READ(dentry, d_parent);
    walk->dentry = parent;
    /* A file without a directory (memfd_create) is its own parent. */
    return dentry == parent ? WALK_DONE : WALK_ON;
}

/* Writes the absolute path of a file at the end of the buffer, as seen from the root of the mount
 * namespace that it is in. Returns false when it is too deep or too long. */
static __always_inline bool WritePath(struct Walk* walk, struct file* file) {
    enum WalkResult result = WALK_ON;
    int step;

    walk->dentry = BPF_CORE_READ(file, f_path.dentry);
    walk->mount = (void*)BPF_CORE_READ(file, f_path.mnt) - bpf_core_field_offset(struct mount, mnt);
    walk->position = PROCESS_PATH_BYTES;
    for (step = 0; step < PATH_STEPS; ++step) {
        result = StepUp(walk);
        if (result != WALK_ON)
            break;
    }
    return result == WALK_DONE;
}

static __always_inline __u32 TakeArguments(struct Scratch* scratch, struct mm_struct* mm) {
    const unsigned long start = mm->arg_start;
    const unsigned long all = mm->arg_end - start;
    __u32 length = PROCESS_ARGUMENT_BYTES;

    if (all > PROCESS_ARGUMENT_BYTES) {
        scratch->record.flags |= PROCESS_ARGUMENTS_CUT;
        CountLoss(PROCESS_DEFECT_ARGUMENTS_CUT);
    } else {
        length = all;
    }
    /* Keeps the compiler from testing another register than the one that is used. */
    asm volatile("" : "+r"(length));
    if (length > PROCESS_ARGUMENT_BYTES)
        return 0;
    if (bpf_probe_read_user(scratch->texts, length, (const void*)start) != 0) {
        scratch->record.flags |= PROCESS_ARGUMENTS_UNREADABLE;
        CountLoss(PROCESS_DEFECT_ARGUMENTS_UNREADABLE);
        return 0;
    }
    return length;
}

static __always_inline __u32 TakePath(struct Scratch* scratch, __u32 at, struct file* file) {
    __u32 begin;
    __u32 length;

    if (!WritePath(&scratch->walk, file)) {
        scratch->record.flags |= PROCESS_PATH_CUT;
        CountLoss(PROCESS_DEFECT_PATH_CUT);
        return 0;
    }
    begin = scratch->walk.position;
    length = (PROCESS_PATH_BYTES - begin) & PATH_MASK;
    asm volatile("" : "+r"(at));
    if (at > PROCESS_ARGUMENT_BYTES)
        return 0;
    bpf_probe_read_kernel(scratch->texts + at, length, scratch->walk.path + (begin & PATH_MASK));
    return length;
}

SEC("tp_btf/sched_process_exec")
int BPF_PROG(OnExec, struct task_struct* task, int oldPid, struct linux_binprm* program) {
    const __u32 zero = 0;
    struct Scratch* scratch = bpf_map_lookup_elem(&scratches, &zero);
    struct mm_struct* mm = task->mm;
    __u32 arguments;
    __u32 path;

    if (!scratch) {
        CountLoss(PROCESS_LOSS_NO_SCRATCH);
        return 0;
    }
    /* By now the calling thread is the leader, whichever thread called. */
    FillHeader(&scratch->record, PROCESS_EXEC, task);
    /* Forks and exits wait for the reader on purpose: their times would tell nothing. */
    scratch->record.eventTime = bpf_ktime_get_ns();
    scratch->record.parentPid = task->real_parent->tgid;
    scratch->record.stackStart = mm->start_stack;
    scratch->record.argumentStart = mm->arg_start;
    arguments = TakeArguments(scratch, mm);
    path = TakePath(scratch, arguments, mm->exe_file);
    scratch->record.argumentBytes = arguments;
    scratch->record.pathBytes = path;
    if (bpf_ringbuf_output(&events, scratch, sizeof(scratch->record) + arguments + path,
                           BPF_RB_NO_WAKEUP) != 0) {
        CountLoss(PROCESS_LOSS_EXEC_RING_FULL);
        return 0;
    }
    WakeReader();
    return 0;
}
