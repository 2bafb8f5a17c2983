#!/bin/sh
# Throwaway transfer peers on the sandbox's loopback, for the end-to-end tests and the demo:
#
#   peers.sh start DIR   sshd on [127.0.0.1]:22 and [::1]:22 (public-key log-in only, a throwaway host
#                        key), vsftpd on 127.0.0.1:21 and [::1]:21 (local users, writable homes); the user
#                        j.doe (the client key authorized) with the password "p@ss:w0rd" and the home
#                        DIR/home/j.doe; the machine's ssh client pointed at the key
#   peers.sh stop DIR    ends the servers
#
# It writes users into /etc and listens on fixed ports, so it refuses to run outside
# tests/support/sandbox.sh, whose overlay over /etc and private network take all of that back.
set -eu
[ "${FCADMIN_IN_SANDBOX:-}" = 1 ] || { echo "peers.sh: refusing to run outside the test sandbox" >&2; exit 1; }
[ $# = 2 ] || { echo "usage: peers.sh start|stop DIR" >&2; exit 2; }
dir=$2

wait_for() {  # ADDRESS:PORT
    tries=0
    until ss -Hltn | grep -qF " $1 "; do
        tries=$((tries + 1))
        [ $tries -lt 200 ] || { echo "peers.sh: nothing listens on $1" >&2; cat "$dir"/*/*.log >&2; exit 1; }
        sleep 0.05
    done
}

if [ "$1" = stop ]; then
    for pidfile in "$dir"/*/pid; do
        [ -f "$pidfile" ] && kill "$(cat "$pidfile")" 2>/dev/null || true
        rm -f "$pidfile"
    done
    exit 0
fi
[ "$1" = start ] || { echo "usage: peers.sh start|stop DIR" >&2; exit 2; }

mkdir -p "$dir/sshd" "$dir/ftp4" "$dir/ftp6" "$dir/empty" "$dir/client-home" /run/sshd
chmod 0755 "$dir" "$dir/empty"
# A second start in one sandbox (the demo's) moves the user to the new home.
if id -u j.doe >/dev/null 2>&1; then usermod -d "$dir/home/j.doe" j.doe
else useradd -M -d "$dir/home/j.doe" -s /bin/sh -u 4242 -U j.doe; fi
echo "j.doe:p@ss:w0rd" | chpasswd
mkdir -p "$dir/home/j.doe/.ssh"
# The client runs as root and keeps its files in root's home: give it one of the peers' own.
sed -i "s#^root:\([^:]*\):0:0:\([^:]*\):[^:]*:#root:\1:0:0:\2:$dir/client-home:#" /etc/passwd

ssh-keygen -q -t ed25519 -N '' -C host -f "$dir/sshd/host_key"
ssh-keygen -q -t ed25519 -N '' -C client -f "$dir/client_key"
cp "$dir/client_key.pub" "$dir/home/j.doe/.ssh/authorized_keys"
chown -R j.doe:j.doe "$dir/home/j.doe"
cat >"$dir/sshd/config" <<EOF
Port 22
ListenAddress 127.0.0.1
ListenAddress ::1
HostKey $dir/sshd/host_key
PidFile none
UsePAM no
PasswordAuthentication no
KbdInteractiveAuthentication no
PrintMotd no
LogLevel VERBOSE
Subsystem sftp internal-sftp
EOF
cat >/etc/ssh/ssh_config.d/fcadmin-peers.conf <<EOF
Host *
    IdentityFile $dir/client_key
    IdentitiesOnly yes
    UserKnownHostsFile /dev/null
    GlobalKnownHostsFile /dev/null
    BatchMode yes
EOF
/usr/sbin/sshd -D -e -f "$dir/sshd/config" >"$dir/sshd/sshd.log" 2>&1 </dev/null &
echo $! >"$dir/sshd/pid"

printf 'auth required pam_unix.so\naccount required pam_unix.so\nsession required pam_permit.so\n' \
    >/etc/pam.d/fcadmin-peers-ftp
for peer in "ftp4 listen=YES listen_address=127.0.0.1" "ftp6 listen_ipv6=YES listen_address6=::1"; do
    set -- $peer
    cat >"$dir/$1/config" <<EOF
$2
$3
listen_port=21
background=NO
anonymous_enable=NO
local_enable=YES
write_enable=YES
local_umask=022
connect_from_port_20=NO
pam_service_name=fcadmin-peers-ftp
secure_chroot_dir=$dir/empty
seccomp_sandbox=NO
isolate=NO
isolate_network=NO
xferlog_enable=YES
xferlog_std_format=NO
log_ftp_protocol=YES
vsftpd_log_file=$dir/$1/vsftpd.log
EOF
    /usr/sbin/vsftpd "$dir/$1/config" >"$dir/$1/out.log" 2>&1 </dev/null &
    echo $! >"$dir/$1/pid"
done

for address in 127.0.0.1:22 '[::1]:22' 127.0.0.1:21 '[::1]:21'; do wait_for "$address"; done
