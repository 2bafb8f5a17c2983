# Sourced by demo_steps.sh: the atomic file copy.
step "fcadmin copy: replace a file atomically"
work=$(mktemp -d /tmp/demo_copy.XXXXXX)
printf 'zoning: new configuration\n' >"$work/new.cfg"
chmod 0640 "$work/new.cfg"
printf 'zoning: old configuration\n' >"$work/active.cfg"
"$tool" copy "$work/new.cfg" "$work/active.cfg"
echo "exit status $?; active.cfg now reads: $(cat "$work/active.cfg")"
ls -l "$work" | sed 1d

step "fcadmin copy: a failure leaves the destination as it was"
status=0
"$tool" copy "$work/missing.cfg" "$work/active.cfg" || status=$?
echo "exit status $status; active.cfg still reads: $(cat "$work/active.cfg")"
mkdir "$work/locked.cfg.tmp"
status=0
"$tool" copy "$work/new.cfg" "$work/locked.cfg" || status=$?
echo "exit status $status; locked.cfg exists: $([ -e "$work/locked.cfg" ] && echo yes || echo no)"

step "fcadmin copy: under the debug marker the library echoes its trace line itself"
touch /etc/fcadmin/debug
"$tool" copy "$work/missing.cfg" "$work/active.cfg" 2>/dev/null || true
rm -f /etc/fcadmin/debug
rm -rf "$work"
