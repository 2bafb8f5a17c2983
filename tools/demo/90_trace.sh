# Sourced by demo_steps.sh: the host trace service, seen through fcadmin trace.
traced="errmsg -44"
"$tool" shm --help >/dev/null 2>&1 && traced="shm info"
step "fcadmin trace $traced: run the command, then print the lines it stored in the trace ring"
# shellcheck disable=SC2086 # the command is two words on purpose
"$tool" trace $traced || true
step "FCADMIN_TRACE_FILE collects the lines of every run; fcadmin trace alone prints that file"
rm -f /tmp/fcadmin.trace
# shellcheck disable=SC2086
FCADMIN_TRACE_FILE=/tmp/fcadmin.trace "$tool" $traced >/dev/null 2>&1 || true
# shellcheck disable=SC2086
FCADMIN_TRACE_FILE=/tmp/fcadmin.trace "$tool" $traced >/dev/null 2>&1 || true
FCADMIN_TRACE_FILE=/tmp/fcadmin.trace "$tool" trace || true
