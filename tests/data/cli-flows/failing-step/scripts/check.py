import sys

print("the totals do not add up", file=sys.stderr)
sys.exit(1)
