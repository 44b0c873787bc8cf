#!/usr/bin/env bash
# Installs what is missing from Debian's packages. Says what and why; says nothing when nothing is.
set -euo pipefail

# package|why
packages='
ca-certificates|base of the package tools
g++|compiles the agent
clang|compiles the BPF programs, and checks threads and style
clang-format|formats the sources
clang-tidy|static analysis
libclang-rt-14-dev|the fuzzing runtime
cmake|configures the build
ninja-build|runs the build
ccache|keeps repeated builds short
pkg-config|finds libraries
binutils|readelf and nm, with which tests look at the module
libpoco-dev|application frame, logging, shared libraries, HTTP and TLS
libssl-dev|verifies whom alarms are sent to over TLS
libjsoncpp-dev|policies and alarms
libbpf-dev|loads BPF programs
bpftool|turns BPF objects into headers
libcli11-dev|command line of the agent
libcap-ng-dev|capabilities of the agent
libsystemd-dev|tells the service manager that the agent is ready and alive
librdkafka-dev|hands alarms to Kafka, and has a test cluster in it
libgtest-dev|tests
libgmock-dev|tests
libbenchmark-dev|benchmarks
libconcurrentqueue-dev|peer of the inbox in its benchmark
libboost-dev|peer of the inbox in its benchmark
libatomic-queue-dev|peer of the inbox in its benchmark
forkstat|peer of the process collector in its benchmark
auditd|peer of the process collector in its benchmark
fatrace|peer of the file collector in its benchmark
lsof|peer of the socket table in its benchmark
qemu-system-x86|the virtual machine that the demo and the live tests watch
qemu-utils|disk images for that machine
python3|drives the monitor of that machine, and is the web server of a live test
openssl|certificates for tests of TLS
iproute2|network devices for tests
util-linux|unshare, a network of its own for tests
systemd|checks the unit file of the service; its journal takes alarms in a live test
dpkg-dev|finds what the Debian package depends on
file|tells which of its files are programs
lintian|checks the Debian package
procps|process tools for scripts
python3-prometheus-client|reads the metrics in a live test
python3-jsonschema|checks the published schemas in a live test
prometheus|promtool checks the alert rules and the metrics in a live test
rsyslog|the syslog server that a live test sends alarms to
debootstrap|makes the empty Debian in which a live test does what a newcomer does
'

missing=()
while IFS='|' read -r package why; do
    [ -n "$package" ] || continue
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
        echo "setup: $package is missing: $why"
        missing+=("$package")
    fi
done <<<"$packages"

[ ${#missing[@]} -gt 0 ] || exit 0
if [ "$(id -u)" -ne 0 ]; then
    echo "setup: installing packages needs root" >&2
    exit 1
fi

export DEBIAN_FRONTEND=noninteractive
# No service may start on a machine that only builds and tests: the audit daemon would load rules.
policy=/usr/sbin/policy-rc.d
if [ ! -e "$policy" ]; then
    printf '#!/bin/sh\nexit 101\n' >"$policy"
    chmod 755 "$policy"
    trap 'rm -f "$policy"' EXIT
fi
log=$(mktemp)
if ! { apt-get update && apt-get install -y --no-install-recommends "${missing[@]}"; } >"$log" 2>&1; then
    tail -n 30 "$log" >&2
    echo "setup: installing failed; the lines above are the end of $log" >&2
    exit 1
fi
rm -f "$log"
echo "setup: installed ${missing[*]}"
