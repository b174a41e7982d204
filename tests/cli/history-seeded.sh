#!/usr/bin/env bash
# quorlin history on a data root whose old audit-log.json holds three runs: the first
# call imports them; then the table, the filters, CSV, JSON and one run in full. Last, a
# corrupt audit-log.json beside an empty database is reported and left in place.
# usage: history-seeded.sh <quorlin executable>
set -u
quorlin=$1
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
export QUORLIN_APP_SUPPORT_ROOT=$root
export TZ=UTC
failures=0

# expect <status> <command words...>, expected stdout on stdin.
expect() {
    local status=$1 expected actual code
    shift
    expected=$(cat)
    actual=$("$quorlin" "$@" 2>&1)
    code=$?
    if [ "$code" -ne "$status" ] || [ "$actual" != "$expected" ]; then
        printf 'quorlin %s: exit %s (wanted %s)\n' "$*" "$code" "$status"
        diff -u <(printf '%s\n' "$expected") <(printf '%s\n' "$actual")
        failures=$((failures + 1))
    fi
}

cat >"$root/audit-log.json" <<'EOF'
{"runs": [
 {"id": "11111111-1111-4111-8111-111111111111", "flowID": "receipts", "flowName": "Receipts",
  "timestamp": "2024-05-01 09:00", "trigger": "schedule", "status": "success",
  "outputSummary": "Filed 3, skipped 1", "minutesSaved": 15, "llmCostUSD": 0.0125,
  "durationSeconds": 42.5, "outputFolder": "/home/u/Receipts",
  "stepTimings": [{"stepID": "search", "title": "Search mail", "durationSeconds": 12.5}],
  "stepRecords": [{"stepID": "search", "title": "Search mail",
                   "inputJSON": "{\"query\":\"newer_than:30d\",\"max\":5}",
                   "outputJSON": "plain text"}]},
 {"id": "22222222-2222-4222-8222-222222222222", "flowID": "hello", "flowName": "Hello",
  "timestamp": "2024-05-02 10:30", "trigger": "manual", "status": "failed",
  "outputSummary": "Script said \"no\"\nand stopped", "minutesSaved": 0, "llmCostUSD": 0,
  "durationSeconds": 1.25},
 {"id": "33333333-3333-4333-8333-333333333333", "flowID": "receipts", "flowName": "Receipts",
  "timestamp": "2024-06-01 09:00", "trigger": "manual", "status": "Success",
  "outputSummary": "Filed 2", "minutesSaved": 10, "llmCostUSD": 0, "durationSeconds": 30}
]}
EOF

expect 0 history <<'EOF'
RUN       TIME              FLOW      STATUS   DURATION  SUMMARY
33333333  2024-06-01 09:00  receipts  Success     30.0s  Filed 2
22222222  2024-05-02 10:30  hello     failed       1.2s  Script said "no" and stopped
11111111  2024-05-01 09:00  receipts  success     42.5s  Filed 3, skipped 1
EOF

expect 0 history --flow receipts --status success --limit 1 <<'EOF'
RUN       TIME              FLOW      STATUS   DURATION  SUMMARY
33333333  2024-06-01 09:00  receipts  Success     30.0s  Filed 2
EOF

expect 0 history --flow nobody <<'EOF'
No runs match.
EOF

# Local dates: --until includes its day; --search, --failed and paging.
expect 0 history --since 2024-05-02 --until 2024-05-31 <<'EOF'
RUN       TIME              FLOW   STATUS  DURATION  SUMMARY
22222222  2024-05-02 10:30  hello  failed      1.2s  Script said "no" and stopped
EOF

expect 0 history --until 2024-05-01 --search SKIPPED <<'EOF'
RUN       TIME              FLOW      STATUS   DURATION  SUMMARY
11111111  2024-05-01 09:00  receipts  success     42.5s  Filed 3, skipped 1
EOF

expect 0 history --failed --offset 0 <<'EOF'
RUN       TIME              FLOW   STATUS  DURATION  SUMMARY
22222222  2024-05-02 10:30  hello  failed      1.2s  Script said "no" and stopped
EOF

