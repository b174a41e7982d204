#!/usr/bin/env python3
"""Whole `quorlin` processes against their baselines, measured in the same run.

    bench/cli_side_by_side.py [path/to/quorlin] [--rounds N] [--log-runs N]

Each command runs --rounds times, the commands taking turns so that a busy moment of the
machine falls on all of them alike; the median wall time and the largest resident memory
are reported, and each figure as a ratio to its baseline:

- `quorlin run python-hello-world-v1` against the same script under the bare interpreter
  (the one the run uses), fed the same input, with an empty log and with --log-runs runs;
- `quorlin history --limit 10` against `quorlin --version`, with 10 and with --log-runs
  runs in the log, and `--limit 100` to show the cost grows with the limit.

Run it on an optimised build (the bench preset): build/bench/cli/quorlin, with
build/bench/bench/quorlin_peak_memory beside it.
"""

import argparse
import json
import os
import sqlite3
import statistics
import subprocess
import sys
import tempfile
import time
import uuid

GOALS = {
    "run, empty log": 1.25,
    "run, long log": 1.25,
    "history --limit 10, long log": 2.0,
}


def measure(command, environment, stdin_bytes=None):
    """Wall seconds of one whole process, started without copying this one."""
    read_end, write_end = os.pipe()
    null = os.open(os.devnull, os.O_WRONLY)
    started = time.perf_counter()
    pid = os.posix_spawn(command[0], command, environment, file_actions=[
        (os.POSIX_SPAWN_DUP2, read_end, 0), (os.POSIX_SPAWN_DUP2, null, 1),
        (os.POSIX_SPAWN_DUP2, null, 2), (os.POSIX_SPAWN_CLOSE, write_end)])
    os.close(read_end)
    os.close(null)
    if stdin_bytes:
        os.write(write_end, stdin_bytes)
    os.close(write_end)
    _, status = os.waitpid(pid, 0)
    elapsed = time.perf_counter() - started
    if os.waitstatus_to_exitcode(status) != 0:
        sys.exit(f"failed ({os.waitstatus_to_exitcode(status)}): {' '.join(command)}")
    return elapsed


def peak_memory(helper, command, environment, stdin_bytes=None):
    """Peak resident kilobytes, read by a small helper: a child started from this
    interpreter would count the interpreter's memory as its own."""
    finished = subprocess.run([helper] + command, env=environment, input=stdin_bytes or b"",
                              stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, check=True)
    return int(finished.stderr.decode().strip().splitlines()[-1].split()[1])


def seed(database, count):
    """count runs of two steps each, written straight into the tables quorlin made."""
    connection = sqlite3.connect(database)
    runs, timings, records = [], [], []
    for index in range(count):
        run_id = str(uuid.UUID(int=index + 1)).upper()
        day = 1 + index % 28
        runs.append((run_id, "seeded-flow", "Seeded flow", f"2025-{1 + index % 12:02d}-{day:02d} 09:00",
                     "Schedule", "Success" if index % 10 else "Failed",
                     f"Filed {index % 7} receipts", 5, 0.002, 1.5, "/tmp/out"))
        for position, step in enumerate(("search", "file")):
            timings.append((run_id, position, step, step.title(), 0.7))
            records.append((run_id, position, step, step.title(),
                            json.dumps({"config": {"query": "receipts"}}),
                            json.dumps({"count": index % 7}), None))
    with connection:
        connection.executemany("INSERT INTO audit_runs VALUES (?,?,?,?,?,?,?,?,?,?,?)", runs)
        connection.executemany(
            "INSERT INTO audit_step_timings (run_id, position, step_id, title, duration_seconds) "
            "VALUES (?,?,?,?,?)", timings)
        connection.executemany(
            "INSERT INTO audit_step_records (run_id, position, step_id, title, input_json, "
            "output_json, error_json) VALUES (?,?,?,?,?,?,?)", records)
    connection.close()


