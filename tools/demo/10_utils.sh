# Sourced by demo_steps.sh: the file and data utilities, and the result messages.
utils_dir=$(mktemp -d /tmp/fcadmin_utils.XXXXXX)
printf 123456789 >"$utils_dir/digits"
: >"$utils_dir/empty"

step "fcadmin digest: the 32-bit file digest (head of the MD5, signed)"
echo "digits: $("$tool" digest "$utils_dir/digits")   (a file holding 123456789)"
echo "empty:  $("$tool" digest "$utils_dir/empty")"
echo "pair:   $("$tool" digest "$utils_dir/digits" "$utils_dir/empty")   (sum modulo 2^32)"

step "fcadmin crc16: CRC-16/ARC"
echo "file:   $("$tool" crc16 "$utils_dir/digits")"
echo "text:   $("$tool" crc16 -s 123456789)"

step "fcadmin b64decode"
echo "QUJDRA== -> $("$tool" b64decode QUJDRA==)"
printf 'aGVsbG8sIHN3aXRjaA==\n' >"$utils_dir/text"
echo "file    -> $("$tool" b64decode -f "$utils_dir/text")"

step "fcadmin errmsg: result codes as the user sees them"
for code in -44 -5 -50 -13; do
    printf '%4s: %s\n' "$code" "$("$tool" errmsg "$code")"
done

step "fcadmin bits and endian"
for n in 0 0x0F0F -1 0x80000000; do
    printf 'bits %-10s = %s\n' "$n" "$("$tool" bits "$n")"
done
"$tool" endian
echo "swap16 0x1234     = $("$tool" endian swap16 0x1234)"
echo "swap16 0x00AB1234 = $("$tool" endian swap16 0x00AB1234)   (bits 16-23 fold into the high byte)"
echo "swap32 0x11223344 = $("$tool" endian swap32 0x11223344)"
"$tool" bits twelve 2>&1 || echo "(bad argument: exit status $?)"
rm -rf "$utils_dir"
