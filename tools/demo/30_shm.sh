# Sourced by demo_steps.sh: the shared segment, an owner and several client processes under the lock.
step "fcadmin shm: the owner creates the segment and its semaphore set"
"$tool" shm create 1024
"$tool" shm info

step "fcadmin shm: a writer holds the write lock for a second; three readers started meanwhile wait"
"$tool" shm write "first record"
"$tool" shm write --hold 1000 "second record, written under the write lock" &
sleep 0.3
for reader in 1 2 3; do
    ( "$tool" shm read | sed "s/^/reader $reader read: /" ) &
done
sleep 0.3
echo "while the writer holds the lock (value 0, the readers waiting):"
"$tool" shm info | grep semaphore
wait

step "fcadmin shm: readers share the lock; a writer waits until the last one is gone"
for reader in 1 2 3; do
    "$tool" shm read --hold 800 >/dev/null &
done
sleep 0.3
"$tool" shm write "third record" | sed 's/^/writer: /' &
sleep 0.2
echo "while three readers hold the lock (one unit each, the writer waiting):"
"$tool" shm info | grep semaphore
wait
"$tool" shm read

step "fcadmin shm: with the debug marker present the client echoes its general trace lines"
touch "${FCADMIN_DEBUG_MARKER:-/etc/fcadmin/debug}"
"$tool" shm read
rm -f "${FCADMIN_DEBUG_MARKER:-/etc/fcadmin/debug}"

step "fcadmin shm: the owner removes the segment"
"$tool" shm destroy
"$tool" shm read || echo "(exit status $?: nothing to attach to any more)"
