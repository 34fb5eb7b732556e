#!/usr/bin/env bash
# A new user's Debian 12 machine, twice, from a commit of this tree (the
# argument; HEAD when none is given):
#  1. a bare minbase bookworm root: the README's two commands as written, then
#     make install PREFIX=/opt/qo with pkg-config's view of it (--static too)
#     and a program built against it, make install with the README's host
#     example, and make package (qosdkmm and qosdkmm-dev);
#  2. another bare root: apt-get install of the runtime package alone and qomm
#     (the demo), then of the -dev package too and the README's host example
#     against them.
# Needs root. The roots are made fresh every run (build/fresh-machine/);
# only downloaded .debs are kept between runs (build/fresh-machine/cache/).
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$PWD
commit=$(git rev-parse --verify "${1:-HEAD}^{commit}")
work=$repo/build/fresh-machine
suite=bookworm

say() { echo "fresh-machine: $*"; }
fail() { say "FAILED: $*" >&2; exit 1; }
[ "$(id -u)" -eq 0 ] || fail "needs root (debootstrap, chroot, mounts)"

bash scripts/install-deps.sh fresh
# shellcheck disable=SC2016  # apt's own $(FIELD) syntax
mirror=$(apt-get indextargets --format '$(REPO_URI)' 'Identifier: Packages' "Release: $suite" \
  'Component: main' | awk 'NR == 1')
[ -n "$mirror" ] || fail "no $suite main entry in this machine's apt sources"

