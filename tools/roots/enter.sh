#!/usr/bin/env bash
# Runs a command in a root directory as on a machine of its own: other mounts, other processes, the
# machine's network. It becomes the root of the mount namespace (chroot alone would forbid whoever
# is in there to make namespaces).
#
#   enter.sh ROOT USER DIRECTORY COMMAND [ARGUMENTS]
set -euo pipefail
if [[ ${1:-} != --inside ]]; then
  exec unshare --mount --pid --fork --kill-child --propagation private \
    "${BASH_SOURCE[0]}" --inside "$@"
fi
root=$2 user=$3 directory=$4
shift 4
for file in resolv.conf hosts; do
  [[ ! -f /etc/$file ]] || cat "/etc/$file" >"$root/etc/$file"
done
# A network may have an authority of its own between the machine and the registries.
trusted=/etc/ssl/certs/ca-certificates.crt
[[ ! -f $trusted ]] || cat "$trusted" >"$root/etc/trusted-by-the-machine.pem"
mount --bind "$root" "$root"
mount -t proc proc "$root/proc"
mount --rbind /sys "$root/sys"
mount --rbind /dev "$root/dev"
mount -t tmpfs -o mode=1777 shm "$root/dev/shm"
cd "$root"
mkdir -p .before
pivot_root . .before
umount --lazy /.before
rmdir /.before
home=$(getent passwd "$user" | cut -d: -f6)
cd "$directory"
exec env -i PATH=/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin HOME="$home" USER="$user" LC_ALL=C.UTF-8 \
  NODE_EXTRA_CA_CERTS=/etc/trusted-by-the-machine.pem ${CI:+CI="$CI"} setpriv --reuid="$user" --regid="$user" --init-groups -- "$@"
