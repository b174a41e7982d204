#!/usr/bin/env bash
# The command line as people use it: each mistake a new user makes, and each convention a
# script relies on (exit status, what goes to stdout and what to stderr), run on a fresh
# data root.
# usage: conventions.sh <quorlin executable> <tests/data folder> <scratch folder>
set -u
quorlin=$1 data=$2 scratch=$3
rm -rf "$scratch" && mkdir -p "$scratch/home/src" "$scratch/report"
export QUORLIN_APP_SUPPORT_ROOT=$scratch/root
export TZ=UTC
printf 'a' >"$scratch/home/src/one.txt"
flows=$data/cli-flows
failures=0

# run_quorlin <args...>: leaves stdout, stderr and the exit status in $out, $err, $status.
run_quorlin() {
    "$quorlin" "$@" >"$scratch/out" 2>"$scratch/err"
    status=$?
    out=$(cat "$scratch/out") err=$(cat "$scratch/err")
}

problem() {
    printf 'FAIL %s\n  %s\n  stdout: %s\n  stderr: %s\n' "$case_name" "$1" "$out" "$err"
    failures=$((failures + 1))
}

# check <name> <status> <stream: out|err|any> <text> -- <args...>
check() {
    case_name=$1
    local want=$2 stream=$3 text=$4
    shift 5
    run_quorlin "$@"
    local where=$out$'\n'$err
    [ "$stream" = out ] && where=$out
    [ "$stream" = err ] && where=$err
    [ "$status" -eq "$want" ] || problem "exit status $status, wanted $want"
    grep -qF -- "$text" <<<"$where" || problem "$stream lacks: $text"
}

# Help is an answer, not a mistake; usage mistakes exit 2, name the word and say what
# was meant.
check help-command 0 out "Usage: quorlin run [options] <flow-id | bundle dir>" -- help run
check run-help 0 out "--approve <answer>" -- run --help
check history-help 0 out "--since <date>" -- history --help
check history-show-help 0 out "Usage: quorlin history show" -- history show --help
check command-typo 2 err "quorlin: unknown command 'histroy'; did you mean 'history'?" -- histroy
check option-typo 2 err "unknown option '--falied' for 'history'; did you mean '--failed'?" -- history --falied
check bad-status 2 err "unknown value 'bogus' for --status (one of: success, failed, rejected)" -- history --status bogus
check bad-date 2 err "--since takes a date (2024-05-01)" -- history --since yesterday
check usage-points-to-help 2 err "Run 'quorlin help history' for its usage." -- history --limit 0
check flow-typo 2 err "unknown flow 'python-helo-world-v1'; did you mean 'python-hello-world-v1'?" -- run python-helo-world-v1
check no-run-recorded-for-a-typo 0 out "[]" -- history --json
check folder-missing 2 err "The folder for source_folder does not exist: /no/such/dir" -- \
    run folder-inventory-v1 --folder source_folder=/no/such/dir
check folder-key-listed 2 err "its folder settings are: source_folder, report_folder." -- \
    run folder-inventory-v1 --folder source=/tmp
check folder-shape 2 err "--folder takes <key>=<path>, not 'source_folder'" -- \
    run folder-inventory-v1 --folder source_folder
check error-prefix 1 err "quorlin: Could not read" -- inspect "$scratch/no-such.yaml"

# A quoted ~ is the home folder, not a folder named "~".
(cd "$scratch" && HOME=$scratch/home "$quorlin" run folder-inventory-v1 \
    --folder 'source_folder=~/src' --folder "report_folder=$scratch/report" >"$scratch/out" 2>&1)
case_name=quoted-home status=$? out=$(cat "$scratch/out") err=
[ "$status" -eq 0 ] || problem "exit status $status"
grep -qF "Listed 1 file" <<<"$out" || problem "the home folder's one file was not listed"
[ ! -e "$scratch/~" ] || problem "a folder named ~ was made"

# Progress on stderr, the result on stdout.
check result-on-stdout 0 out "Recorded as run" -- run python-hello-world-v1
case_name=progress-on-stderr
grep -qF "[1/1] Say hello from Python" <<<"$err" || problem "no progress on stderr"
grep -qF "[1/1]" <<<"$out" && problem "progress on stdout"

