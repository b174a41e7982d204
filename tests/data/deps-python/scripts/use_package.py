"""Answers with the VALUE of the package the workflow's requirements.txt installs."""

import json
import sys

import quorlintestpkg

json.load(sys.stdin)
json.dump({"message": f"quorlintestpkg says {quorlintestpkg.VALUE}"}, sys.stdout)
