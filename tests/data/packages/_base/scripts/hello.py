import json
import sys

json.load(sys.stdin)
print(json.dumps({"message": "Hello from a plugin"}))