# --json: one object on stdout and nothing else.
check run-json 0 out '"status": "succeeded"' -- run python-hello-world-v1 --json
python3 -c 'import json, sys; r = json.load(sys.stdin); assert len(r["runID"]) == 36 and r["flowID"] == "python-hello-world-v1", r' <<<"$out" ||
    problem "stdout is not the one JSON object"
check run-quiet 0 out "Succeeded in" -- run python-hello-world-v1 --quiet
[ -z "$err" ] || problem "--quiet still wrote progress"

# A failed step is named, in words and in JSON; exit status 1.
check failed-step 1 err "quorlin: Step 'Check the totals' (check) failed:" -- run "$flows/failing-step"
grep -qF "the totals do not add up" <<<"$err" || problem "the script's words are missing"
check failed-step-json 1 out '"status": "failed"' -- run "$flows/failing-step" --json
python3 -c 'import json, sys; r = json.load(sys.stdin); assert r["failedStep"]["id"] == "check" and "totals" in r["error"], r' <<<"$out" ||
    problem "failedStep or error missing from the JSON"

# A bundle runs in place from its folder, recorded under its flow id; a script's stderr
# is mentioned, and shown with --verbose.
check run-in-place 0 err "Step count wrote 2 line(s) to stderr; --verbose shows them." -- run "$flows/two-steps"
check run-verbose 0 err "count| counting three things" -- run "$flows/two-steps/flow.yaml" --verbose
check in-place-recorded 0 out "cli-two-steps" -- history --flow cli-two-steps
check approve-in-place 0 out "Filed 2026-11 Acme invoice.pdf" -- run "$data/approval-demo" --approve all
check not-a-bundle 2 err "no flow.yaml in $flows" -- run "$flows"

# On a terminal a JSON result reads as key: value lines, the last step's alone; history
# keeps summaries short.
case_name=readable-result
out=$(script -qec "$quorlin run $flows/two-steps" /dev/null 2>&1) err=
grep -qF "summary: Counted 3 things" <<<"$out" || problem "no key: value lines on a terminal"
grep -qF '"summary": ' <<<"$out" && problem "raw JSON on a terminal"
grep -qF "things:" <<<"$out" && problem "an earlier step's output shown as the result"
run_quorlin history --flow cli-two-steps --limit 1
case_name=short-summary
line=$(sed -n 2p <<<"$out")
[ "${#line}" -lt 120 ] || problem "a history row of ${#line} characters"
grep -qF "Counted 3 things" <<<"$line" || problem "the summary is not the last step's"

# validate takes a flow.yaml as well as its folder; blocks lists the catalogue.
check validate-file 0 out "ok" -- validate "$flows/two-steps/flow.yaml"
check blocks 0 out "gmail.search-messages@0.1.0" -- blocks
check block-typo 2 err "did you mean 'gmail.search-messages'?" -- blocks gmail.search-mesages

# Completion is made from the same command table.
case_name=bash-completion
run_quorlin completion bash
words=$(bash -c 'source "$1"; COMP_WORDS=(quorlin hist); COMP_CWORD=1; _quorlin; echo "${COMPREPLY[*]}"
    COMP_WORDS=(quorlin history --st); COMP_CWORD=2; _quorlin; echo "${COMPREPLY[*]}"
    COMP_WORDS=(quorlin history --status ""); COMP_CWORD=3; _quorlin; echo "${COMPREPLY[*]}"
    COMP_WORDS=(quorlin settings s); COMP_CWORD=2; _quorlin; echo "${COMPREPLY[*]}"' \
    _ "$scratch/out")
[ "$words" = $'history\n--status\nsuccess failed rejected\nset' ] || problem "bash completed: $words"
check bad-shell 2 err "unknown shell 'fish'" -- completion fish
case_name=zsh-completion
run_quorlin completion zsh
zsh -n "$scratch/out" 2>"$scratch/err" || problem "zsh can't read its completion script"

if [ "$failures" -ne 0 ]; then
    echo "$failures case(s) failed"
    exit 1
fi
echo "all cases passed"
