#!/usr/bin/env bash
# quorlin local-llm against a stand-in ollama on PATH: start, status (started by Quorlin,
# with its process id), pull with progress lines, stop leaves no process; Ctrl-C during a
# pull; a server started outside Quorlin is reported so and left running by stop.
# usage: local-llm.sh <quorlin executable> <fake ollama script> <scratch folder>
set -u
quorlin=$1 fake=$2 scratch=$3
rm -rf "$scratch" && mkdir -p "$scratch/bin"
cp "$fake" "$scratch/bin/ollama" && chmod 755 "$scratch/bin/ollama"
export PATH=$scratch/bin:$PATH
export QUORLIN_APP_SUPPORT_ROOT=$scratch/root
export no_proxy=127.0.0.1 NO_PROXY=127.0.0.1
unset FAKE_OLLAMA_PULL_DELAY FAKE_OLLAMA_IGNORE_SIGTERM
record=$QUORLIN_APP_SUPPORT_ROOT/local-llm/ollama-serve.pid
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

# Every server this test caused is ended by its process id, however the test goes.
servers=()
recorded_pid() { python3 -c 'import json, sys; print(json.load(open(sys.argv[1]))["pid"])' "$record" 2>/dev/null; }
cleanup() {
    local pid
    pid=$(recorded_pid) && servers+=("$pid")
    for pid in "${servers[@]}"; do
        grep -qa ollama "/proc/$pid/cmdline" 2>/dev/null && kill -KILL "$pid" 2>/dev/null
    done
}
trap cleanup EXIT

# Gone, or a zombie waiting for whoever inherited it: no process runs either way.
gone() { ! grep -q '^[^)]*) [^ZX]' "/proc/$1/stat" 2>/dev/null; }
wait_gone() {
    for _ in $(seq 50); do gone "$1" && return 0; sleep 0.1; done
    return 1
}
json_field() { python3 -c 'import json, sys; v = json.loads(sys.argv[1])[sys.argv[2]]; print("null" if v is None else v)' "$1" "$2"; }

port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
address=http://127.0.0.1:$port
"$quorlin" settings set ollamaURL "$address/" >/dev/null 2>&1
"$quorlin" settings set localLLMModel llama3.2:3b >/dev/null 2>&1

status=$("$quorlin" local-llm status --json)
[ "$(json_field "$status" serverRunning)" = False ] || fail "a server before start: $status"
[ "$(json_field "$status" cliPath)" = "$scratch/bin/ollama" ] || fail "the ollama on PATH: $status"

# --- start, status, pull, stop
out=$("$quorlin" local-llm start 2>&1)
[ $? -eq 0 ] || fail "start failed: $out"
grep -qF "Ollama background server started" <<<"$out" || fail "start said: $out"
grep -qF "server: $address" <<<"$out" || fail "start names no server: $out"
pid=$(recorded_pid)
[ -n "$pid" ] && servers+=("$pid") || fail "start recorded no process id"

status=$("$quorlin" local-llm status --json)
[ "$(json_field "$status" serverStartedBy)" = quorlin ] || fail "not started by Quorlin: $status"
[ "$(json_field "$status" serverProcessID)" = "$pid" ] || fail "another process id: $status"
"$quorlin" local-llm status | grep -qF "Server started by: Quorlin (process $pid)" ||
    fail "the status text doesn't name the process"

out=$("$quorlin" local-llm pull llama3.2:3b 2>"$scratch/progress")
[ $? -eq 0 ] || fail "the pull failed: $out $(cat "$scratch/progress")"
grep -qF "Ollama model downloaded" <<<"$out" || fail "the pull said: $out"
for line in "pulling manifest" "pulling 2bada8a74506: 3.0 MB in" "writing manifest"; do
    grep -qF "$line" "$scratch/progress" || fail "no progress line '$line': $(cat "$scratch/progress")"
done
"$quorlin" local-llm status | grep -qF "Default model: llama3.2:3b (installed)" ||
    fail "the pulled model isn't listed"

out=$("$quorlin" local-llm pull missing-model 2>&1)
[ $? -eq 1 ] && grep -qF "quorlin: Ollama couldn't pull missing-model: pull model manifest: file does not exist" <<<"$out" ||
    fail "an unknown model: $out"
out=$("$quorlin" local-llm pull "bad name" 2>&1)
[ $? -eq 2 ] && grep -qF "'bad name'" <<<"$out" || fail "a model name with a blank: $out"

out=$("$quorlin" local-llm stop 2>&1)
[ $? -eq 0 ] || fail "stop failed: $out"
grep -qF "Sent stop signal to the Ollama background server Quorlin started." <<<"$out" || fail "stop said: $out"
wait_gone "$pid" || fail "process $pid is still running after stop"
[ ! -e "$record" ] || fail "stop left the pid file"
out=$("$quorlin" local-llm stop 2>&1)
[ $? -eq 0 ] && grep -qF "Local AI background service stopped" <<<"$out" || fail "a second stop: $out"

# --- Ctrl-C during a pull: nothing is installed, and the server can still be stopped.
FAKE_OLLAMA_PULL_DELAY=30 "$quorlin" local-llm start >/dev/null 2>&1 || fail "the second start"
pid=$(recorded_pid) && servers+=("$pid")
"$quorlin" local-llm pull mistral:7b >/dev/null 2>"$scratch/interrupted" &
puller=$!
for _ in $(seq 100); do grep -qF "pulling manifest" "$scratch/interrupted" 2>/dev/null && break; sleep 0.1; done
kill -INT "$puller"
wait "$puller"
code=$?
[ "$code" -eq 130 ] && grep -qF "Pull cancelled; mistral:7b was not installed." "$scratch/interrupted" ||
    fail "Ctrl-C during a pull: $code $(cat "$scratch/interrupted")"
"$quorlin" local-llm status | grep -qF "Default model: llama3.2:3b (installed)" ||
    fail "the server went with the interrupted pull"
"$quorlin" local-llm stop >/dev/null 2>&1
wait_gone "$pid" || fail "process $pid is still running after the second stop"

# --- a server someone else started
OLLAMA_HOST=127.0.0.1:$port OLLAMA_MODELS=$scratch/elsewhere "$scratch/bin/ollama" serve 2>/dev/null &
outside=$!
servers+=("$outside")
for _ in $(seq 100); do
    [ "$(json_field "$("$quorlin" local-llm status --json)" serverRunning)" = True ] && break
    sleep 0.1
done
status=$("$quorlin" local-llm status --json)
[ "$(json_field "$status" serverStartedBy)" = outside ] || fail "not reported as outside: $status"
[ "$(json_field "$status" serverProcessID)" = null ] || fail "an outside server has no pid of ours: $status"
out=$("$quorlin" local-llm stop 2>&1)
[ $? -eq 0 ] && grep -qF "started outside Quorlin" <<<"$out" || fail "stop of an outside server: $out"
gone "$outside" && fail "stop ended a server Quorlin did not start"
kill "$outside" 2>/dev/null
wait "$outside" 2>/dev/null

[ "$failures" -eq 0 ] && echo "local-llm: ok"
exit $((failures > 0))
