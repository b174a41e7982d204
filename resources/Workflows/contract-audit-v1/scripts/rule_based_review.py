"""A rule-based contract review, for when no LLM answers.

Gets the review step's context (the contract text) and the reason the model could not be
asked, and answers with the same keys the model would: parties, term, renewal,
payment_terms, liabilities and risks. It reads clauses by their words, so it finds what is
written plainly and says when it found nothing; the report marks it as rule-based.
"""

import json
import re
import sys

NOT_FOUND = "Not found by the rule-based review; read the contract for it."


def sentences(text):
    """The text's sentences, headings left out, each on one line."""
    result = []
    for paragraph in re.split(r"\n\s*\n", text):
        lines = [line for line in paragraph.split("\n") if not line.lstrip().startswith("#")]
        flat = " ".join(" ".join(lines).split())
        # A clause number ("2.1") is no sentence end; a full stop before one is.
        for piece in re.split(r"(?<=[.;!?])\s+(?=[A-Z(\"“]|\d+(?:\.\d+)*\.?\s)", flat):
            if piece.strip():
                result.append(piece.strip())
    return result


def matching(lines, pattern, limit=3):
    expression = re.compile(pattern, re.IGNORECASE)
    found = [line for line in lines if expression.search(line)]
    return found[:limit]


def joined_or_not_found(lines):
    return " ".join(lines) if lines else NOT_FOUND


def parties(text):
    between = re.search(
        r"between\s+(.{2,120}?)\s*(?:\((?:the\s+)?[\"“]?(\w[\w ]{0,30})[\"”]?\))?,?\s+and\s+"
        r"(.{2,120}?)\s*(?:\((?:the\s+)?[\"“]?(\w[\w ]{0,30})[\"”]?\))?[,.;\n]",
        text, re.IGNORECASE | re.DOTALL)
    if not between:
        return []
    result = []
    for name, role in ((between.group(1), between.group(2)), (between.group(3), between.group(4))):
        name = " ".join(name.split()).strip(" ,;:\"“”")
        result.append({"name": name, "role": (role or "party").strip().lower()})
    return result


def risks(text, lines):
    found = []

    def flag(severity, title, detail):
        found.append({"severity": severity, "title": title, "detail": detail})

    lowered = text.lower()
    renewal = matching(lines, r"automatic(ally)?\s+renew|auto-renew|renews? automatically", 1)
    if renewal:
        flag("medium", "Automatic renewal",
             "The contract renews by itself unless notice is given: " + renewal[0])
    if re.search(r"unlimited liability|liability\s+(?:shall\s+)?(?:be\s+)?unlimited", lowered):
        flag("high", "Unlimited liability", "A party's liability has no cap.")
    elif not re.search(r"(?:limitation|limit|cap)\w*\s+(?:of|on)\s+liability|liability\s+cap|"
                       r"aggregate liability|total liability", lowered):
        flag("medium", "No limitation of liability",
             "No clause caps either party's liability.")
    if re.search(r"indemnif", lowered) and not re.search(r"mutual(?:ly)?\s+indemnif", lowered):
        flag("medium", "One-sided indemnity",
             "An indemnity is given, and nothing says it is mutual.")
    if not re.search(r"terminat", lowered):
        flag("high", "No termination clause", "Nothing says how either party can end it.")
    if re.search(r"exclusiv", lowered):
        flag("medium", "Exclusivity", "The contract grants or requires exclusivity.")
    if re.search(r"non-compet|not\s+compete", lowered):
        flag("medium", "Non-compete", "A party is restricted from competing.")
    late = matching(lines, r"late (?:payment|fee)|interest (?:on|at)|overdue", 1)
    if late:
        flag("low", "Late payment charges", late[0])
    if not re.search(r"governing law|governed by", lowered):
        flag("low", "No governing law", "The contract does not say which law governs it.")
    order = {"high": 0, "medium": 1, "low": 2}
    return sorted(found, key=lambda risk: order[risk["severity"]])


def review(text):
    lines = sentences(text)
    renewal = matching(lines, r"renew")
    return {
        "parties": parties(text),
        "term": joined_or_not_found(
            matching(lines, r"\bterm\b|commenc|effective date|\bexpir|\d+\s*(?:months?|years?)\b",
                     2)),
        "renewal": " ".join(renewal) if renewal else "No renewal clause found.",
        "payment_terms": joined_or_not_found(
            matching(lines, r"\bpay|invoice|\bfees?\b|\bnet\s*\d+|\$|€|£|\bUSD\b|\bEUR\b")),
        "liabilities": joined_or_not_found(
            matching(lines, r"liabil|indemnif|warrant|consequential damages")),
        "risks": risks(text, lines),
    }


def main() -> int:
    envelope = json.load(sys.stdin)
    inputs = envelope["inputs"]
    outputs = review(str(inputs.get("context", {}).get("text", "")))
    outputs["review_method"] = "rule-based"
    outputs["fallback_reason"] = inputs.get("reason", "")
    print(json.dumps({"outputs": outputs}))
    return 0


if __name__ == "__main__":
    sys.exit(main())
