#!/usr/bin/env bash
# quorlin deps, and the installs a run makes by itself: a flow with a requirements.txt and
# one with a package.json install their packages once (pip from wheels built here, npm
# from a registry on loopback: no outside network), skip them on the next run, install
# again after one byte of a manifest changes, use npm ci where a lockfile lies beside
# package.json, and after a failure or Ctrl-C keep what was installed before.
# usage: deps.sh <quorlin> <tests/data> <tests/runtimes> <scratch folder>
set -um # job control: a background quorlin gets Ctrl-C as it would from a terminal
quorlin=$1 data=$2 tools=$3 scratch=$4
rm -rf "$scratch" && mkdir -p "$scratch"
export QUORLIN_APP_SUPPORT_ROOT=$scratch/root
failures=0
servers=()
trap 'for pid in "${servers[@]}"; do kill "$pid" 2>/dev/null; done' EXIT

# run <args...>: leaves stdout, stderr and the exit status in $out, $err and $status.
run() {
    out=$("$quorlin" "$@" 2>"$scratch/stderr")
    status=$?
    err=$(cat "$scratch/stderr")
}
fail() { printf 'FAIL: %s\n  stdout: %s\n  stderr: %s\n' "$1" "$out" "$err"; failures=$((failures + 1)); }
# expect <status> <text in stdout or stderr> -- <args...>
expect() {
    local want=$1 text=$2
    shift 3
    run "$@"
    [ "$status" -eq "$want" ] && grep -qF -- "$text" <<<"$out
$err" || fail "quorlin $* should exit $want with: $text"
}
# started <file> <text>: waits (a minute at most) until the file holds the text.
started() {
    for _ in $(seq 600); do
        grep -qF -- "$2" "$1" 2>/dev/null && return 0
        sleep 0.1
    done
    return 1
}
# serve <port file> <program...>: starts a server in the background that prints its port.
serve() {
    local file=$1
    shift
    "$@" >"$file" 2>>"$scratch/servers.log" &
    servers+=($!)
    for _ in $(seq 600); do
        [ -s "$file" ] && return 0
        sleep 0.1
    done
    echo "a test server did not start: $*"
    exit 1
}

# The offline package sources: two versions of a wheel, and a registry with two versions
# of an npm package. The user's own npm settings stay out of it.
for version in 1.0.0:one 1.0.1:two; do
    python3 "$tools/make_wheel.py" "$scratch/wheels" quorlintestpkg "${version%%:*}" "${version#*:}" >/dev/null
done
export PIP_NO_INDEX=1 PIP_FIND_LINKS=$scratch/wheels PIP_CACHE_DIR=$scratch/pip-cache
serve "$scratch/registry-port" python3 "$tools/fake_npm_registry.py" quorlin-test-pkg 1.0.0,1.0.1
touch "$scratch/npmrc"
export npm_config_registry=http://127.0.0.1:$(cat "$scratch/registry-port")/ \
    npm_config_cache=$scratch/npm-cache npm_config_userconfig=$scratch/npmrc \
    npm_config_update_notifier=false npm_config_audit=false npm_config_fund=false

for flow in deps-python deps-node; do
    "$quorlin" pack "$data/$flow" -o "$scratch/$flow.quorlinflow" >/dev/null &&
        "$quorlin" install "$scratch/$flow.quorlinflow" >/dev/null || fail "installing $flow"
done
python_bundle=$QUORLIN_APP_SUPPORT_ROOT/bundles/deps-python-v1/1.0.0/scripts
node_bundle=$QUORLIN_APP_SUPPORT_ROOT/bundles/deps-node-v1/1.0.0/scripts
python_folder=$QUORLIN_APP_SUPPORT_ROOT/script-dependencies/python/deps-python-v1
node_folder=$QUORLIN_APP_SUPPORT_ROOT/script-dependencies/node/deps-node-v1

# --- Python: the first run installs, the next ones don't, one byte installs again.
expect 0 "Python dependencies: not installed" -- deps status deps-python-v1
grep -qF "Node dependencies: none needed (no scripts/package.json)" <<<"$out" || fail "node needs nothing"
grep -qF "installs with: " <<<"$out" || fail "the status names no installer"
expect 0 "quorlintestpkg says one" -- run deps-python-v1
run deps status deps-python-v1 --json
python3 - "$out" "$python_bundle" "$python_folder" <<'PY' || fail "status --json after the run"
import json, sys
status = json.loads(sys.argv[1])
assert status["flowID"] == "deps-python-v1", status
assert status["python"]["state"] == "current", status
assert status["python"]["manifest"] == sys.argv[2] + "/requirements.txt", status
assert status["python"]["folder"] == sys.argv[3], status
assert status["python"]["installer"]["managed"] is False, status
assert status["node"]["state"] == "not-needed", status
assert status["node"]["manifest"] is None and status["node"]["folder"] is None, status
PY
[ -e "$QUORLIN_APP_SUPPORT_ROOT/script-dependencies/node/deps-python-v1" ] &&
    fail "status made a folder for packages nobody needs"
