#!/usr/bin/env bash
# quorlin scheduler --install and --uninstall against a stand-in systemctl that notes its
# words: the unit names this quorlin and this data root, is enabled and started, and is
# stopped and removed again; a systemctl that fails fails the command with its words.
# usage: scheduler-unit.sh <quorlin executable> <scratch folder>
set -u
quorlin=$1 scratch=$2
rm -rf "$scratch" && mkdir -p "$scratch/bin"
export XDG_CONFIG_HOME=$scratch/config QUORLIN_APP_SUPPORT_ROOT="$scratch/data root"
export SYSTEMCTL_LOG=$scratch/systemctl.log PATH=$scratch/bin:$PATH
unit=$XDG_CONFIG_HOME/systemd/user/quorlin-scheduler.service
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
cat >"$scratch/bin/systemctl" <<'SH'
#!/bin/sh
echo "$*" >>"$SYSTEMCTL_LOG"
[ -z "${SYSTEMCTL_REFUSES:-}" ] || { echo "Failed to connect to bus: No medium found" >&2; exit 1; }
SH
chmod +x "$scratch/bin/systemctl"

out=$("$quorlin" scheduler --install 2>&1)
[ $? -eq 0 ] || fail "--install: $out"
grep -qxF "ExecStart=\"$(cd "$(dirname "$quorlin")" && pwd)/quorlin\" scheduler" "$unit" ||
    fail "the unit's program: $(cat "$unit")"
grep -qxF "Environment=\"QUORLIN_APP_SUPPORT_ROOT=$QUORLIN_APP_SUPPORT_ROOT\"" "$unit" ||
    fail "the unit's data root: $(cat "$unit")"
[ "$(cat "$SYSTEMCTL_LOG")" = "--user daemon-reload
--user enable --now quorlin-scheduler.service" ] || fail "systemctl was asked: $(cat "$SYSTEMCTL_LOG")"

: >"$SYSTEMCTL_LOG"
out=$("$quorlin" scheduler --uninstall 2>&1)
[ $? -eq 0 ] && [ ! -e "$unit" ] || fail "--uninstall: $out"
grep -qxF -- "--user disable --now quorlin-scheduler.service" "$SYSTEMCTL_LOG" ||
    fail "systemctl was asked: $(cat "$SYSTEMCTL_LOG")"

out=$(SYSTEMCTL_REFUSES=1 "$quorlin" scheduler --install 2>&1)
[ $? -eq 1 ] && grep -qF "systemctl --user daemon-reload failed: Failed to connect to bus" <<<"$out" ||
    fail "a refusing systemctl: $out"
out=$("$quorlin" scheduler --install --uninstall 2>&1)
[ $? -eq 2 ] || fail "both at once: $out"

[ "$failures" -eq 0 ] && echo "scheduler unit: ok"
exit $((failures > 0))
