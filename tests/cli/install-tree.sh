#!/usr/bin/env bash
# The installed tree works on its own: the program finds its shipped workflows and its
# interpreter launchers from bin/, and the completions are where the shells look.
# usage: install-tree.sh <build dir> <scratch folder>
set -eu
build=$1 prefix=$2/prefix
rm -rf "$2" && mkdir -p "$2"
cmake --install "$build" --prefix "$prefix" >/dev/null
export QUORLIN_APP_SUPPORT_ROOT=$2/root
"$prefix/bin/quorlin" flows --ids | grep -qx python-hello-world-v1
"$prefix/bin/quorlin" run python-hello-world-v1 --quiet | grep -qF "Succeeded"
grep -qF "complete -F _quorlin quorlin" "$prefix/share/bash-completion/completions/quorlin"
grep -qF "#compdef quorlin" "$prefix/share/zsh/vendor-completions/_quorlin"
echo "installed tree: ok"
