#!/usr/bin/env bash
# quorlin schedule: setting, switching and clearing a flow's schedule in the library
# preferences, with the words the schedule editor shows; quorlin schedule list.
# usage: schedule.sh <quorlin executable> <scratch folder>
set -u
quorlin=$1 scratch=$2
rm -rf "$scratch" && mkdir -p "$scratch"
export QUORLIN_APP_SUPPORT_ROOT=$scratch/root TZ=UTC0
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
# One value of the schedule's JSON, read by a Python expression on `s`.
field() { python3 -c "import json, sys; s = json.load(sys.stdin); print($1)"; }

out=$("$quorlin" schedule contract-audit-v1 --cron "0 18 * * 1-5" --json)
[ $? -eq 0 ] || fail "setting a schedule: $out"
[ "$(field 's["description"], s["enabled"], s["expression"]' <<<"$out")" = "Weekdays at 18:00 True 0 18 * * 1-5" ] ||
    fail "the schedule set: $out"
grep -qF '"cronExpression": "0 18 * * 1-5"' "$QUORLIN_APP_SUPPORT_ROOT/flow-library-preferences.json" ||
    fail "the preference was not saved"

out=$("$quorlin" schedule contract-audit-v1 --disable --json)
[ "$(field 's["nextRun"], s["expression"]' <<<"$out")" = "Disabled 0 18 * * 1-5" ] ||
    fail "switching off must keep the expression: $out"

out=$("$quorlin" schedule contract-audit-v1 --cron "0 18 * *" 2>&1)
[ $? -eq 2 ] && grep -qF "quorlin: Cron must be 5 fields: minute hour day month weekday" <<<"$out" ||
    fail "a bad expression: $out"
out=$("$quorlin" schedule contract-audit-v1 --enable --disable 2>&1)
[ $? -eq 2 ] || fail "two changes at once must be a usage error: $out"

out=$("$quorlin" schedule python-hello-world-v1 --enable)
[ $? -eq 1 ] && grep -qF "problem: Enter a cron expression, e.g. 0 8 * * *" <<<"$out" ||
    fail "on with nothing to run by: $out"

"$quorlin" schedule contract-audit-v1 --clear >/dev/null
out=$("$quorlin" schedule list --json)
[ "$(field '[x["description"] for x in s if x["flowID"] == "contract-audit-v1"][0]' <<<"$out")" = Manual ] ||
    fail "--clear must go back to the flow's own (none): $out"
"$quorlin" schedule list | grep -qF "python-hello-world-v1: Manual" || fail "schedule list"

[ "$failures" -eq 0 ] && echo "schedule: ok"
exit $((failures > 0))
