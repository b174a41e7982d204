import json
import sys

envelope = json.load(sys.stdin)
approved = json.loads(envelope["previous_outputs"]["review"])["approved_table"]
names = [row["proposedName"] for row in approved]
print(json.dumps({"message": "Filed " + ", ".join(names)}))
