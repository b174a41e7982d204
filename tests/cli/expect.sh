#!/usr/bin/env bash
# Runs a command and checks its exit status and combined output.
# usage: expect.sh <status> <text|@file> -- command [args...]
#   text:  a fixed string the output must contain
#   @file: a file the standard output must equal exactly
set -u
status=$1 expected=$2
shift 3
output=$("$@" 2>/tmp/quorlin-expect-stderr.$$)
actual=$?
errors=$(cat /tmp/quorlin-expect-stderr.$$); rm -f /tmp/quorlin-expect-stderr.$$
if [ "$actual" -ne "$status" ]; then
    printf 'expected exit status %s, got %s\nstdout:\n%s\nstderr:\n%s\n' "$status" "$actual" "$output" "$errors"
    exit 1
fi
if [ "${expected#@}" != "$expected" ]; then
    if ! diff -u "${expected#@}" <(printf '%s\n' "$output"); then
        exit 1
    fi
elif ! printf '%s\n%s\n' "$output" "$errors" | grep -qF -- "$expected"; then
    printf 'output lacks: %s\nstdout:\n%s\nstderr:\n%s\n' "$expected" "$output" "$errors"
    exit 1
fi
