import json

print(json.dumps({"proposals": [
    {"original_name": "scan-001.pdf", "proposed_name": "2026-11 Acme invoice.pdf", "sender": "Acme", "subject": "Your invoice"},
    {"original_name": "scan-002.pdf", "proposed_name": "2026-11 Bolt receipt.pdf", "sender": "Bolt", "subject": "Receipt"},
]}))
