#pragma once

/* What the kernel side hands to user space, one record an event. This header is the only place that
 * knows the layout; the BPF program and its single reader both include it.
 *
 * A record is this header, then the arguments as the kernel keeps them (each ended by a NUL), then
 * the executable's path (not ended). Only exec records carry the two texts. */

#include <linux/types.h>

#define PROCESS_RECORD_VERSION 2

/* The longest command line and the longest path (PATH_MAX) that are taken. */
#define PROCESS_ARGUMENT_BYTES 4096
#define PROCESS_PATH_BYTES 4096

/* TASK_COMM_LEN: a process name with its NUL. It is part of the kernel's stable interface. */
#define PROCESS_COMM_BYTES 16

enum ProcessRecordType {
    PROCESS_FORK = 1,
    PROCESS_EXEC = 2,
    PROCESS_EXIT = 3,
};

/* What a record lacks. */
enum ProcessRecordFlag {
    PROCESS_ARGUMENTS_CUT = 1,        /* longer than PROCESS_ARGUMENT_BYTES */
    PROCESS_ARGUMENTS_UNREADABLE = 2, /* the pages were not in memory */
    PROCESS_PATH_CUT = 4,             /* deeper or longer than is walked */
};

struct ProcessRecord {
    __u16 version;
    __u16 type;
    __u16 flags;
    __u16 argumentBytes;
    __u16 pathBytes;
    __u16 reserved[3];
    __s32 pid;       /* of the process, as the first pid namespace counts */
    __s32 parentPid; /* fork: who forked; exec: the kernel's parent; exit: 0 */
    __u64 startTime; /* nanoseconds from boot to the fork */
    __u64 eventTime; /* exec: when, in nanoseconds of CLOCK_MONOTONIC; others: 0 */
    /* exec: where stack and arguments begin. Each exec draws them anew, so they tell one program's
     * run from the next; /proc shows the same numbers. */
    __u64 stackStart;
    __u64 argumentStart;
    char comm[PROCESS_COMM_BYTES];
};

/* Why an event is missing or incomplete; the index into ProcessShared's counters. */
enum ProcessLoss {
    PROCESS_LOSS_FORK_RING_FULL = 0,
    PROCESS_LOSS_EXEC_RING_FULL = 1,
    PROCESS_LOSS_EXIT_RING_FULL = 2,
    PROCESS_LOSS_NO_SCRATCH = 3,
    PROCESS_DEFECT_ARGUMENTS_CUT = 4,
    PROCESS_DEFECT_ARGUMENTS_UNREADABLE = 5,
    PROCESS_DEFECT_PATH_CUT = 6,
    PROCESS_LOSS_REASONS = 7,
};

/* Memory that both sides see. */
struct ProcessShared {
    __u32 readerAsleep;  /* set by the reader before it sleeps, taken back by whoever wakes it */
    __u32 wakeThreshold; /* unread bytes at which even a fork or an exit wakes the reader */
    __u64 losses[PROCESS_LOSS_REASONS];
};

#ifdef __cplusplus
static_assert(sizeof(ProcessRecord) == 72, "the layout is shared with the kernel side");
static_assert(sizeof(ProcessShared) == 64, "the layout is shared with the kernel side");
#else
_Static_assert(sizeof(struct ProcessRecord) == 72, "the layout is shared with the reader");
_Static_assert(sizeof(struct ProcessShared) == 64, "the layout is shared with the reader");
#endif
