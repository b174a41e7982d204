#!/usr/bin/env bash
# The approval gate from the command line: a packed and installed flow that stops at its
# gate is filed with --approve all, rejected with --approve none, and left with exit
# status 3 (nothing recorded) when nobody can answer. Each leaves exactly the audit rows expected.
set -eu
quorlin=$1 bundle=$2 scratch=$3
rm -rf "$scratch" && mkdir -p "$scratch"
export QUORLIN_APP_SUPPORT_ROOT=$scratch/root
"$quorlin" pack "$bundle" -o "$scratch/demo.quorlinflow" >/dev/null
"$quorlin" install "$scratch/demo.quorlinflow" >/dev/null

"$quorlin" run approval-demo --approve all | grep -qF 'Filed 2026-11 Acme invoice.pdf, 2026-11 Bolt receipt.pdf'
"$quorlin" run approval-demo --approve none | grep -qF 'All proposals rejected; no files written.'
status=0
"$quorlin" run approval-demo </dev/null >/dev/null 2>"$scratch/err" || status=$?
if [ "$status" -ne 3 ]; then
    echo "an unanswered gate must exit 3, not $status"; cat "$scratch/err"; exit 1
fi
grep -qF 'run it again with --approve all to file them or --approve none' "$scratch/err"

statuses=$("$quorlin" history --json |
    python3 -c 'import json, sys; print(" ".join(sorted(r["status"] for r in json.load(sys.stdin))), end=" ")')
if [ "$statuses" != "Rejected Success " ]; then
    echo "unexpected audit rows: $statuses"; exit 1
fi
echo "approval gate: 3 runs, 2 rows"
