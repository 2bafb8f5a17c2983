# Sourced by demo_steps.sh: the export, staged items uploaded over scp and sftp to a throwaway sshd.
peers="$here/../tests/support/peers.sh"
export_work=$(mktemp -d /tmp/demo_export.XXXXXX)
chmod 0755 "$export_work"  # sshd writes into j.doe's home below it as j.doe
export_home="$export_work/peers/home/j.doe"
export_source=/var/lib/fcadmin/export

step "fcadmin export: items in $export_source, sshd on 127.0.0.1 and ::1 (user j.doe)"
mkdir -p "$export_source"
printf 'hostname switch1\nport 1 enable\n' >"$export_source/running.cfg"
printf 'zone fabric_a: 10:00:00:05:1e:7a:7a:00\n' >"$export_source/zoning.cfg"
head -c 4096 /dev/urandom >"$export_source/fabric.db"
ls -l "$export_source" | sed 1d
# A failing step ends the demo (set -e): the servers must not outlive it.
trap '"$peers" stop "$export_work/peers"' EXIT
"$peers" start "$export_work/peers"
mkdir "$export_home/backup" && chown j.doe "$export_home/backup"

step "fcadmin export over scp: every item in one command, public-key log-in"
echo "\$ fcadmin export scp://j.doe@127.0.0.1/ --all --dir $export_home/backup"
"$tool" export scp://j.doe@127.0.0.1/ --all --dir "$export_home/backup"
echo "exit status $?; on the server:"
ls -l "$export_home/backup" | sed 1d
for f in running.cfg zoning.cfg fabric.db; do
    cmp -s "$export_source/$f" "$export_home/backup/$f" && echo "$f arrived byte for byte"
done
echo "staging directory afterwards: [$(ls -A /tmp/fcadmin_export)]"
echo "from the client's output in the transfer error log:"
grep -E '^Authenticated to' /var/log/fcadmin_transfer.log

step "fcadmin export over sftp: one item under a new name, server on [::1], through a batch file"
echo "\$ fcadmin export 'sftp://j.doe@[::1]$export_home/backup/zoning-today.cfg' --item zoning.cfg"
"$tool" export "sftp://j.doe@[::1]$export_home/backup/zoning-today.cfg" --item zoning.cfg
echo "exit status $?; zoning-today.cfg reads: $(cat "$export_home/backup/zoning-today.cfg")"
echo "batch file afterwards: $(ls /tmp/.fcadmin_export.bat 2>/dev/null || echo removed)"
echo "the client ran the batch file's one command:"
grep -E '^sftp> ' /var/log/fcadmin_transfer.log || true

step "fcadmin export --all without --dir: refused before anything is staged"
echo "\$ fcadmin export scp://j.doe@127.0.0.1/ --all"
status=0
"$tool" export scp://j.doe@127.0.0.1/ --all || status=$?
echo "exit status $status"

step "fcadmin export: stop the server"
"$peers" stop "$export_work/peers"
trap - EXIT
echo "stopped"
rm -rf "$export_work" "$export_source"