def main():
    if len(sys.argv) == 4 and sys.argv[1] == "--seed":
        seed(sys.argv[2], int(sys.argv[3]))
        return 0
    here = os.path.dirname(os.path.abspath(__file__))
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("quorlin", nargs="?",
                        default=os.path.join(here, "..", "build", "bench", "cli", "quorlin"))
    parser.add_argument("--rounds", type=int, default=30)
    parser.add_argument("--log-runs", type=int, default=100_000)
    arguments = parser.parse_args()
    quorlin = os.path.abspath(arguments.quorlin)
    helper = os.path.join(os.path.dirname(quorlin), "..", "bench", "quorlin_peak_memory")
    interpreter = os.path.realpath(os.path.join(os.path.dirname(quorlin), "quorlin-python"))
    script = os.path.join(here, "..", "resources", "Workflows", "python-hello-world-v1",
                          "scripts", "hello.py")
    envelope = json.dumps({"flow_id": "python-hello-world-v1", "flow_name": "Python Hello World",
                           "step_id": "say-hello", "previous_outputs": {}}).encode()

    with tempfile.TemporaryDirectory() as scratch:
        roots = {name: os.path.join(scratch, name) for name in ("empty", "short", "long")}
        environments = {}
        for name, root in roots.items():
            environments[name] = dict(os.environ, QUORLIN_APP_SUPPORT_ROOT=root)
            # The first call makes the data root and the database's tables.
            measure([quorlin, "history"], environments[name])
        # Seeded by a child of its own: a child's peak memory counts what it inherits, so
        # this process stays small.
        print(f"seeding {arguments.log_runs} runs…", file=sys.stderr)
        for root, count in ((roots["short"], 10), (roots["long"], arguments.log_runs)):
            subprocess.run([sys.executable, os.path.abspath(__file__), "--seed",
                            os.path.join(root, "quorlin.sqlite"), str(count)], check=True)

        cases = [
            ("bare interpreter", [interpreter, script], "empty", envelope, None),
            ("run, empty log", [quorlin, "run", "python-hello-world-v1"], "empty", None,
             "bare interpreter"),
            ("run, long log", [quorlin, "run", "python-hello-world-v1"], "long", None,
             "bare interpreter"),
            ("quorlin --version", [quorlin, "--version"], "empty", None, None),
            ("history --limit 10, 10 runs", [quorlin, "history", "--limit", "10"], "short", None,
             "quorlin --version"),
            ("history --limit 10, long log", [quorlin, "history", "--limit", "10"], "long", None,
             "quorlin --version"),
            ("history --limit 100, long log", [quorlin, "history", "--limit", "100"], "long", None,
             "quorlin --version"),
        ]
        times = {name: [] for name, *_ in cases}
        for _ in range(arguments.rounds):
            for name, command, root, stdin_bytes, _ in cases:
                times[name].append(measure(command, environments[root], stdin_bytes))
        memory = {name: peak_memory(helper, command, environments[root], stdin_bytes)
                  for name, command, root, stdin_bytes, _ in cases}

    medians = {name: statistics.median(values) for name, values in times.items()}
    print(f"{'case':32} {'median':>9} {'peak RSS':>9} {'ratio':>7}  against")
    missed = []
    for name, _, _, _, baseline in cases:
        ratio = medians[name] / medians[baseline] if baseline else None
        goal = GOALS.get(name)
        verdict = ""
        if ratio is not None and goal is not None:
            verdict = f"  goal ≤ {goal:.2f}: " + ("met" if ratio <= goal else "MISSED")
            if ratio > goal:
                missed.append(name)
        print(f"{name:32} {medians[name] * 1000:7.1f}ms {memory[name] / 1024:7.1f}MB "
              f"{'' if ratio is None else f'{ratio:6.2f}x'}  {baseline or ''}{verdict}")
    print(f"(median of {arguments.rounds} rounds; long log = {arguments.log_runs} runs)")
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main())
