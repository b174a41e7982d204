#!/usr/bin/env bash
# quorlin folders shows the library as the app arranges it; quorlin reset asks first,
# refuses without anyone to ask, and lists what it deleted.
# usage: library.sh <quorlin executable> <scratch folder>
set -u
quorlin=$1 scratch=$2
rm -rf "$scratch" && mkdir -p "$scratch"
export QUORLIN_APP_SUPPORT_ROOT=$scratch/root
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

mkdir -p "$QUORLIN_APP_SUPPORT_ROOT"
cat >"$QUORLIN_APP_SUPPORT_ROOT/flow-library-preferences.json" <<'JSON'
{"folders": [{"id": "11111111-1111-4111-8111-111111111111", "name": " Reviews ",
              "flowIDs": ["gone-flow", "contract-audit-v1"]},
             {"id": "22222222-2222-4222-8222-222222222222", "name": "Empty", "flowIDs": []}],
 "uncategorizedFlowIDs": ["node-hello-world-v1", "contract-audit-v1"]}
JSON
out=$("$quorlin" folders)
expected=$(printf '%s\n' Reviews "  contract-audit-v1" Empty "  (no flows)" "In no folder" \
    "  node-hello-world-v1" "  folder-inventory-v1" "  python-hello-world-v1")
[ "$out" = "$expected" ] || fail "folders printed:
$out"
"$quorlin" folders --json | python3 -c 'import json, sys; d = json.load(sys.stdin)
assert d["folders"][0]["flowIDs"] == ["contract-audit-v1"], d
assert "gone-flow" not in json.dumps(d), d' || fail "folders --json"

out=$("$quorlin" reset </dev/null 2>&1)
[ $? -eq 2 ] && grep -qF "pass --yes" <<<"$out" || fail "reset with no one to ask: $out"
out=$(script -qec "$quorlin reset" /dev/null <<<"n" 2>&1)
[ $? -eq 1 ] && grep -qF "Nothing was deleted." <<<"$out" || fail "a declined reset: $out"
[ -f "$QUORLIN_APP_SUPPORT_ROOT/flow-library-preferences.json" ] || fail "a declined reset deleted"
out=$("$quorlin" reset --yes)
[ $? -eq 0 ] && grep -qF "  flow-library-preferences.json" <<<"$out" || fail "reset --yes: $out"
[ ! -e "$QUORLIN_APP_SUPPORT_ROOT" ] || fail "the data root is still there"
out=$("$quorlin" reset --yes)
grep -qF "Nothing to delete" <<<"$out" || fail "a second reset: $out"

[ "$failures" -eq 0 ] && echo "library: ok"
exit $((failures > 0))
