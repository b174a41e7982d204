#!/usr/bin/env bash
# quorlin runtimes against a download host on loopback: a verified Python build installs
# and scripts then run on it; a Node build whose checksum differs is refused and leaves
# nothing behind; status shows the order the interpreters are tried in.
# usage: runtimes.sh <quorlin executable> <scratch folder>
set -u
quorlin=$1 scratch=$2
rm -rf "$scratch" && mkdir -p "$scratch/host"
export QUORLIN_APP_SUPPORT_ROOT=$scratch/root
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

case "$(uname -m)" in
aarch64 | arm64) arch=aarch64 node_arch=arm64 ;;
*) arch=x86_64 node_arch=x64 ;;
esac
python_folder=$scratch/host/astral-sh/python-build-standalone/releases/download/20260414
python_archive=cpython-3.10.20+20260414-$arch-unknown-linux-gnu-install_only.tar.gz
node_folder=$scratch/host/dist/v24.14.1
node_archive=node-v24.14.1-linux-$node_arch.tar.gz
mkdir -p "$python_folder" "$node_folder"

# A "Python build" whose interpreter notes each use, then hands over to the system's.
python3 - "$python_folder/$python_archive" "$scratch/used" <<'PY'
import io, sys, tarfile
script = f'#!/bin/sh\necho managed >> "{sys.argv[2]}"\nexec /usr/bin/python3 "$@"\n'.encode()
with tarfile.open(sys.argv[1], "w:gz") as archive:
    info = tarfile.TarInfo("python/bin/python3")
    info.mode, info.size = 0o755, len(script)
    archive.addfile(info, io.BytesIO(script))
PY
(cd "$python_folder" && sha256sum "$python_archive" >SHA256SUMS)
printf 'node' | gzip >"$node_folder/$node_archive"
echo "$(printf '0%.0s' {1..64})  $node_archive" >"$node_folder/SHASUMS256.txt"

(cd "$scratch/host" && exec python3 -u -m http.server --bind 127.0.0.1 0 >"$scratch/host.log" 2>&1) &
host_pid=$!
trap 'kill "$host_pid" 2>/dev/null' EXIT
port=
for _ in $(seq 200); do
    port=$(sed -n 's/^Serving HTTP on .* port \([0-9]*\) .*/\1/p' "$scratch/host.log")
    [ -n "$port" ] && break
    sleep 0.05
done
[ -n "$port" ] || { echo "FAIL: the download host did not start: $(cat "$scratch/host.log")"; exit 1; }
export QUORLIN_PYTHON_DOWNLOAD_BASE_URL=http://127.0.0.1:$port
export QUORLIN_NODE_DOWNLOAD_BASE_URL=http://127.0.0.1:$port
export no_proxy=127.0.0.1 NO_PROXY=127.0.0.1

status=$("$quorlin" runtimes status --json)
python3 -c 'import json, sys; r = json.load(sys.stdin)[0]
assert r["runtime"] == "python" and [c["source"] for c in r["candidates"]] == ["managed", "launcher"], r
assert not r["candidates"][0]["available"] and r["interpreter"].endswith("quorlin-python"), r' \
    <<<"$status" || fail "status before the install: $status"

out=$("$quorlin" runtimes install python 2>"$scratch/progress")
[ $? -eq 0 ] || fail "the install failed: $out $(cat "$scratch/progress")"
grep -qF "Quorlin CPython runtime installed" <<<"$out" || fail "no install log: $out"
grep -qF "Checking the download against its published checksum" "$scratch/progress" ||
    fail "no progress lines: $(cat "$scratch/progress")"
"$quorlin" runtimes status | grep -qF "Python: scripts run on $QUORLIN_APP_SUPPORT_ROOT/managed-runtimes/python/" ||
    fail "status doesn't name the managed build"
"$quorlin" run python-hello-world-v1 >/dev/null 2>&1 || fail "the hello-world run failed"
[ "$(cat "$scratch/used" 2>/dev/null)" = managed ] || fail "the script didn't run on the managed build"
out=$("$quorlin" runtimes install python 2>/dev/null)
grep -qF "runtime already installed" <<<"$out" || fail "a second install: $out"

out=$("$quorlin" runtimes install node 2>&1)
[ $? -eq 1 ] || fail "a node build with the wrong checksum must fail: $out"
grep -qF "doesn't match its published checksum" <<<"$out" || fail "no word about the checksum: $out"
left=$(ls -A "$QUORLIN_APP_SUPPORT_ROOT/managed-runtimes/node" | grep -v '^.install.lock$')
[ -z "$left" ] || fail "the refused install left: $left"

[ "$failures" -eq 0 ] && echo "runtimes: ok"
exit $((failures > 0))
