#!/bin/bash
# own_group.sh COMMAND...: runs a command in a control group and a mount namespace of its own. What it mounts
# goes when it ends, and so do all processes that it leaves behind. Ends with the command's status, or with 77
# where there are no control groups.
set -eu

tree=$(findmnt --noheadings --output TARGET --types cgroup2 | head -1)
[ -n "$tree" ] || exit 77
group=$tree/vmescape-test-$$
mkdir "$group"

end() {
    echo 1 >"$group/cgroup.kill"
    # What was killed leaves its group a moment later.
    local tries=100
    until find "$group" -depth -type d -exec rmdir {} + 2>/dev/null || [ "$((tries -= 1))" -eq 0 ]; do
        sleep 0.1
    done
}
trap end EXIT

status=0
# It ends with this script, whatever ends that.
setpriv --pdeathsig KILL bash -c 'echo $$ >"$1/cgroup.procs"; shift; exec "$@"' - "$group" \
    unshare --mount --cgroup --propagation private "$@" || status=$?
exit "$status"
