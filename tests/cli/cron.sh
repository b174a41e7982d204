#!/usr/bin/env bash
# quorlin cron: the description and next runs in a zone with summer time (a skipped 02:30
# is not run, a repeated one runs twice), "Unable to compute" for a valid expression that
# never comes round, its JSON, and each mistake with its message and exit status.
# usage: cron.sh <quorlin executable>
set -u
quorlin=$1
export TZ=CET-1CEST,M3.5.0,M10.5.0/3
errors=$(mktemp) && trap 'rm -f "$errors"' EXIT
failures=0

# run <args...>: leaves stdout, stderr and the exit status in $out, $err and $status.
run() {
    out=$("$quorlin" cron "$@" 2>"$errors")
    status=$?
    err=$(cat "$errors")
}
fail() { printf 'FAIL: %s\n  stdout: %s\n  stderr: %s\n' "$1" "$out" "$err"; failures=$((failures + 1)); }

# expect_runs <expected stdout, lines joined by |> -- <args...>
expect_runs() {
    local expected=$1
    shift 2
    run "$@"
    [ "$status" -eq 0 ] && [ -z "$err" ] && [ "$out" = "$(tr '|' '\n' <<<"$expected")" ] ||
        fail "cron $* should print: $expected"
}
expect_runs "Daily at 08:00|2024-05-02 08:00|2024-05-03 08:00|2024-05-04 08:00" -- \
    "0 8 * * *" --after "2024-05-01 09:00" --count 3
expect_runs "Weekdays at 18:00|2024-05-03 18:00|2024-05-06 18:00" -- \
    " 0 18 * * 1-5 " --after 2024-05-03 --count=2
expect_runs "Cron: 30 2 * * *|2024-04-01 02:30|2024-04-02 02:30" -- \
    "30 2 * * *" --after "2024-03-30 12:00" --count 2
expect_runs "Cron: 30 2 * * *|2024-10-27 02:30|2024-10-27 02:30|2024-10-28 02:30" -- \
    "30 2 * * *" --after "2024-10-26 12:00" --count 3
expect_runs "Cron: 0 0 30 2 *|Unable to compute" -- "0 0 30 2 *" --after 2024-01-01
expect_runs "Cron: 0 0 29 2 *|2024-02-29 00:00|Unable to compute" -- \
    "0 0 29 2 *" --after 2023-06-01 --count 3

# Without --after the runs start from now: the first is a later minute than this one.
before=$(date '+%Y-%m-%d %H:%M')
run "* * * * *" --count 1
first=$(sed -n 2p <<<"$out")
[ "$status" -eq 0 ] && [[ $first =~ ^[0-9]{4}-[0-9]{2}-[0-9]{2}\ [0-9]{2}:[0-9]{2}$ ]] &&
    [[ $first > $before ]] || fail "the next minute after $before"

run "30 2 * * *" --after "2024-10-26 12:00" --count 2 --json
python3 - "$out" <<'PY' || fail "the JSON form"
import json, sys
document = json.loads(sys.argv[1])
assert document == {
    "expression": "30 2 * * *",
    "description": "Cron: 30 2 * * *",
    "nextRuns": ["2024-10-27T02:30:00+02:00", "2024-10-27T02:30:00+01:00"],
}, document
PY
run "0 0 30 2 *" --json
python3 -c 'import json, sys; assert json.loads(sys.argv[1])["nextRuns"] == []' "$out" ||
    fail "no runs in JSON"

# expect_mistake <stderr, exactly> -- <args...>
expect_mistake() {
    local expected=$1
    shift 2
    run "$@"
    [ "$status" -eq 2 ] && [ -z "$out" ] && [ "$err" = "$expected" ] ||
        fail "cron $* should exit 2 saying: $expected"
}
expect_mistake "quorlin: Enter a cron expression, e.g. 0 8 * * *" -- ""
expect_mistake "quorlin: Enter a cron expression, e.g. 0 8 * * *" -- "   "
expect_mistake "quorlin: Cron must be 5 fields: minute hour day month weekday" -- "0 8 * *"
expect_mistake "quorlin: Cron must be 5 fields: minute hour day month weekday" -- "61 8 * * *"
expect_mistake "quorlin: Cron must be 5 fields: minute hour day month weekday" -- "0 8 * * MON"

# Option mistakes name the word, as every usage error does.
for count in ten 0 1001 -3 2.5; do
    run "0 8 * * *" --count "$count"
    [ "$status" -eq 2 ] && grep -qF "'$count'" <<<"$err" || fail "--count $count"
done
for after in tomorrow "2024-13-01" "2024-05-01 9:00" "9999-01-01"; do
    run "0 8 * * *" --after "$after"
    [ "$status" -eq 2 ] && grep -qF "'$after'" <<<"$err" || fail "--after $after"
done

out=$("$quorlin" help cron) && grep -qF 'Usage: quorlin cron [options] "<expression>"' <<<"$out" ||
    fail "quorlin help cron"
out=$("$quorlin" cron --help) && grep -qF -- "--count <count>" <<<"$out" || fail "cron --help"
out=$("$quorlin" completion bash) && grep -qF "cron" <<<"$out" || fail "completion lacks cron"

[ "$failures" -eq 0 ] && echo "cron: ok"
exit $((failures > 0))
