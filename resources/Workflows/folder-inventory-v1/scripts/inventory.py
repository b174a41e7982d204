"""Writes an inventory of the source folder's files into the report folder.

The two folder steps before this one hand over their results as JSON text under
previous_outputs: "source" with the listed files, "destination" with the folder to write.
"""

import csv
import datetime
import json
import os
import sys


def main() -> int:
    envelope = json.load(sys.stdin)
    earlier = envelope["previous_outputs"]
    source = json.loads(earlier["source"])
    destination = json.loads(earlier["destination"])["output_folder"]

    rows = []
    for path in source["files"]:
        if not os.path.isfile(path):
            continue
        stat = os.stat(path)
        rows.append({
            "name": os.path.basename(path),
            "size_bytes": stat.st_size,
            "modified": datetime.datetime.fromtimestamp(stat.st_mtime).strftime("%Y-%m-%d %H:%M"),
        })

    os.makedirs(destination, exist_ok=True)
    csv_path = os.path.join(destination, "inventory.csv")
    json_path = os.path.join(destination, "inventory.json")
    with open(csv_path, "w", newline="", encoding="utf-8") as handle:
        writer = csv.DictWriter(handle, fieldnames=["name", "size_bytes", "modified"])
        writer.writeheader()
        writer.writerows(rows)
    with open(json_path, "w", encoding="utf-8") as handle:
        json.dump({"folder": source["folder"], "files": rows}, handle, indent=2)

    total = sum(row["size_bytes"] for row in rows)
    print(json.dumps({
        "message": f"Listed {len(rows)} files ({total} bytes) from {source['folder']}.",
        "output_folder": destination,
        "final_files": [csv_path, json_path],
    }))
    return 0


if __name__ == "__main__":
    sys.exit(main())
