"""Reads the chosen contract for the review step.

The input-file step before this one hands over the file's path as JSON text under
previous_outputs["contract"]. The text goes to the review as it is, cut at a length a
model reads in one request; the cut is reported so the report can say so.
"""

import json
import os
import sys

MAX_CHARACTERS = 120_000


def main() -> int:
    envelope = json.load(sys.stdin)
    contract = json.loads(envelope["previous_outputs"]["contract"])
    path = contract["input_file"]
    with open(path, "rb") as handle:
        raw = handle.read()
    try:
        text = raw.decode("utf-8-sig")
    except UnicodeDecodeError:
        print(f"{os.path.basename(path)} is not UTF-8 text; save it as plain text and try again.",
              file=sys.stderr)
        return 1
    text = text.replace("\r\n", "\n").replace("\r", "\n").strip()
    if not text:
        print(f"{os.path.basename(path)} is empty.", file=sys.stderr)
        return 1
    truncated = len(text) > MAX_CHARACTERS
    print(json.dumps({
        "contract_name": os.path.basename(path),
        "contract_path": path,
        "text": text[:MAX_CHARACTERS],
        "word_count": len(text.split()),
        "truncated": truncated,
    }))
    return 0


if __name__ == "__main__":
    sys.exit(main())
