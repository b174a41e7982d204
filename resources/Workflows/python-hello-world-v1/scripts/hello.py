"""Reads the step's input envelope from stdin and answers with a greeting as JSON."""

import json
import platform
import sys


def main() -> int:
    envelope = json.load(sys.stdin)
    flow_name = envelope.get("flow_name", "this workflow")
    earlier_steps = sorted(envelope.get("previous_outputs", {}))
    result = {
        "message": f"Hello from Python {platform.python_version()}, running {flow_name}.",
        "flow_id": envelope.get("flow_id"),
        "step_id": envelope.get("step_id"),
        "earlier_steps": earlier_steps,
    }
    json.dump(result, sys.stdout)
    print()
    return 0


if __name__ == "__main__":
    sys.exit(main())