mounted=()
cleanup() {
  local i
  for ((i = ${#mounted[@]} - 1; i >= 0; i--)); do
    umount "${mounted[i]}" 2>/dev/null || umount -l "${mounted[i]}" || true
  done
  mounted=()
}
trap cleanup EXIT
trap 'exit 130' INT TERM

remove_root() {  # also after a run that was killed before it could unmount
  findmnt -rn -o TARGET | awk -v root="$1/" 'index($0, root) == 1' | sort -r |
    xargs -r -n 1 umount -l
  rm -rf --one-file-system "$1"
}

timings=()
phase() {  # phase <name> <command...>: runs it and records its wall-clock time
  local name=$1 start=$SECONDS
  shift
  say "== $name"
  "$@" || fail "$name"
  timings+=("$(printf '%4d s  %s' $((SECONDS - start)) "$name")")
}

make_dev() {  # make_dev <dir>: the device nodes a package install and the tests use
  local dev=$1 node name major minor
  for node in null:1:3 zero:1:5 full:1:7 random:1:8 urandom:1:9 tty:5:0; do
    IFS=: read -r name major minor <<<"$node"
    mknod -m 666 "$dev/$name" c "$major" "$minor" || return 1
  done
  ln -s /proc/self/fd "$dev/fd" && ln -s /proc/self/fd/0 "$dev/stdin" &&
    ln -s /proc/self/fd/1 "$dev/stdout" && ln -s /proc/self/fd/2 "$dev/stderr" &&
    ln -s pts/ptmx "$dev/ptmx" && mkdir "$dev/pts" "$dev/shm"
}

make_root() {  # make_root <dir>: a bare minbase root, ready for chroot
  local root=$1
  remove_root "$root" || return 1
  mkdir -p "$work/cache/debootstrap" || return 1
  debootstrap --variant=minbase --cache-dir="$work/cache/debootstrap" "$suite" "$root" "$mirror" |
    grep -vE '^I: (Retrieving|Validating|Extracting|Unpacking|Configuring) [a-z0-9]' || true
  [ -x "$root/usr/bin/apt-get" ] || return 1
  cp /etc/resolv.conf "$root/etc/resolv.conf" || return 1
  mkdir -p "$work/cache/apt/partial" || return 1
  mount -t proc proc "$root/proc" || return 1
  mounted+=("$root/proc")
  mount -t sysfs sysfs "$root/sys" || return 1
  mounted+=("$root/sys")
  # A /dev of the root's own, not the machine's bound in: removing a root
  # whose run was killed before it unmounted must not delete the machine's
  # device nodes.
  mount -t tmpfs -o mode=755 dev "$root/dev" || return 1
  mounted+=("$root/dev")
  make_dev "$root/dev" || return 1
  mount -t devpts -o newinstance,ptmxmode=0666,mode=620 devpts "$root/dev/pts" || return 1
  mounted+=("$root/dev/pts")
  mount -t tmpfs -o mode=1777 shm "$root/dev/shm" || return 1
  mounted+=("$root/dev/shm")
  mount --bind "$work/cache/apt" "$root/var/cache/apt/archives" || return 1
  mounted+=("$root/var/cache/apt/archives")
}

in_root() {  # in_root <root> <bash command>: as root's login shell would
  chroot "$1" /usr/bin/env -i HOME=/root TERM=dumb \
    PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin /bin/bash -c "$2"
}

installed_count() { in_root "$1" "dpkg-query -W -f='\${Status}\n' | grep -c '^install ok installed'"; }

# The README's two commands and its host example, as written there.
mapfile -t commands < <(awk '/^## Two commands/ {f = 1; next} /^## / {f = 0}
  f && /^    [^ ]/ {sub(/^    /, ""); sub(/ *#.*$/, ""); print}' README.md)
[ ${#commands[@]} -eq 2 ] || fail "README's 'Two commands' section has ${#commands[@]} commands"
host_cc=$(awk '/^```c\+\+$/ {f = 1; next} /^```$/ {f = 0} f' README.md)
host_build=$(awk '/^    g\+\+ .*host\.cc/ {sub(/^    /, ""); sub(/ *#.*$/, ""); print; exit}' README.md)
if [ -z "$host_cc" ] || [ -z "$host_build" ]; then fail "README has no host example"; fi
camera_py=$(awk '/^```python$/ {f = 1; next} /^```$/ {f = 0} f' README.md)
[ -n "$camera_py" ] || fail "README has no Python example"

frames_of() {  # frames_of <root> <run command> [setup]: builds host.cc, runs it, counts frames
  in_root "$1" "cd /root && ${3:-} $host_build -o host && $2 >host.out 2>host.err" >&2 ||
    { tail -n 20 "$1/root/host.err" >&2; return 1; }
  grep -o 'frame of [0-9]* bytes$' "$1/root/host.out" | wc -l
}

# 1. The source tree on a bare root.
src_root=$work/root-source
phase "bare root for the source tree" make_root "$src_root"
bare_count=$(installed_count "$src_root")
git clone -q --no-checkout "$repo" "$src_root/root/qosdkmm"
git -C "$src_root/root/qosdkmm" checkout -q --detach "$commit"
say "testing $(git -C "$src_root/root/qosdkmm" log -1 --format='%h %s' | cut -c1-72)"

phase "${commands[0]}" in_root "$src_root" "cd /root/qosdkmm && ${commands[0]}"
first_count=$(installed_count "$src_root")
unwanted=$(in_root "$src_root" "dpkg-query -W -f='\${Status} \${Package}\n' 2>/dev/null" |
  awk '/^install ok installed/ {print $4}' |
  grep -E '^(clang|clang-[0-9]+|libclang-rt-.*|gnuplot.*|libbenchmark.*|ffmpeg)$' | tr '\n' ' ' || true)
[ -z "$unwanted" ] || fail "${commands[0]} installed $unwanted"

phase "${commands[1]}" in_root "$src_root" "cd /root/qosdkmm && ${commands[1]}"
second_count=$(installed_count "$src_root")

printf '%s\n' "$host_cc" >"$src_root/root/host.cc"
custom_prefix() {
  in_root "$src_root" "cd /root/qosdkmm && make install PREFIX=/opt/qo >/dev/null" || return 1
  if [ -e "$src_root/usr/local/lib/libqosdkmm.so" ]; then
    say "a system install is there to fall back on"; return 1
  fi
  # Requires.private names GStreamer's modules: their .pc files (the build
  # tier's) must resolve, also for a static link line.
  in_root "$src_root" "export PKG_CONFIG_PATH=/opt/qo/lib/pkgconfig
    pkg-config --cflags --libs qosdkmm >/dev/null && pkg-config --static --libs qosdkmm >/dev/null" ||
    { say "pkg-config cannot resolve qosdkmm in /opt/qo"; return 1; }
  local n
  n=$(frames_of "$src_root" "./host /opt/qo/share/qosdkmm/samples/sample.h264" \
    "export PKG_CONFIG_PATH=/opt/qo/lib/pkgconfig;") || return 1
  say "a program built against --prefix /opt/qo: $n frames"
  [ "$n" -gt 0 ]
}
phase "make install PREFIX=/opt/qo, a host built against it" custom_prefix

system_install() {
  in_root "$src_root" "cd /root/qosdkmm && make install >/dev/null" || return 1
  in_root "$src_root" "ldconfig -p | grep -q 'libqosdkmm.so.0 .*/usr/local/lib/'" ||
    { say "make install left libqosdkmm.so.0 out of the linker's cache"; return 1; }
  local n
  n=$(frames_of "$src_root" "./host") || return 1
  say "the README's host example after make install: $n frames"
  [ "$n" -gt 0 ] || return 1
  # The Python example as written, with Debian's python3 and nothing set up.
  printf '%s\n' "$camera_py" >"$src_root/root/camera.py"
  in_root "$src_root" "cd /root && python3 camera.py >camera.out 2>camera.err" ||
    { tail -n 20 "$src_root/root/camera.err" >&2; return 1; }
  n=$(grep -c '(240, 320, 3)' "$src_root/root/camera.out" || true)
  say "the README's Python example after make install: $n pictures"
  [ "$n" -gt 0 ]
}
phase "make install, the README's host and Python examples" system_install

phase "make package" in_root "$src_root" "cd /root/qosdkmm && make package"
debs=()
for name in qosdkmm qosdkmm-dev; do
  deb=$(find "$src_root/root/qosdkmm/build/package" -maxdepth 1 -name "${name}_*_amd64.deb" -print -quit)
  [ -n "$deb" ] || fail "make package made no ${name}_*_amd64.deb"
  rm -f "$work/${name}"_*_amd64.deb
  cp "$deb" "$work/"
  debs+=("$(basename "$deb")")
done
cleanup

# 2. The package on another bare root.
deb_root=$work/root-package
phase "bare root for the package" make_root "$deb_root"
for deb in "${debs[@]}"; do cp "$work/$deb" "$deb_root/root/"; done
runtime_only() {
  in_root "$deb_root" "cd /root && apt-get update -q >/dev/null &&
    DEBIAN_FRONTEND=noninteractive apt-get install -y -q ./${debs[0]} >/dev/null" || return 1
  if [ -e "$deb_root/usr/include/qosdkmm" ] || [ -n "$(find "$deb_root/usr/lib" -name 'qosdkmm.pc')" ]; then
    say "the runtime package holds development files"; return 1
  fi
}
phase "apt-get install ./${debs[0]}" runtime_only
deb_count=$(installed_count "$deb_root")
phase "qomm (the demo) from the runtime package" in_root "$deb_root" "qomm"
printf '%s\n' "$host_cc" >"$deb_root/root/host.cc"
package_host() {
  in_root "$deb_root" "cd /root && DEBIAN_FRONTEND=noninteractive apt-get install -y -q \
    ./${debs[0]} ./${debs[1]} g++ >/dev/null" || return 1
  in_root "$deb_root" "pkg-config --static --libs qosdkmm >/dev/null" ||
    { say "qosdkmm-dev's Depends leave pkg-config --static short"; return 1; }
  local n
  n=$(frames_of "$deb_root" "./host /usr/share/qosdkmm/samples/sample.h264") || return 1
  say "the README's host example against the packages: $n frames"
  [ "$n" -gt 0 ]
}
phase "qosdkmm-dev and g++, the README's host example against the packages" package_host
dev_count=$(installed_count "$deb_root")

cleanup
remove_root "$src_root"
remove_root "$deb_root"
say "passed"
printf '  %s\n' "${timings[@]}"
say "installed packages: bare root $bare_count; after '${commands[0]}' $first_count;" \
  "after '${commands[1]}' $second_count; bare root with qosdkmm $deb_count;" \
  "with qosdkmm-dev and g++ too $dev_count"
