#!/bin/bash
# newcomer.sh PACKAGE CACHE FOLDER BROKERS: what somebody does who has a fresh Debian and the package, from installing
# it over the first alarm and a broken policy to an upgrade and the removal. The Debian is made in FOLDER, which
# is empty afterwards; what it was made of is kept in CACHE. BROKERS is the program that plays a Kafka. Lines with "$" are what the newcomer types.
# Ends with 77 where something is missing, and says what.
#
# The service runs from the package's unit, in a real service manager, and starts and stops with the package. It
# is systemd's manager for users, as the one for systems must be the first process of a pid namespace of its own,
# and an agent in there would not see the host. It is shown the system's units, and answers where systemctl
# asks the system's manager.
set -eu

here=$(dirname "$0")
. "$here/waiting.sh"

missing() {
    echo "missing: $1"
    exit 77
}
if [ "${1:-}" != --inside ]; then
    [ "$(id -u)" -eq 0 ] || missing root
    for program in debootstrap qemu-system-x86_64 findmnt setpriv unshare; do
        command -v "$program" >/dev/null || missing "$program"
    done
    exec "$here/own_group.sh" "$0" --inside "$@"
fi
shift
package=$(realpath "$1")
cache=$2
work=$(realpath "$3")
brokers=$4
root=$work/debian
vm="vm-newcomer"

commands=0 # that the newcomer typed since the package was there
configuration=/etc/vmescape/agent.json
policies=/etc/vmescape/policies
policy=$policies/qemu_cmd_detect_feature.json
alarms=/var/log/vmescape/alarms.jsonl

say() { echo "-- $1"; }
fail() {
    echo "failed: $1"
    echo "-- the manager's log"
    tail -n 20 "$work/manager.log" || true
    echo "-- the service's log"
    journal | tail -n 40 || true
    exit 1
}
enter=(chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8
    ${http_proxy:+http_proxy="$http_proxy"} ${https_proxy:+https_proxy="$https_proxy"} SYSTEMD_IGNORE_CHROOT=1)
inside() { "${enter[@]}" "$@"; }
# Programs that run beside the script end with it, whatever ends that.
beside() { exec setpriv --pdeathsig TERM "$@"; }
# One line as the newcomer types it, who answers questions with the return key.
type_in() {
    echo "\$ $1"
    commands=$((commands + 1))
    yes '' 2>/dev/null | inside sh -c "cd /root; $1"
}
journal() { inside journalctl --no-pager --output=cat --unit vmescape-agent; }
property() { inside systemctl show --property "$1" --value vmescape-agent; }
is_up() { inside vmescape-agent status >"$work/status" 2>&1; }
is_degraded() { ! is_up && grep -q ': degraded$' "$work/status"; }
generation() {
    inside vmescape-agent status --json | grep -o '"feature":"qemu_cmd_detect_feature"[^}]*' |
        grep -o '"generation":[0-9]*' | cut -d: -f2
}
# Everything there is, but for what package tools and the manager keep for themselves.
list_files() {
    find "$root" -xdev -path "$root/root" -prune -o -printf '%P\n' | LC_ALL=C sort |
        grep -vE '^var/(cache|log/apt|log/dpkg.log|lib/(apt|dpkg))(/|$)|^etc/ld.so.cache$'
}

make_debian() {
    say "a Debian without anything but its service manager"
    mkdir -p "$root" "$cache/archives"
    mount -t tmpfs -o mode=755 none "$root"
    "$here/debian_folder.sh" "$cache" "$root" || fail 'there is no Debian to begin with'
    . "$root/etc/os-release"
    echo "$PRETTY_NAME"
    mount --bind "$cache/archives" "$root/var/cache/apt/archives"
    mount --rbind /proc "$root/proc"
    mount --rbind /sys "$root/sys"
    umount --recursive "$root/sys/fs/cgroup"
    mount -t cgroup2 none "$root/sys/fs/cgroup"
    mount -t tmpfs none "$root/run"
    mkdir -p "$root/dev/pts"
    mount -t devpts -o newinstance,ptmxmode=666 none "$root/dev/pts"
    ln -sf pts/ptmx "$root/dev/ptmx"
}

