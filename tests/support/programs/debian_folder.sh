#!/bin/bash
# debian_folder.sh CACHE ROOT: fills the empty folder ROOT with the least Debian that has a service manager.
# Suite and mirror are this machine's. What was made once is kept in CACHE, and made anew after a week.
set -eu
cache=$(realpath "$1")
root=$(realpath "$2")

fail() {
    echo "failed: $1"
    exit 1
}

# The repository's own files say what it is, so they have to be known: those of the machine or, where it
# keeps none, such as a container's image, new ones in a place of their own.
find_mirror() { # APT-GET'S OPTIONS...
    apt-get "$@" indextargets --format '$(ORIGIN)|$(CODENAME)|$(COMPONENT)|$(REPO_URI)' 'Created-By: Packages' |
        awk -F'|' -v suite="$VERSION_CODENAME" '$1 == "Debian" && $2 == suite && $3 == "main" {print $4; exit}'
}
find_mirror_anew() {
    local lists=$cache/lists
    mkdir -p "$lists/partial"
    apt-get -o Dir::State::lists="$lists" update >"$cache/update.log" 2>&1 || true
    find_mirror -o Dir::State::lists="$lists"
}

# Proxies, and what is said about repositories whose clock stands still, hold for the folder too.
apt_settings() { apt-config dump | grep -E '^Acquire::(https?::Proxy(::[^ ]*)?|Check-(Valid-Until|Date)) ' || true; }

make_debian() { # MIRROR
    local proxy='' packages=systemd
    eval "$(apt-config shell proxy Acquire::http::Proxy)"
    [ -z "$proxy" ] || [ "$proxy" = DIRECT ] || export http_proxy=$proxy
    [ "${1#https:}" = "$1" ] || packages=$packages,ca-certificates
    if ! timeout 400 debootstrap --variant=minbase --include="$packages" "$VERSION_CODENAME" "$root" "$1" \
        >"$cache/debootstrap.log" 2>&1; then
        tail -n 20 "$cache/debootstrap.log"
        fail "debootstrap from $1; the lines above are the end of $cache/debootstrap.log"
    fi
    apt_settings >"$root$settings"
    chroot "$root" apt-get clean
    chroot "$root" apt-get update >>"$cache/debootstrap.log" 2>&1
}

. /etc/os-release
[ "$ID" = debian ] || fail "expected a Debian, as it makes another one, found $ID"
mkdir -p "$cache"
settings=/etc/apt/apt.conf.d/01host
mirror=$(find_mirror)
[ -n "$mirror" ] || mirror=$(find_mirror_anew)
[ -n "$mirror" ] || fail "no repository of Debian $VERSION_CODENAME in apt's sources"

base=$cache/debian-$VERSION_CODENAME-$(echo "$mirror" | cksum | cut -d' ' -f1).tar.gz
if [ -n "$(find "$base" -mtime -7 2>/dev/null)" ]; then
    tar -xzf "$base" -C "$root"
    apt_settings >"$root$settings"
else
    make_debian "$mirror"
    # A proxy's address may hold a password.
    tar --one-file-system --exclude=".$settings" -C "$root" -c . | gzip -1 >"$base.new"
    mv "$base.new" "$base"
fi
