#!/usr/bin/env bash
# Makes a private armhf sysroot for cross-building and for running the tests
# under qemu: downloads the armhf .debs of the libraries we build against
# (and their dependencies) with an apt configuration of its own, so the host's
# apt state never learns about armhf, and unpacks them into one folder.
#   scripts/armhf-sysroot.sh [FOLDER]     default: build/armhf-sysroot
# Prints the sysroot's path. Cached: a second run with the same package
# versions does nothing.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(realpath -m "${1:-build/armhf-sysroot}")
work=$(realpath -m "build/armhf-apt")
packages=(libcurl4-openssl-dev libsqlite3-dev libglib2.0-dev libgtest-dev libstdc++6 libc6-dev)
# Build tools and things only maintainer scripts need; none is linked against.
skip='^(debconf|debconf-2.0|perl-base|dpkg|install-info|libc-dev-bin|gcc-.*-base|libgcc-s1-is-not-skipped|sensible-utils|python3.*|pkg-config|pkgconf|pkgconf-bin|libpkgconf3|bash|coreutils|tar|sed|grep|findutils|diffutils|mawk|awk|debianutils|lsb-base|sysvinit-utils|init-system-helpers|libglib2.0-bin|libglib2.0-dev-bin|libglib2.0-data|shared-mime-info|xdg-user-dirs|cmake|googletest|tzdata|ca-certificates|openssl|readline-common|libpython3.*|perl|perl-modules-.*|libperl.*|mailcap|media-types|mime-support|rpcsvc-proto)$'

mkdir -p "$work"/{lists/partial,cache/archives/partial,debs} "$work/etc/preferences.d"
cat >"$work/etc/sources.list" <<'EOF'
deb [arch=armhf signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] http://deb.debian.org/debian bookworm main
deb [arch=armhf signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] http://deb.debian.org/debian bookworm-updates main
EOF
apt_opts=(-o "Dir::Etc::SourceList=$work/etc/sources.list" -o "Dir::Etc::SourceParts=-"
    -o "Dir::Etc::Preferences=$work/etc/preferences" -o "Dir::Etc::PreferencesParts=$work/etc/preferences.d"
    -o "Dir::State::Lists=$work/lists" -o "Dir::Cache=$work/cache" -o "Dir::State::status=/dev/null"
    -o "APT::Architecture=armhf" -o "APT::Architectures=armhf" -o "Debug::NoLocking=1"
    -o "Acquire::Languages=none" -o "APT::Sandbox::User=root" -o "APT::Get::List-Cleanup=0")
: >"$work/etc/preferences"

apt-get "${apt_opts[@]}" -qq update
# The dependency closure, without recommends or alternatives we do not need.
mapfile -t closure < <(apt-cache "${apt_opts[@]}" depends --recurse --no-recommends --no-suggests \
        --no-conflicts --no-breaks --no-replaces --no-enhances "${packages[@]}" |
    grep -v '^ ' | grep -v '^<' | sed 's/:armhf$//' | sort -u | grep -Ev "$skip")
versions=$(apt-cache "${apt_opts[@]}" policy "${closure[@]}" |
    awk '/^[^ ]/{p=$1} /Candidate:/{print p, $2}' | sort)
stamp="$root/.packages"
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$versions" ]; then
    echo "$root"
    exit 0
fi

(cd "$work/debs" && rm -f ./*.deb && apt-get "${apt_opts[@]}" -qq download "${closure[@]}" >/dev/null)
rm -rf "$root"
# A usr-merged root, as Debian 12 has.
mkdir -p "$root/usr/lib" "$root/usr/bin" "$root/usr/sbin"
ln -s usr/lib "$root/lib"
ln -s usr/bin "$root/bin"
ln -s usr/sbin "$root/sbin"
for deb in "$work"/debs/*.deb; do
    dpkg-deb --fsys-tarfile "$deb" | tar -x -C "$root" --keep-directory-symlink
done
# Absolute links (libfoo.so -> /lib/...) would point into the host; make them
# relative to the sysroot.
find "$root" -type l -lname '/*' | while read -r link; do
    target=$(readlink "$link")
    ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$root$target")" "$link"
done
echo "$versions" >"$stamp"
echo "$root"
