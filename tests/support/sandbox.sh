#!/bin/sh
# Runs a command in private mount, IPC, network and PID namespaces: tmpfs over /tmp, /var/tmp, /var/log
# and /etc/fcadmin, private overlays over /etc, /var/lib and /run, and the loopback interface up. Nothing
# the command does to fixed paths, System V keys or ports reaches the machine. As root it needs no user
# namespace; elsewhere it maps the caller to root in a new one.
#
# Ending the sandbox ends everything in it: this script is the PID namespace's first process, and when
# it goes (the command ended, or unshare outside was killed, say by CTest's time-out) the kernel kills
# every process left in the namespace: servers, helpers, a test program stuck in a loop.
#
# With FCADMIN_SANDBOX_BINFMT=ppc or s390x (set for the tests of an emulated cross build) the sandbox also
# runs the target's programs directly: it takes a user namespace of its own, mounts that namespace's
# private binfmt_misc instance and registers qemu-ppc or qemu-s390x there, so a test that starts itself
# again as a helper or starts the built tool gets emulated too. The machine's own binfmt_misc is never
# touched.
set -eu

if [ "${FCADMIN_IN_SANDBOX:-}" != 1 ]; then
    export FCADMIN_IN_SANDBOX=1
    if [ -z "${FCADMIN_SANDBOX_BINFMT:-}" ]; then
        userns=
        [ "$(id -u)" = 0 ] || userns=--map-root-user
        exec unshare $userns --mount --ipc --net --pid --fork --kill-child --mount-proc --propagation private -- sh "$0" "$@"
    fi
    if [ "$(id -u)" != 0 ]; then
        exec unshare --map-root-user --mount --ipc --net --pid --fork --kill-child --mount-proc --propagation private -- sh "$0" "$@"
    fi
    # Root maps every user and group into the new namespace as themselves, so servers that drop to
    # other users keep working. Only a process outside the namespace may write such a map: a detached
    # watcher waits for this process to enter its new namespace and writes it, while the process waits
    # for its map before it goes on (until then it has no user id and would lose its capabilities on
    # exec). The watcher is detached so that it never turns up as a child of the command.
    outer=$(readlink /proc/self/ns/user)
    self=$$
    ( (
        while [ "$(readlink /proc/$self/ns/user 2>/dev/null)" = "$outer" ]; do sleep 0.01; done
        [ -d /proc/$self ] || exit 0
        echo '0 0 4294967295' >/proc/$self/uid_map
        echo '0 0 4294967295' >/proc/$self/gid_map
    ) & )
    exec unshare --user --mount --ipc --net --pid --fork --kill-child --mount-proc --propagation private -- \
        sh -c 'until read -r map </proc/self/uid_map && [ -n "$map" ]; do sleep 0.01; done; exec sh "$@"' \
        sh "$0" "$@"
fi

scratch=/mnt
mount -t tmpfs fcadmin-scratch "$scratch"
for dir in /etc /var/lib /run; do
    name=$(echo "$dir" | tr / _)
    mkdir -p "$scratch/$name/upper" "$scratch/$name/work"
    mount -t overlay "fcadmin$name" -o "lowerdir=$dir,upperdir=$scratch/$name/upper,workdir=$scratch/$name/work" "$dir"
done

# The project and the current directory stay visible even when they lie under a directory that gets a
# tmpfs (a clone under /tmp, say): they are set aside first and bound back into the fresh tmpfs.
project=$(cd "$(dirname "$0")/../.." && pwd -P)
keep="$project $(pwd -P) ${FCADMIN_SANDBOX_KEEP:-}"
kept=0
for dir in /tmp /var/tmp /var/log; do
    saved=
    for path in $keep; do
        case $path in "$dir"/*)
            kept=$((kept + 1))
            mkdir -p "$scratch/keep/$kept"
            mount --bind "$path" "$scratch/keep/$kept"
            saved="$saved $kept:$path"
            ;;
        esac
    done
    mount -t tmpfs -o mode=1777 "fcadmin-tmpfs" "$dir"
    for entry in $saved; do
        path=${entry#*:}
        mkdir -p "$path"
        mount --bind "$scratch/keep/${entry%%:*}" "$path"
    done
done
umount -l "$scratch"
mkdir -p /etc/fcadmin
mount -t tmpfs -o mode=0755 fcadmin-tmpfs /etc/fcadmin
ip link set lo up

if [ -n "${FCADMIN_SANDBOX_BINFMT:-}" ]; then
    case $FCADMIN_SANDBOX_BINFMT in
    ppc)
        # 32-bit big-endian ELF executables and shared objects for PowerPC (machine 20).
        magic='\x7f\x45\x4c\x46\x01\x02\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x14'
        mask='\xff\xff\xff\xff\xff\xff\xff\xfc\xff\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff'
        : "${QEMU_LD_PREFIX:=/usr/powerpc-linux-gnu}"
        ;;
    s390x)
        # 64-bit big-endian ELF executables and shared objects for IBM Z (machine 22).
        magic='\x7f\x45\x4c\x46\x02\x02\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x16'
        mask='\xff\xff\xff\xff\xff\xff\xff\xfc\xff\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff'
        : "${QEMU_LD_PREFIX:=/usr/s390x-linux-gnu}"
        ;;
    *)
        echo "sandbox.sh: no binfmt handler known for '$FCADMIN_SANDBOX_BINFMT'" >&2
        exit 1
        ;;
    esac
    # The F flag opens the emulator now, so it is found whatever the command later mounts; P keeps
    # argv[0] as the program was started with, which only the wrapper of qemu-user-binfmt understands.
    # Plain qemu gets argv[0] replaced by the program's path.
    emulator=/usr/libexec/qemu-binfmt/$FCADMIN_SANDBOX_BINFMT-binfmt-P
    flags=PF
    if [ ! -x "$emulator" ]; then
        emulator=$(command -v "qemu-$FCADMIN_SANDBOX_BINFMT")
        flags=F
    fi
    binfmt=/proc/sys/fs/binfmt_misc
    mount -t binfmt_misc fcadmin-binfmt "$binfmt"
    printf ':fcadmin-%s:M::%s:%s:%s:%s\n' "$FCADMIN_SANDBOX_BINFMT" "$magic" "$mask" "$emulator" "$flags" \
        >"$binfmt/register"
    export QEMU_LD_PREFIX
fi
# The command runs as a child, not as the namespace's first process: that one ignores every signal it
# has no handler for, which a test that signals itself would not expect.
status=0
"$@" || status=$?
exit $status