expect 0 "Python workflow dependencies are up to date" -- deps install deps-python-v1
grep -qF "python|" <<<"$err" && fail "pip ran although nothing changed"
grep -qF "has no scripts/requirements.txt" <<<"$out" && fail "python was reported as not needed"
grep -qF "deps-python-v1 has no scripts/package.json; no Node workflow dependencies needed." \
    <<<"$out" || fail "node's log is missing"

sed -i 's/1\.0\.0/1.0.1/' "$python_bundle/requirements.txt"
expect 0 "Python dependencies: out of date" -- deps status deps-python-v1
expect 0 "Python workflow dependencies installed" -- deps install deps-python-v1
grep -qF "python| Successfully installed quorlintestpkg-1.0.1" <<<"$err" || fail "pip's lines on stderr"
grep -qF "the system's Python, not Quorlin-managed" <<<"$out" || fail "the log names no interpreter"
expect 0 "quorlintestpkg says two" -- run deps-python-v1

# --- Node: installed once from the registry, skipped, installed again after one byte.
requests() { grep -c "GET /quorlin-test-pkg" "$scratch/servers.log"; }
expect 0 "Node workflow dependencies installed" -- deps install deps-node-v1
grep -qF "node| added 1 package" <<<"$err" || fail "npm's lines on stderr"
expect 0 "quorlin-test-pkg says 1.0.0" -- run deps-node-v1
before=$(requests)
expect 0 "Node workflow dependencies are up to date" -- deps install deps-node-v1
expect 0 "quorlin-test-pkg says 1.0.0" -- run deps-node-v1
[ "$(requests)" = "$before" ] || fail "npm asked the registry although nothing changed"
sed -i 's/"quorlin-test-pkg": "1.0.0"/"quorlin-test-pkg": "1.0.1"/' "$node_bundle/package.json"
expect 0 "quorlin-test-pkg says 1.0.1" -- run deps-node-v1

# A lockfile beside package.json installs with npm ci, and counts as part of the manifest.
cp "$node_folder/package-lock.json" "$node_bundle/package-lock.json"
expect 0 "Node dependencies: out of date" -- deps status deps-node-v1
grep -qF "lockfile: $node_bundle/package-lock.json" <<<"$out" || fail "status shows no lockfile"
expect 0 "lockfile: $node_bundle/package-lock.json" -- deps install deps-node-v1
expect 0 "Node dependencies: installed and current" -- deps status deps-node-v1
printf '\n' >>"$node_bundle/package-lock.json"
expect 0 "Node dependencies: out of date" -- deps status deps-node-v1
# npm ci refuses a lockfile that doesn't match package.json; what was installed stays.
sed -i 's/"quorlin-test-pkg": "1.0.1"/"quorlin-test-pkg": "1.0.0"/' "$node_bundle/package.json"
expect 1 "quorlin: npm error" -- deps install deps-node-v1
grep -qF "npm ci" <<<"$err" || fail "npm's own words are missing"
grep -qF '"version": "1.0.1"' "$node_folder/node_modules/quorlin-test-pkg/package.json" ||
    fail "the failed npm ci touched the installed packages"
expect 1 "npm error" -- run deps-node-v1

# --- Mistakes and Ctrl-C.
expect 2 "unknown flow 'deps-pyton-v1'; did you mean 'deps-python-v1'?" -- deps status deps-pyton-v1
expect 2 "unknown flow 'nothing-like-it'" -- deps install nothing-like-it
expect 2 "'deps' needs one of: status, install" -- deps
expect 0 "Usage: quorlin deps install <flow-id>" -- help deps install

# A package index that accepts connections and never answers keeps pip busy until Ctrl-C.
serve "$scratch/silent-port" python3 -c '
import socket
listener = socket.create_server(("127.0.0.1", 0))
print(listener.getsockname()[1], flush=True)
held = []
while True:
    held.append(listener.accept()[0])'
sed -i 's/1\.0\.1/2.0.0/' "$python_bundle/requirements.txt"
env -u PIP_NO_INDEX -u PIP_FIND_LINKS PIP_DEFAULT_TIMEOUT=600 \
    PIP_INDEX_URL=http://127.0.0.1:$(cat "$scratch/silent-port")/simple/ \
    "$quorlin" deps install deps-python-v1 >"$scratch/cancel.out" 2>"$scratch/cancel.err" &
installer=$!
if started "$scratch/cancel.err" "Looking in indexes"; then
    kill -INT "$installer"
    wait "$installer"
    status=$?
    out=$(cat "$scratch/cancel.out") err=$(cat "$scratch/cancel.err")
    [ "$status" -eq 130 ] && grep -qF "Install cancelled" <<<"$err" || fail "Ctrl-C during pip"
else
    kill -9 "$installer"
    out="" err=$(cat "$scratch/cancel.err")
    fail "pip never asked the silent index"
fi
ls -A "$(dirname "$python_folder")" | grep -q "tmp-\|old-" && fail "Ctrl-C left a staging folder"
[ "$(PYTHONPATH=$python_folder python3 -c 'import quorlintestpkg; print(quorlintestpkg.VALUE)')" = two ] ||
    fail "Ctrl-C lost the packages installed before"
expect 0 "Python dependencies: out of date" -- deps status deps-python-v1

[ "$failures" -eq 0 ] && echo "deps: ok"
exit $((failures > 0))