# Where a manager for users looks for units and keeps folders of services, are the system's.
show_system_to_manager() {
    mkdir -p "$root/run/systemd/system" "$root/var/lib/systemd"
    ln -s /etc/systemd/system "$root/var/lib/systemd/user"
    ln -s ../log "$root/var/lib/log"
    printf '[Unit]\nDescription=Nothing but what the package brings\n' >"$root/run/systemd/system/basic.target"
    # With these it stops its services when it is ended.
    ln -s /usr/lib/systemd/user/exit.target /usr/lib/systemd/user/systemd-exit.service "$root/run/systemd/system"
    # The kernel's own log is the host's.
    printf '[Journal]\nStorage=volatile\nReadKMsg=no\nAudit=\n' >"$root/etc/systemd/journald.conf"
}
start_manager() {
    say "its service manager"
    show_system_to_manager
    beside "${enter[@]}" SYSTEMD_LOG_TARGET=console /lib/systemd/systemd-journald >"$work/manager.log" 2>&1 &
    beside "${enter[@]}" XDG_RUNTIME_DIR=/run XDG_CONFIG_HOME=/var/lib \
        SYSTEMD_UNIT_PATH=/run/systemd/system:/var/lib/systemd/user:/lib/systemd/system \
        /lib/systemd/systemd --user --log-target=console --unit=basic.target >>"$work/manager.log" 2>&1 &
    answers() { inside systemctl is-system-running 2>&1 | grep -qE 'running|degraded'; }
    wait_for 20 answers || missing "a service manager: $(tail -n 3 "$work/manager.log")"
}

start_machine() {
    say "a virtual machine, on the host"
    mkfifo "$work/monitor"
    beside qemu-system-x86_64 -name "guest=$vm" -accel tcg -m 32 -display none -nodefaults -serial none -S \
        -monitor stdio <"$work/monitor" >"$work/qemu.log" 2>&1 &
    exec 9>"$work/monitor"
}
has_alarm() { # CLASS TEXT
    grep "\"vm_name\":\"$vm\"" "$root$alarms" 2>/dev/null | grep "\"event_classid\":\"$1\"" | grep -q "$2"
}
break_out() { # COMMAND
    echo "migrate \"exec:$1\"" >&9
    wait_for 10 has_alarm vmescape_0001 "$1" || fail "no alarm of \"$1\""
}

install() {
    cp "$package" "$root/root"
    list_files >"$work/files.before"
    say "installing"
    type_in 'apt-get update'
    type_in 'apt-get install ./vmescape-agent_*.deb' || fail 'it is not installed'
    commands=0
    [ "$(property ActiveState)" = active ] || fail 'the service does not run after the installation'
    [ "$(property UnitFileState)" = enabled ] || fail 'the service would not start with the machine'
    is_up || fail 'the service is not up'
}

see_first_alarm() {
    say "the first alarm: a shell by a QEMU's name runs something"
    type_in 'cp /bin/sh /tmp/qemu-system-alpha'
    type_in "/tmp/qemu-system-alpha -c 'uname -a; true' -name guest=try"
    wait_for 10 grep -qs '"vm_name":"try"' "$root$alarms" || fail 'no alarm'
    type_in "tail -n 1 $alarms"
    [ "$commands" -le 3 ] || fail "the first alarm took $commands commands"
    type_in 'journalctl -u vmescape-agent -n 1' | tee "$work/line"
    grep -q 'try  system/fork  uname' "$work/line" || fail 'the alarm is not in the journal'
    type_in 'rm /tmp/qemu-system-alpha'
    [ "$(stat -c %a:%U "$root$alarms")" = 640:root ] || fail 'others may read the alarms'
    [ "$(stat -c %a:%U "$root/var/lib/vmescape")" = 700:root ] || fail 'others see what the agent keeps'
}

try_detection() {
    say "does it work here?"
    type_in 'vmescape-agent status' || fail 'the service is not up'
    type_in 'vmescape-agent selftest' | tee "$work/selftest"
    [ "$(grep -c '^\(command\|file\|port\).* alarm after' "$work/selftest")" -eq 3 ] || fail 'not all classes'
    grep -q '^selftest: good$' "$work/selftest" || fail 'the self test is not good'
}

see_escape() {
    say "a guest breaks out of a real QEMU: it runs a command, and writes where the host's shells read"
    break_out 'uname -a'
    echo "pmemsave 0 16 \"$root/etc/profile.d/backdoor.sh\"" >&9
    wait_for 10 has_alarm vmescape_0002 /etc/profile.d/backdoor.sh || fail 'no alarm of the file'
    rm "$root/etc/profile.d/backdoor.sh"
    inside journalctl -u vmescape-agent -n 3
}

