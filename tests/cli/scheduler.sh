#!/usr/bin/env bash
# quorlin scheduler in the foreground: a flow on "* * * * *" fires once a minute and is
# recorded as a scheduled run; a flow whose run is still going is not started beside it;
# a second scheduler on the same data root refuses to start and names the first; SIGTERM
# stops it cleanly, naming the run it had to cancel. Lasts a little over a minute, since
# it waits for the next minute.
# usage: scheduler.sh <quorlin executable> <scratch folder>
set -u
quorlin=$1 scratch=$2
rm -rf "$scratch" && mkdir -p "$scratch/slow/scripts"
export QUORLIN_APP_SUPPORT_ROOT=$scratch/root
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
log=$scratch/scheduler.log
# Waits up to $2 seconds for the log to hold the text $1.
await() {
    for _ in $(seq $(($2 * 10))); do
        grep -qF -- "$1" "$log" 2>/dev/null && return 0
        sleep 0.1
    done
    return 1
}

cat >"$scratch/slow/flow.yaml" <<'YAML'
flow:
  id: slow-flow
  name: Slow flow
  version: 1.0.0
  triggers:
    - type: manual
  steps:
    - id: wait
      name: Wait a long time
      type: script-run
      config:
        runtime: python
        entrypoint: scripts/wait.py
        timeout_seconds: 600
YAML
printf 'import time\ntime.sleep(600)\n' >"$scratch/slow/scripts/wait.py"
"$quorlin" pack "$scratch/slow" -o "$scratch/slow.quorlinflow" >/dev/null &&
    "$quorlin" install "$scratch/slow.quorlinflow" >/dev/null || fail "installing the slow flow"
"$quorlin" schedule python-hello-world-v1 --cron "* * * * *" >/dev/null
"$quorlin" schedule slow-flow --cron "* * * * *" >/dev/null

"$quorlin" scheduler 2>"$log" &
scheduler_pid=$!
trap 'kill -9 "$scheduler_pid" 2>/dev/null' EXIT

await "python-hello-world-v1 success" 30 || fail "the first firing: $(cat "$log")"
await "started slow-flow" 5 || fail "the slow flow never started: $(cat "$log")"
out=$("$quorlin" scheduler 2>&1)
[ $? -eq 1 ] && grep -qF "another scheduler already runs on $QUORLIN_APP_SUPPORT_ROOT (process $scheduler_pid)" <<<"$out" ||
    fail "a second scheduler: $out"

# The next minute: hello fires again, the slow flow (still running) does not.
for _ in $(seq 90); do
    [ "$(grep -c "python-hello-world-v1 success" "$log")" -ge 2 ] && break
    sleep 1
done
[ "$(grep -c "python-hello-world-v1 success" "$log")" -eq 2 ] || fail "hello must fire once a minute: $(cat "$log")"
[ "$(grep -c "started slow-flow" "$log")" -eq 1 ] || fail "the slow flow started beside itself: $(cat "$log")"
"$quorlin" history --flow python-hello-world-v1 --json | python3 -c 'import json, sys
runs = json.load(sys.stdin)
assert len(runs) == 2 and all(r["trigger"] == "Schedule" for r in runs), runs
assert runs[0]["localTime"][:16] != runs[1]["localTime"][:16], runs' ||
    fail "the scheduled runs in the history"

kill -TERM "$scheduler_pid"
for _ in $(seq 100); do kill -0 "$scheduler_pid" 2>/dev/null || break; sleep 0.1; done
kill -0 "$scheduler_pid" 2>/dev/null && fail "SIGTERM did not stop the scheduler"
wait "$scheduler_pid"
[ $? -eq 0 ] || fail "the scheduler's exit status after SIGTERM"
tail -1 "$log" | grep -qF "scheduler stopped; cancelled the run of slow-flow" ||
    fail "the last line: $(tail -1 "$log")"
pgrep -f "$scratch/root/bundles/slow-flow" >/dev/null && fail "the slow flow's script outlived the scheduler"

[ "$failures" -eq 0 ] && echo "scheduler: ok"
exit $((failures > 0))
