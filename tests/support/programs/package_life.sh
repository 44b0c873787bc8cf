#!/bin/bash
# package_life.sh PACKAGE FOLDER: installs a package in a copy of this host that vanishes afterwards (an
# overlay in FOLDER), uses it, installs it anew over changed policies, and removes it. Run it in a mount
# namespace of its own. Ends with 77 where there are no overlays.
set -eu
package=$(realpath "$1")
work=$(realpath "$2")

mount -t tmpfs none "$work"
mkdir "$work/upper" "$work/work" "$work/root"
mount -t overlay overlay -o "lowerdir=/,upperdir=$work/upper,workdir=$work/work" "$work/root" || exit 77
cp "$package" "$work/root/package.deb"
mount --bind /dev "$work/root/dev"
mount --bind /proc "$work/root/proc"

inside() { chroot "$work/root" "$@"; }
fail() {
    echo "failed: $1"
    exit 1
}
policy=/etc/vmescape/policies/qemu_cmd_detect_feature.json

inside dpkg -i /package.deb
inside vmescape-agent --version
inside sh -c 'vmescape-agent check /etc/vmescape/policies/*.json'
inside systemd-analyze verify /lib/systemd/system/vmescape-agent.service
[ "$(inside stat -c %a:%U "$policy")" = 644:root ] || fail 'policies belong to root alone'

echo "the program starts from where it was installed"
status=0
inside timeout --signal=TERM 2 vmescape-agent run 2>"$work/log" || status=$?
cat "$work/log"
grep -q 'is running, 3 policies read' "$work/log" || fail 'it runs with the policies of the package'

echo "an installation over it keeps what the administrator changed"
sed -i '1s/{/{ /' "$work/root$policy"
before=$(sha256sum <"$work/root$policy")
inside dpkg -i --force-confold /package.deb
[ "$(sha256sum <"$work/root$policy")" = "$before" ] || fail 'a changed policy was replaced'

mkdir -p "$work/root/run/vmescape"
touch "$work/root/run/vmescape/left"
inside dpkg -r vmescape-agent
[ ! -e "$work/root/run/vmescape" ] || fail 'the folder of the sockets is still there'
[ ! -e "$work/root/usr/lib/vmescape" ] || fail 'the program is still there'
[ -e "$work/root$policy" ] || fail 'removing took the policies along'

inside dpkg -P vmescape-agent
for path in /etc/vmescape /var/log/vmescape /lib/systemd/system/vmescape-agent.service /usr/bin/vmescape-agent; do
    [ ! -e "$work/root$path" ] || fail "purging left $path"
done
echo good
