#!/bin/sh
# Runs a command in private mount, IPC and network namespaces: tmpfs over /tmp, /var/tmp, /var/log and
# /etc/fcadmin, private overlays over /etc, /var/lib and /run, and the loopback interface up. Nothing the
# command does to fixed paths, System V keys or ports reaches the machine. As root it needs no user
# namespace; elsewhere it maps the caller to root in a new one.
set -eu

if [ "${FCADMIN_IN_SANDBOX:-}" != 1 ]; then
    userns=
    [ "$(id -u)" = 0 ] || userns=--map-root-user
    FCADMIN_IN_SANDBOX=1 exec unshare $userns --mount --ipc --net --propagation private -- sh "$0" "$@"
fi

scratch=/mnt
mount -t tmpfs fcadmin-scratch "$scratch"
for dir in /etc /var/lib /run; do
    name=$(echo "$dir" | tr / _)
    mkdir -p "$scratch/$name/upper" "$scratch/$name/work"
    mount -t overlay "fcadmin$name" -o "lowerdir=$dir,upperdir=$scratch/$name/upper,workdir=$scratch/$name/work" "$dir"
done
umount -l "$scratch"
for dir in /tmp /var/tmp /var/log; do
    mount -t tmpfs -o mode=1777 "fcadmin-tmpfs" "$dir"
done
mkdir -p /etc/fcadmin
mount -t tmpfs -o mode=0755 fcadmin-tmpfs /etc/fcadmin
ip link set lo up
exec "$@"