expect 0 history --offset 1 --limit 1 <<'EOF'
RUN       TIME              FLOW   STATUS  DURATION  SUMMARY
22222222  2024-05-02 10:30  hello  failed      1.2s  Script said "no" and stopped
EOF

expect 0 history --totals <<'EOF'
             RUNS  MIN SAVED  LLM COST $
All             3         25        0.01

By flow
hello           1          0        0.00
receipts        2         25        0.01

By month
2024-06         1         10        0.00
2024-05         2         15        0.01
EOF

expect 0 history --totals --csv --since 2024-06-01 <<'EOF'
group,key,runs,minutesSaved,llmCostUSD
total,,1,10,0.0
flow,receipts,1,10,0.0
month,2024-06,1,10,0.0
EOF

expect 0 history --csv --limit 2 <<'EOF'
id,timestamp,localTime,flowID,flowName,trigger,status,durationSeconds,minutesSaved,llmCostUSD,outputSummary,outputFolder
33333333-3333-4333-8333-333333333333,2024-06-01 09:00,2024-06-01T09:00:00+00:00,receipts,Receipts,manual,Success,30.0,10,0.0,Filed 2,
22222222-2222-4222-8222-222222222222,2024-05-02 10:30,2024-05-02T10:30:00+00:00,hello,Hello,manual,failed,1.25,0,0.0,"Script said ""no""
and stopped",
EOF

expect 0 history --status FAILED --json <<'EOF'
[
  {
    "durationSeconds": 1.25,
    "flowID": "hello",
    "flowName": "Hello",
    "id": "22222222-2222-4222-8222-222222222222",
    "llmCostUSD": 0.0,
    "localTime": "2024-05-02T10:30:00+00:00",
    "minutesSaved": 0,
    "outputSummary": "Script said \"no\"\nand stopped",
    "status": "failed",
    "stepRecords": [],
    "stepTimings": [],
    "timestamp": "2024-05-02 10:30",
    "trigger": "manual"
  }
]
EOF

expect 0 history show 11111111-1111-4111-8111-111111111111 <<'EOF'
Run       11111111-1111-4111-8111-111111111111
Flow      Receipts (receipts)
Time      2024-05-01 09:00
Trigger   schedule
Status    success
Duration  42.5s
Saved     15 min
LLM cost  $0.01
Output    /home/u/Receipts
Summary   Filed 3, skipped 1

Step timings
  1. Search mail (search)  12.5s

Step records
  1. Search mail (search)
     input:
       {
         "max": 5,
         "query": "newer_than:30d"
       }
     output:
       plain text
EOF

expect 2 history show 3 --csv <<'EOF'
quorlin: unknown option '--csv' for 'history show'
Run 'quorlin help history show' for its usage.
EOF

# Bytes that are not UTF-8, written into the database behind the store's back, still
# leave every JSON the history prints readable as JSON.
sqlite3 "$root/quorlin.sqlite" "UPDATE audit_runs SET flow_name = CAST(X'48FF49' AS TEXT);
    UPDATE audit_step_records SET input_json = CAST(X'7B2261223A2248FF227D' AS TEXT);"
for words in "history --json" "history show 1111 --json"; do
    # shellcheck disable=SC2086
    if ! "$quorlin" $words | python3 -c 'import json, sys; json.load(sys.stdin)'; then
        echo "quorlin $words printed something that is not JSON"
        failures=$((failures + 1))
    fi
done

# A corrupt legacy file beside an empty database: reported on every call, never removed.
rm -f "$root/quorlin.sqlite"
printf '{"runs": [{"flowID": 7}]}' >"$root/audit-log.json"
for attempt in 1 2; do
    expect 1 history <<'EOF'
quorlin: Expected a string at runs[0].flowID, found 7
EOF
done
if [ "$(cat "$root/audit-log.json")" != '{"runs": [{"flowID": 7}]}' ]; then
    echo "the corrupt audit-log.json was changed or removed"
    failures=$((failures + 1))
fi

exit $((failures > 0))
