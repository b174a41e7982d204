"""Writes the contract review as an HTML report into the report folder.

The review comes from the model or, when none answered, from the rule-based review; it
is outside input either way, so every value is escaped and any shape is shown rather than
trusted. The last line printed is what the run's summary and history show.
"""

import datetime
import html
import json
import os
import re
import sys

SECTIONS = [
    ("term", "Term"),
    ("renewal", "Renewal"),
    ("payment_terms", "Payment terms"),
    ("liabilities", "Liabilities"),
]
SEVERITIES = ["high", "medium", "low"]

STYLE = """
body { font-family: system-ui, sans-serif; max-width: 52rem; margin: 2rem auto; padding: 0 1rem;
       color: #1d2330; line-height: 1.5; }
h1 { font-size: 1.6rem; margin-bottom: 0.2rem; }
.meta { color: #5b6475; margin-top: 0; }
.note { background: #fff6e0; border: 1px solid #f0d48a; padding: 0.6rem 0.8rem; border-radius: 6px; }
table { border-collapse: collapse; width: 100%; }
th, td { text-align: left; padding: 0.4rem 0.6rem; border-bottom: 1px solid #e3e6ec; vertical-align: top; }
.severity { font-weight: 600; text-transform: uppercase; font-size: 0.8rem; }
.high { color: #b42318; } .medium { color: #b54708; } .low { color: #3b6e3b; }
"""


def text_of(value):
    """Any JSON value as readable text."""
    if value is None:
        return ""
    if isinstance(value, str):
        return value
    if isinstance(value, list):
        return "; ".join(text_of(item) for item in value)
    if isinstance(value, dict):
        return "; ".join(f"{key}: {text_of(item)}" for key, item in value.items())
    return json.dumps(value)


def paragraph(value):
    text = text_of(value).strip()
    return f"<p>{html.escape(text)}</p>" if text else "<p><em>Not stated.</em></p>"


def parties_html(parties):
    if not isinstance(parties, list) or not parties:
        return paragraph(parties if parties else "No parties found.")
    rows = []
    for party in parties:
        if isinstance(party, dict):
            name, role = text_of(party.get("name")), text_of(party.get("role"))
        else:
            name, role = text_of(party), ""
        rows.append(f"<tr><td>{html.escape(name)}</td><td>{html.escape(role)}</td></tr>")
    return "<table><tr><th>Name</th><th>Role</th></tr>" + "".join(rows) + "</table>"


def normalized_risks(risks):
    if isinstance(risks, dict):
        risks = [risks]
    if not isinstance(risks, list):
        return [{"severity": "", "title": text_of(risks), "detail": ""}] if risks else []
    result = []
    for risk in risks:
        if isinstance(risk, dict):
            severity = text_of(risk.get("severity")).strip().lower()
            result.append({"severity": severity if severity in SEVERITIES else "",
                           "title": text_of(risk.get("title")),
                           "detail": text_of(risk.get("detail"))})
        else:
            result.append({"severity": "", "title": text_of(risk), "detail": ""})
    return result


def risks_html(risks):
    if not risks:
        return "<p>No risks flagged.</p>"
    rows = []
    for risk in risks:
        severity = risk["severity"]
        rows.append(
            f"<tr><td class=\"severity {severity}\">{html.escape(severity or 'note')}</td>"
            f"<td><strong>{html.escape(risk['title'])}</strong><br>"
            f"{html.escape(risk['detail'])}</td></tr>")
    return "<table><tr><th>Severity</th><th>Risk</th></tr>" + "".join(rows) + "</table>"


def report_html(contract, review, risks, rule_based, reason):
    title = f"Contract review: {contract['contract_name']}"
    method = ("a rule-based review, because no LLM answered" if rule_based
              else "an LLM review")
    parts = [
        "<!DOCTYPE html>",
        "<html lang=\"en\"><head><meta charset=\"utf-8\">",
        f"<title>{html.escape(title)}</title><style>{STYLE}</style></head><body>",
        f"<h1>{html.escape(title)}</h1>",
        f"<p class=\"meta\">{contract['word_count']} words, reviewed "
        f"{datetime.datetime.now().strftime('%Y-%m-%d %H:%M')} by {method}.</p>",
    ]
    if rule_based:
        parts.append("<p class=\"note\">This review matched the contract's words against "
                     "rules; it can miss clauses a reader would find. "
                     f"Why no LLM answered: {html.escape(reason or 'unknown')}</p>")
    if contract.get("truncated"):
        parts.append("<p class=\"note\">The contract was too long to review whole; "
                     "only its beginning was read.</p>")
    parts.append("<h2>Parties</h2>" + parties_html(review.get("parties")))
    for key, heading in SECTIONS:
        parts.append(f"<h2>{heading}</h2>" + paragraph(review.get(key)))
    parts.append("<h2>Risks</h2>" + risks_html(risks))
    parts.append("</body></html>\n")
    return "\n".join(parts)


def report_path(folder, contract_name):
    stem = re.sub(r"[^\w.-]+", "-", os.path.splitext(contract_name)[0]).strip("-.") or "contract"
    day = datetime.date.today().isoformat()
    return os.path.join(folder, f"{stem}-review-{day}.html")


def main() -> int:
    envelope = json.load(sys.stdin)
    earlier = envelope["previous_outputs"]
    contract = json.loads(earlier["read"])
    step = json.loads(earlier["review"])
    folder = json.loads(earlier["report_folder"])["output_folder"]
    review = step.get("review")
    if not isinstance(review, dict):
        review = {"term": review}
    rule_based = review.get("review_method") == "rule-based"
    risks = normalized_risks(review.get("risks"))

    os.makedirs(folder, exist_ok=True)
    path = report_path(folder, contract["contract_name"])
    with open(path, "w", encoding="utf-8") as handle:
        handle.write(report_html(contract, review, risks, rule_based,
                                 text_of(review.get("fallback_reason"))))

    high = sum(1 for risk in risks if risk["severity"] == "high")
    summary = (f"Reviewed {contract['contract_name']}: {len(risks)} "
               f"{'risk' if len(risks) == 1 else 'risks'} flagged, {high} high")
    if rule_based:
        summary += " (rule-based review)"
    print(json.dumps({
        "workflow": "contract-audit-v1",
        "summary": summary + ".",
        "html_path": path,
        "output_folder": folder,
        "final_files": [path],
        "risk_count": len(risks),
        "review_method": "rule-based" if rule_based else "llm",
    }))
    return 0


if __name__ == "__main__":
    sys.exit(main())
