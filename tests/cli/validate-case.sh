#!/usr/bin/env bash
# One data-driven validation case: runs `quorlin validate` on tests/data/bundles/<case>
# and compares what it prints (stdout, then stderr) with the case's expected.txt, where
# "<bundle>" stands for the case's own directory. "ok" cases must exit 0, error cases 1.
set -u
quorlin=$1 case_dir=$2
output=$("$quorlin" validate "$case_dir" 2>&1)
status=$?
expected=$(cat "$case_dir/expected.txt")
actual=${output//"$case_dir"/<bundle>}
want_status=1
[ "${expected%%$'\n'*}" = "ok" ] && want_status=0
if [ "$actual" != "$expected" ] || [ "$status" -ne "$want_status" ]; then
    printf 'expected (status %s):\n%s\nactual (status %s):\n%s\n' "$want_status" "$expected" "$status" "$actual"
    exit 1
fi
