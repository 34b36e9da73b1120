#!/usr/bin/env bash
# Runs a program under the confinement a systemd unit states, without
# systemd, as far as plain Linux tools reproduce it:
#
#   scripts/confine/run-confined.sh UNIT-FILE PROGRAM [ARGUMENTS...]
#
#   PrivateNetwork=yes        a network namespace of its own (unshare --net)
#   ProtectSystem=strict      every mount read-only, except /dev, /proc, /sys
#   ReadWritePaths=           ... and these (a leading "-": when it exists)
#   ProtectHome=read-only     (homes are read-only already under "strict")
#   PrivateTmp=yes            empty /tmp and /var/tmp
#   ProtectProc=invisible     /proc mounted with hidepid=invisible
#   ProtectKernelTunables=yes /proc/sys and /sys read-only
#   ProtectKernelLogs=yes     /dev/kmsg unreachable
#   UMask=                    the program's umask
#   CapabilityBoundingSet=    setpriv --bounding-set, no ambient or inheritable capabilities
#   NoNewPrivileges=yes       setpriv --no-new-privs
#   SystemCallFilter=, SystemCallErrorNumber=, RestrictAddressFamilies=,
#   MemoryDenyWriteExecute=   seccomp-exec.py
#
# Mounts made outside after the program started reach it (the namespace is
# a slave of the machine's), as they reach a service.  Run as root.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
[ $# -ge 2 ] || { echo "usage: $0 UNIT-FILE PROGRAM [ARGUMENTS...]" >&2; exit 2; }
unit=$1
shift

setting() {  # the last value of a [Service] setting
  awk -v key="$1" '
    /^\[/ { section = $0; next }
    section == "[Service]" && index($0, key "=") == 1 { value = substr($0, length(key) + 2) }
    END { print value }' "$unit"
}
expect() {  # refuses a unit whose setting this tool does not reproduce
  local value
  value=$(setting "$1")
  [ "$value" = "$2" ] || { echo "run-confined: $1=$value is not reproduced (only $2)" >&2; exit 2; }
}
expect PrivateNetwork yes
expect ProtectSystem strict
expect ProtectHome read-only
expect PrivateTmp yes
expect ProtectProc invisible
expect ProtectKernelTunables yes
expect ProtectKernelLogs yes
expect NoNewPrivileges yes
umask_value=$(setting UMask)
capabilities=$(setting CapabilityBoundingSet)
[ -n "$capabilities" ] || { echo "run-confined: no CapabilityBoundingSet=" >&2; exit 2; }
bounding="-all"
for c in $capabilities; do
  c=${c#CAP_}
  bounding+=",+${c,,}"
done
writable=$(setting ReadWritePaths)

# The seccomp helper is read now: the private /tmp below hides a clone that lies under /tmp.
RC_HELPER=$(cat "$here/seccomp-exec.py")
export RC_UNIT="$unit" RC_WRITABLE="$writable" RC_UMASK="${umask_value:-0022}" RC_BOUNDING="$bounding" RC_HELPER
exec unshare --mount --net --propagation slave -- bash -c '
  set -euo pipefail
  # ProtectSystem=strict: every mount read-only but the kernel API folders.
  # The private /tmp comes first, so it stays writable.
  mount -t tmpfs -o mode=1777 tmpfs /tmp
  mount -t tmpfs -o mode=1777 tmpfs /var/tmp
  awk "{ print \$5 }" /proc/self/mountinfo | sort -u | while read -r point; do
    point=$(printf "%b" "$point")   # mountinfo escapes blanks as \040
    case "$point" in /dev | /dev/* | /proc | /proc/* | /sys | /sys/* | /tmp | /var/tmp) continue ;; esac
    mount -o remount,bind,ro "$point" 2>/dev/null || mount --bind -o ro "$point" "$point" 2>/dev/null || true
  done
  # ReadWritePaths=, paths quoted as in the unit.
  eval "paths=($RC_WRITABLE)"
  for path in "${paths[@]}"; do
    optional=0
    [ "${path#-}" != "$path" ] && { optional=1; path=${path#-}; }
    if [ ! -e "$path" ]; then
      [ "$optional" = 1 ] && continue
      echo "run-confined: ReadWritePaths: $path does not exist" >&2; exit 1
    fi
    mount --bind "$path" "$path"
    mount -o remount,bind,rw "$path"
  done
  # ProtectKernelTunables=, ProtectKernelLogs=, ProtectProc=invisible.
  mount --bind /sys /sys && mount -o remount,bind,ro /sys
  [ -e /dev/kmsg ] && mount --bind /dev/null /dev/kmsg
  mount -t proc -o hidepid=invisible proc /proc
  mount --bind /proc/sys /proc/sys && mount -o remount,bind,ro /proc/sys
  umask "$RC_UMASK"
  exec setpriv --no-new-privs --bounding-set="$RC_BOUNDING" --inh-caps=-all --ambient-caps=-all \
    -- /usr/bin/python3 -c "$RC_HELPER" "$RC_UNIT" -- "$@"
' run-confined "$@"
