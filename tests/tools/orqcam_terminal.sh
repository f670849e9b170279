#!/bin/sh
# orqcam as a user runs it: in a terminal a transfer draws a progress bar, in a pipe or with
# --quiet it does not; --json leaves stderr empty; the USB build with nothing attached exits
# with "no camera".
set -u
orqcam=$1
usb=$2
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
fail() {
    echo "FAIL: $*"
    exit 1
}

script -qec "'$orqcam' --virtual sx160 shoot --to-host '$dir/tty'" /dev/null >"$dir/tty.txt" ||
    fail "shoot in a terminal: exit $?"
grep -q 'download \[#*\].*/s .*left' "$dir/tty.txt" || fail "no progress bar in a terminal"
ls "$dir"/tty/*.jpg >/dev/null || fail "no picture from the terminal run"

"$orqcam" --virtual SX160 shoot --to-host "$dir/pipe" 2>&1 | cat >"$dir/pipe.txt"
ls "$dir"/pipe/*.jpg >/dev/null || fail "no picture from the piped run"
grep -q 'left' "$dir/pipe.txt" && fail "a progress bar in a pipe"

script -qec "'$orqcam' --quiet --virtual SX160 shoot --to-host '$dir/quiet'" /dev/null \
    >"$dir/quiet.txt" || fail "quiet shoot: exit $?"
grep -q 'left' "$dir/quiet.txt" && fail "a progress bar with --quiet"

# Under --json stdout is the one document and stderr stays empty on success, whatever the
# libraries themselves might print.
"$orqcam" --json --virtual SX160 shoot --to-host "$dir/json" >"$dir/json.out" 2>"$dir/json.err" ||
    fail "shoot --json: exit $?"
[ -s "$dir/json.err" ] && fail "stderr under --json: $(cat "$dir/json.err")"
ls "$dir"/json/*.jpg >/dev/null || fail "no picture from the --json run"
[ "$(wc -l <"$dir/json.out")" -eq 1 ] && grep -q '^{.*}$' "$dir/json.out" || fail "not one JSON line"

if [ "$usb" = 1 ]; then
    "$orqcam" info 2>"$dir/usb.txt"
    code=$?
    [ $code -eq 3 ] || fail "no camera: exit $code"
    grep -q 'udev rule' "$dir/usb.txt" || fail "no word of the udev rule"
fi
echo "ok"
