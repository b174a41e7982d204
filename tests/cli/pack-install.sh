#!/usr/bin/env bash
# Packs a bundle, installs the package and uninstalls it again, each step through the
# command line against a scratch data root, runs the installed flow, and checks what each
# step left on disk.
# usage: pack-install.sh <quorlin> <bundle dir> <flow id> <scratch dir>
set -eu
quorlin=$1 bundle=$2 flow=$3 scratch=$4
rm -rf "$scratch"
mkdir -p "$scratch"
export QUORLIN_APP_SUPPORT_ROOT="$scratch/root"
package="$scratch/$flow.quorlinflow"

"$quorlin" pack "$bundle" -o "$package"
test -f "$package" || { echo "no package at $package"; exit 1; }
test ! -e "$bundle/manifest.yaml" || { echo "pack wrote into the source bundle"; exit 1; }

"$quorlin" install "$package"
flow_dir="$QUORLIN_APP_SUPPORT_ROOT/bundles/$flow"
grep -q "\"active_version\": \"1.0.0\"" "$flow_dir/active.json"
cmp "$bundle/flow.yaml" "$flow_dir/1.0.0/flow.yaml"

# The installed flow runs, also with the data root given relative to the working folder.
(cd "$scratch" && QUORLIN_APP_SUPPORT_ROOT=root "$quorlin" run "$flow") > "$scratch/run.txt" || {
    cat "$scratch/run.txt"; echo "the installed flow failed under a relative data root"; exit 1; }
grep -q "Recorded as run" "$scratch/run.txt"

"$quorlin" uninstall "$flow"
test ! -e "$flow_dir" || { echo "uninstall left $flow_dir"; exit 1; }
