#!/usr/bin/env bash
# A step's script lives no longer than the quorlin that started it: after kill -9 of
# quorlin in the middle of a step, the script ends too.
# usage: parent-death.sh <quorlin> <scratch dir>
set -u
quorlin=$1 scratch=$2
rm -rf "$scratch"
mkdir -p "$scratch/bundle/scripts"
export QUORLIN_APP_SUPPORT_ROOT="$scratch/root"
pid_file="$scratch/script.pid"

cat >"$scratch/bundle/flow.yaml" <<'YAML'
flow:
  id: linger
  name: Linger
  version: 1.0.0
  triggers: []
  steps:
    - id: wait
      name: Wait
      type: script-run
      config: {runtime: python, entrypoint: scripts/wait.py, timeout_seconds: 60}
YAML
cat >"$scratch/bundle/scripts/wait.py" <<PYTHON
import os, time
with open("$pid_file.tmp", "w") as out:
    out.write(str(os.getpid()))
os.rename("$pid_file.tmp", "$pid_file")
time.sleep(60)
PYTHON

"$quorlin" pack "$scratch/bundle" -o "$scratch/linger.quorlinflow" >/dev/null &&
    "$quorlin" install "$scratch/linger.quorlinflow" >/dev/null || exit 1

"$quorlin" run linger >/dev/null 2>&1 &
runner=$!
for _ in $(seq 200); do
    [ -s "$pid_file" ] && break
    sleep 0.1
done
[ -s "$pid_file" ] || { echo "the script never started"; kill -9 "$runner"; exit 1; }
script=$(cat "$pid_file")
kill -9 "$runner"

# Ended means gone, or a zombie nobody has reaped yet.
running() { [ -r "/proc/$1/stat" ] && [ "$(cut -d')' -f2 "/proc/$1/stat" | cut -c2)" != Z ]; }
for _ in $(seq 100); do
    running "$script" || { echo "the script ended with quorlin"; exit 0; }
    sleep 0.1
done
echo "the script $script still runs after quorlin was killed"
kill -9 "$script"
exit 1
