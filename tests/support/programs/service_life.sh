#!/bin/bash
# service_life.sh UNIT AGENT FOLDER: runs the agent as the service manager runs it, sandbox and watchdog
# included: in a manager of its own, below a copy of the unit file that only has other paths and a shorter
# watchdog. Ends with 77 where no such manager starts.
set -eu

here=$(dirname "$0")
. "$here/waiting.sh"

# A manager takes the control group that it sees as the root of all for its own, moves everybody in it, and
# limits them. So it is shown one that was made for it.
if [ "${1:-}" != --inside ]; then
    exec "$here/own_group.sh" "$0" --inside "$@"
fi
shift
mount -t cgroup2 none /sys/fs/cgroup

unit=$1
agent=$2
folder=$(realpath "$3")

fail() {
    echo "failed: $1"
    cat "$folder/log"
    exit 1
}
manage() { systemctl --user "$@"; }
property() { manage show --property "$1" --value vmescape-agent; }

# A manager starts only where it finds that the system was booted with one.
mkdir -p /run/systemd
mount -t tmpfs none /run/systemd
mkdir /run/systemd/system
# The journal takes alarms too: an empty one, which leaves the host's, its kernel log and its audit alone.
mkdir -p /run/log
mount -t tmpfs none /run/log
mkdir /run/systemd/journald.conf.d
printf '[Journal]\nStorage=volatile\nAudit=\nReadKMsg=no\nForwardToSyslog=no\nForwardToWall=no\n' \
    >/run/systemd/journald.conf.d/test.conf
setpriv --pdeathsig TERM /lib/systemd/systemd-journald &
chmod 755 "$folder"
mkdir -p -m 700 "$folder/run"
mkdir -p "$folder/.config/systemd/user" "$folder/policies" "$folder/secrets"
export XDG_RUNTIME_DIR=$folder/run HOME=$folder
setpriv --pdeathsig TERM /lib/systemd/systemd --user --log-target=console >"$folder/log" 2>&1 &
manager=$!
trap 'kill $manager 2>/dev/null || true; wait $manager || true' EXIT
answers() { manage is-system-running 2>&1 | grep -qE 'running|degraded'; }
wait_for 20 answers || exit 77

echo secret >"$folder/secrets/key"
policy() { # FEATURE CONTENT
    echo "{\"module_name\":\"vmescape_module\",\"enabled\":true,\"content\":{$2}}" >"$folder/policies/$1.json"
}
policy qemu_cmd_detect_feature '"monitor_list":[{"virtcmd":"vmescape-trial","cmdlist":[]}]'
policy qemu_file_detect_feature "\"senstive_dirs\":[\"$folder/secrets\"],\"monitor_list\":[{\"virtmonitor\":\"vmescape-trial\",\"filelist\":[]}]"
policy qemu_port_detect_feature '"monitor_list":[{"virtmonitor":"vmescape-trial","portlist":[]}]'
options="run --policies $folder/policies --output file:$folder/alarms,journald -o status.socket=$folder/socket"
sed -e "s|^ExecStart=.*|ExecStart=$agent $options|" -e 's/^WatchdogSec=.*/WatchdogSec=2/' "$unit" \
    >"$folder/.config/systemd/user/vmescape-agent.service"
manage daemon-reload

echo "it is started when it says that it watches"
manage start vmescape-agent || fail 'it does not start'
first=$(property MainPID)
"$agent" status --socket "$folder/socket" || fail 'it is not up'
grep -q '^NoNewPrivs:[[:space:]]*1' "/proc/$first/status" || fail 'it may gain privileges'
grep -q '^Seccomp:[[:space:]]*2' "/proc/$first/status" || fail 'its system calls are not filtered'

echo "what it sees from within its sandbox"
sees() { # CLASS
    grep -q "\"event_classid\":\"$1\"" "$folder/alarms" 2>/dev/null
}
sees_all() { sees vmescape_0001 && sees vmescape_0002 && sees vmescape_0003; }
ln -s "$agent" "$folder/vmescape-trial"
mkfifo "$folder/orders"
"$folder/vmescape-trial" selftest-actor -name guest=vm-service <"$folder/orders" >"$folder/began" &
exec 9>"$folder/orders"
printf 'command\nport\n' >&9
# The folder is watched from a moment after the start on.
touch_and_look() {
    echo "file $folder/secrets/key" >&9
    sees vmescape_0002
}
wait_for 20 touch_and_look || fail 'no alarm of a file'
wait_for 30 sees_all || fail 'no alarm of a command or a port'
exec 9>&-
in_journal() { journalctl --directory="$(echo /run/log/journal/*)" VMESCAPE_CLASS="$1" | grep -q vm-service; }
for class in vmescape_0001 vmescape_0002 vmescape_0003; do
    wait_for 10 in_journal "$class" || fail "the journal has no alarm $class"
done

echo "it is fed by the agent, so that it waits"
kept=$(date +%s)
outlives() { [ "$(property MainPID)" = "$first" ] && [ $(($(date +%s) - kept)) -ge 5 ]; }
wait_for 10 outlives || fail 'it was started anew while it worked'

echo "when it stands still it is started anew"
kill -STOP "$first"
renewed() { [ "$(property NRestarts)" = 1 ] && [ "$(property ActiveState)" = active ]; }
wait_for 30 renewed || fail 'the watchdog did not start it anew'
"$agent" status --socket "$folder/socket" || fail 'the new one is not up'

manage stop vmescape-agent
[ "$(property Result)" = success ] || fail 'it did not end cleanly'
echo good
