# Sourced by demo_steps.sh: the command runner, as the transfers use it for their tools.
step "fcadmin run: a command that succeeds (its output goes to the transfer error log)"
"$tool" run /bin/echo copied 1 file && echo "exit status 0"
echo "error log $(ls -l /var/log/fcadmin_transfer.log | cut -d' ' -f1) holds:"
cat /var/log/fcadmin_transfer.log

step "fcadmin run: a command that fails (the tool shows the error log and the result)"
if "$tool" run /bin/ls /no/such/remote/file; then status=0; else status=$?; fi
echo "exit status $status"

step "fcadmin run: at most 22 words; a command of 23 is refused before anything starts"
if "$tool" run /bin/echo 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 22; then status=0; else status=$?; fi
echo "exit status $status"