break_policy() {
    say "a policy with a mistake: text where a list has to be"
    pid=$(property MainPID)
    type_in "sed -i '/\"qemu-system-x86_64\"/ s|\\[.*\\]|\"/usr/bin/id\"|' $policy"
    wait_for 10 is_degraded || fail 'a wrong policy goes unnoticed'
    local wrong="$policy: /content/monitor_list/[0-9]*/cmdlist: expected a list of strings, found a string"
    type_in 'vmescape-agent status' | head -n 3
    grep -q "Policy(qemu_cmd_detect_feature) is refused: $wrong" "$work/status" || fail 'status does not say why'
    local status=0
    type_in "vmescape-agent check $policies/*.json" || status=$?
    [ "$status" -eq 6 ] || fail "expected that the check ends with 6, found $status"
    journal | grep -q "$wrong" || fail 'the log does not say what is wrong'
    journal | grep -q 'is refused, what was in force stays' || fail 'the log does not say what holds'
    break_out 'nproc'
    echo "what was in force before still raises alarms"
}

fix_policy() {
    say "the mistake mended"
    local before
    before=$(generation)
    type_in "sed -i '/\"qemu-system-x86_64\"/ s|\"/usr/bin/id\"|[\"/usr/bin/id\"]|' $policy"
    wait_for 10 is_up || fail 'the mended policy is not taken'
    type_in "vmescape-agent check $policies/*.json" || fail 'the mended policy does not pass the check'
    type_in 'vmescape-agent status' | grep '^qemu_cmd_detect_feature'
    [ "$(generation)" -gt "$before" ] || fail "the generation stays at $before"
    [ "$(property MainPID)" = "$pid" ] || fail 'the agent was started anew'
    break_out 'hostname'
}

open_policy() {
    say "a policy that others may write, and its mode mended"
    type_in "chmod 666 $policy"
    wait_for 10 is_degraded || fail 'a policy that others may write goes unnoticed'
    type_in 'vmescape-agent status' | head -n 3
    grep -q "is refused: $policy may be written by others (mode 0666)" "$work/status" || fail 'status does not say why'
    type_in "chmod 644 $policy"
    wait_for 10 is_up || fail 'the mended mode is not noticed'
}

break_configuration() {
    say "a configuration with a mistake, which is mended after a while"
    type_in "sed -i 's/\"notice\"/\"loud\"/' $configuration"
    local status=0 tries
    type_in 'systemctl restart vmescape-agent' && fail 'it starts with a wrong configuration'
    # A manager gives up a service that does not forbid it after five tries within ten seconds.
    for tries in 1 2 3 4 5; do
        inside systemctl restart vmescape-agent 2>/dev/null && fail "it starts at try $tries"
    done
    type_in 'vmescape-agent status' 2>"$work/errors" || status=$?
    cat "$work/errors"
    [ "$status" -eq 6 ] || fail "expected that asking for the status ends with 6, found $status"
    grep -q "$configuration: /log_level: expected one of: .*, found \"loud\"" "$work/errors" ||
        fail 'nobody says what is wrong with the configuration'
    type_in "sed -i 's/\"loud\"/\"notice\"/' $configuration"
    wait_for 20 is_up || fail 'it does not start by itself when its configuration is mended'
}
change_configuration() {
    say "another configuration, which is read at the start"
    type_in "sed -i 's/\"notice\"/\"information\"/' $configuration"
    type_in 'systemctl restart vmescape-agent' || fail 'it does not start with the changed configuration'
    is_up || fail 'it is not up with the changed configuration'
    journal | grep -q ' Information ' || fail 'the changed configuration is not used'
    pid=$(property MainPID)
}

