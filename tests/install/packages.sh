#!/usr/bin/env bash
# Installs the built packages with apt, uses them as a host developer and an operator would
# (no running systemd needed), purges them and checks that only the system user is left.
# Root; only loopback. Usage: tests/install/packages.sh [DIR]   (default build-deb)
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
debs=$(cd "${1:-$root/build-deb}" && pwd)
packages=(libusemeter1 libusemeter-dev usemeter)
work=$(mktemp -d /tmp/usemeter-packages-XXXXXX)
export HOME=$work
unset LD_LIBRARY_PATH
collector_pid= installed=
apt=(apt-get -y -qq -o DPkg::Lock::Timeout=600)

# Only what dpkg still knows: apt cannot name a removed local package any more.
purge() {
  local present
  present=$(dpkg-query -W -f='${db:Status-Status} ${Package}\n' "${packages[@]}" 2>/dev/null | awk '$1 != "not-installed" {print $2}') || true
  [[ -z $present ]] || "${apt[@]}" purge $present >"$work/apt.log" 2>&1 || { cat "$work/apt.log" >&2; false; }
}
cleanup() {
  [[ -z $collector_pid ]] || { kill "$collector_pid"; wait "$collector_pid"; } 2>/dev/null || true
  [[ -z $installed ]] || purge || echo "packages: purge failed; remove them by hand: dpkg --purge ${packages[*]}" >&2
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "packages: $*" >&2; exit 1; }
[[ $(id -u) -eq 0 ]] || fail "needs root: it installs and purges packages"

DEBIAN_FRONTEND=noninteractive "${apt[@]}" install --no-install-recommends \
  "$debs"/libusemeter1_*.deb "$debs"/libusemeter-dev_*.deb "$debs"/usemeter_*.deb >/dev/null
installed=1
version=$(dpkg-query -W -f='${Version}' usemeter)
[[ $(usemeter --version) == "usemeter ${version%-*}" ]] || fail "usemeter --version: $(usemeter --version)"
dpkg-query -W -f='${Conffiles}' usemeter | grep -q ' /etc/default/usemeter-collector ' \
  || fail "/etc/default/usemeter-collector is not a conffile"
[[ ! -e /etc/systemd/system/multi-user.target.wants/usemeter-collector.service ]] || fail "enabled on install"

# The README's C host, built against the installed files only; it runs with statistics off.
host=$root/docs/examples/host.c
cc -std=c99 "$host" $(pkg-config --cflags --libs usemeter) -o "$work/host-pkg-config"
mkdir "$work/cmake"
printf 'cmake_minimum_required(VERSION 3.16)\nproject(host C)\nfind_package(usemeter 1.5 CONFIG REQUIRED)
add_executable(host %s)\ntarget_link_libraries(host PRIVATE usemeter::usemeter)\n' "$host" >"$work/cmake/CMakeLists.txt"
cmake -S "$work/cmake" -B "$work/cmake/build" >/dev/null && cmake --build "$work/cmake/build" >/dev/null
for program in "$work/host-pkg-config" "$work/cmake/build/host"; do
  NORVEL_STATISTICS_DISABLE=1 "$program" </dev/null >/dev/null || fail "$program failed"
done

# The unit's ExecStart with its EnvironmentFile: ${X} is one word, $X splits, as systemd does.
# Only the listening address is replaced, by a free loopback port.
unit=$(dpkg -L usemeter | grep '/usemeter-collector\.service$')
setting() { sed -n "s/^$1=//p" "$unit"; }
set -a; . "$(setting EnvironmentFile)"; set +a
COLLECTOR_LISTEN=127.0.0.1:0
eval "command_line=($(setting ExecStart | sed 's/\${\([A-Z_]*\)}/"$\1"/g'))"
as_service=(setpriv --reuid="$(setting User)" --regid="$(setting Group)" --init-groups --no-new-privs --)
service_home=$(getent passwd "$(setting User)" | cut -d: -f6)
(cd "$(setting WorkingDirectory)" && umask "$(setting UMask)" &&
   exec env -i PATH=/usr/bin:/bin HOME="$service_home" "${as_service[@]}" "${command_line[@]}") \
  >"$work/collector.out" 2>&1 &
collector_pid=$!
touch "$work/collector.out"
for _ in $(seq 100); do
  port=$(sed -n 's|^listening on http://127\.0\.0\.1:\([0-9]*\)$|\1|p' "$work/collector.out")
  [[ -z $port ]] || break
  sleep 0.1
done
[[ -n $port ]] || fail "the collector did not start: $(cat "$work/collector.out")"

cid=7C1A3E50-8B2D-4F6A-9E10-3D5C7B9A1F24
body="v=1&tid=UA-1-1&cid=$cid&an=mytool&av=1.0&t=event&ec=run&el=mytool"
exec 3<>"/dev/tcp/127.0.0.1/$port"
printf 'POST /collect HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/x-www-form-urlencoded\r\nContent-Length: %d\r\nConnection: close\r\n\r\n%s' \
  "${#body}" "$body" >&3
read -r -t 10 status <&3 || status="no answer"
exec 3<&-
[[ $status == "HTTP/1.1 200"* ]] || fail "hit answered: $status"
store=${COLLECTOR_STORE#sqlite:}
[[ $(stat -c '%U %a' "$store") == "$(setting User) 600" ]] || fail "store $store: $(stat -c '%U %a' "$store")"
"${as_service[@]}" usemeter collector export --store "$COLLECTOR_STORE" | grep -q ",$cid," || fail "hit not stored"
kill -TERM "$collector_pid"
wait "$collector_pid" || fail "the collector exited $? on SIGTERM"
collector_pid=

! command -v systemd-analyze >/dev/null || systemd-analyze verify --man=no "$unit"

mapfile -t shipped < <(dpkg -L "${packages[@]}" | sort -u)
purge
installed=
for path in "${shipped[@]}" /etc/default/usemeter-collector /var/lib/usemeter; do
  [[ ! -e $path || (-d $path && $path != *usemeter*) ]] || fail "left after purge: $path"
done
left=$(find /etc/systemd /var/lib/systemd -name '*usemeter*' 2>/dev/null; dpkg -l "${packages[@]}" 2>/dev/null | grep '^[ir][ic]' || true)
[[ -z $left ]] || fail "left after purge: $left"
echo "packages: installed, used and purged ${packages[*]} $version"