# The brokers obey lines (8) and answer with lines (7).
start_brokers() {
    mkfifo "$work/orders" "$work/answers"
    beside "$brokers" vmescape-alarms <"$work/orders" >"$work/answers" 2>"$work/brokers.log" &
    exec 8>"$work/orders" 7<"$work/answers"
    read -r addresses <&7
}
order() {
    local answer
    echo "$1" >&8
    read -r answer <&7
    [ "$answer" = done ] || fail "the brokers do not $1: $answer"
}
ids_in_file() { # FIRST LINE
    tail -n "+$1" "$root$alarms" | grep -o '"event_id":"[^"]*"' | cut -d'"' -f4 | sort
}
ids_in_kafka() { # COUNT
    local key id
    echo "read $1" >&8
    while read -r key id <&7 && [ -n "$key" ]; do
        echo "$id"
    done | sort
}
try_kafka() {
    say "alarms go to Kafka as well, whose brokers stop for a while"
    start_brokers
    local first=$(($(wc -l <"$root$alarms") + 1))
    type_in "sed -i 's|\"report\": {|&\"kafka\": {\"brokers\": \"$addresses\"},|; s|\"text:stdout\"|&, \"json:kafka\"|' $configuration"
    type_in 'systemctl restart vmescape-agent' || fail 'it does not start with an output to Kafka'
    wait_for 10 is_up || fail 'it is not up with an output to Kafka'
    break_out 'id -un'
    order stop
    break_out 'id -gn'
    wait_for 10 is_degraded || fail 'that the brokers are away goes unnoticed'
    type_in 'vmescape-agent status' | head -n 2
    grep -q 'Output(kafka) cannot be written: ' "$work/status" || fail 'status does not say that Kafka is away'
    break_out 'uname -r'
    echo "the agent is started anew meanwhile"
    type_in 'systemctl restart vmescape-agent' || fail 'it does not start without brokers'
    pid=$(property MainPID)
    break_out 'uname -s'
    order start
    wait_for 30 is_up || fail 'that the brokers are back goes unnoticed'
    ids_in_file "$first" >"$work/ids.file"
    local count
    count=$(wc -l <"$work/ids.file")
    ids_in_kafka "$count" >"$work/ids.kafka"
    diff "$work/ids.file" "$work/ids.kafka" || fail 'not every alarm is in Kafka once'
    echo "$count alarms in the file, and the same in Kafka, each once"
}

# The same with a higher version, and other files below /etc.
make_next_package() {
    local tree=$work/next version
    dpkg-deb --raw-extract "$package" "$tree"
    version=$(dpkg-deb --field "$package" Version)+1
    sed -i "s/^Version: .*/Version: $version/" "$tree/DEBIAN/control"
    sed -i '1s/{/{ /' "$tree$configuration" "$tree$policies"/*.json
    dpkg-deb --root-owner-group --build "$tree" "$root/root/vmescape-agent_${version}_next.deb" >/dev/null
}
upgrade() {
    say "an upgrade"
    make_next_package
    local kept=("$configuration" "$policy")
    inside sha256sum "${kept[@]}" >"$work/sums"
    type_in 'apt-get install ./vmescape-agent_*_next.deb' || fail 'it is not upgraded'
    (cd "$root" && sed 's|  /|  |' "$work/sums" | sha256sum --quiet --check) || fail 'a changed file was replaced'
    head -c 2 "$root$policies/qemu_port_detect_feature.json" | grep -q '{ ' || fail 'an old policy was kept'
    wait_for 20 is_up || fail 'it is not up after the upgrade'
    [ "$(property MainPID)" != "$pid" ] || fail 'the old program still runs'
    break_out 'arch'
}

remove() {
    say "the end"
    pid=$(property MainPID)
    echo 'mine' >"$root$policies/notes.txt"
    type_in 'apt-get remove vmescape-agent' || fail 'it is not removed'
    [ ! -e "$root/usr/lib/vmescape" ] || fail 'the program is still there'
    [ ! -e "/proc/$pid" ] || fail 'it still runs'
    [ -s "$root$policy" ] && [ -s "$root$alarms" ] || fail 'removing took policies or alarms along'
    type_in 'apt-get purge vmescape-agent' || fail 'it is not purged'
    type_in 'apt-get autoremove --purge' || fail 'what it needed is not removed'
    list_files >"$work/files.after"
    local left
    left=$(comm -13 "$work/files.before" "$work/files.after" | tr '\n' ' ')
    [ "$left" = 'etc/vmescape etc/vmescape/policies etc/vmescape/policies/notes.txt ' ] || fail "left: $left"
    left=$(comm -23 "$work/files.before" "$work/files.after")
    [ -z "$left" ] || fail "taken along: $left"
}

# So that a mirror or a program that hangs leaves nothing behind either.
beside sh -c 'for tries in $(seq 156); do sleep 5; done; kill -KILL "$1"' - $$ >/dev/null 2>&1 &
make_debian
start_manager
install
see_first_alarm
try_detection
start_machine
see_escape
break_policy
fix_policy
open_policy
break_configuration
change_configuration
try_kafka
upgrade
remove
echo good
