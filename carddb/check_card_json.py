#!/usr/bin/env python3
"""Check carddb/card.json before committing it.

Usage: python3 carddb/check_card_json.py [card.json]

Checks that the file is valid JSON with its members in order, that it matches
card.schema.json (when the python3-jsonschema package is installed), that every
card names an existing driver and that every ATR the lookup rewrites to is
present. Prints the counts and the ATRs listed more than once. Exits 1 on error.
"""
import collections
import json
import os
import sys

MEMBER_ORDER = ["instructions", "$schema", "version", "cards", "drivers"]

# The ATRs that the lookup's rewrite rules produce; each must name a card.
REWRITE_TARGETS = [
    "3BFF1800FF8131FE55006B02090200011101434E531131808E",
    "3B9F958131FE9F006646530540081871DF000046000015",
    "3B7F96000080318065B084413DF6120FFE829000",
    "3B7F96000080318065B0855956FB120268829000",
    "3BDD96FF8131FE4580595F5374645F496E6974810000",
    "3B9F9681B1FE451F070064051EB20031B0739621DB00000000",
    "3BBB1800C01031FE4580670412B003030000810000",
    "3B9F958131FE9F006646530534002571DF0000000000xx",
    "3B9F958131FE9F006646530534002571DF0000060000xx",
    "3B9F958131FE9F006646530551003371DF0000000000xx",
    "3B6D000057443641018693",
]


def schema_errors(doc, schema_path):
    try:
        import jsonschema
    except ImportError:
        print("note: python3-jsonschema not installed, schema not checked")
        return []
    with open(schema_path, encoding="utf-8") as f:
        schema = json.load(f)
    validator = jsonschema.Draft7Validator(schema)
    return [f"schema: {'/'.join(map(str, e.path))}: {e.message}"
            for e in validator.iter_errors(doc)]


def reference_errors(doc):
    errors = []
    ids = collections.Counter(d["id"].upper() for d in doc["drivers"])
    errors += [f"driver id listed twice: {i}" for i, n in ids.items() if n > 1]
    atrs = {c["atr"].upper() for c in doc["cards"]}
    for card in doc["cards"]:
        if card["driver"].upper() not in ids:
            errors.append(f"card {card['atr']} names unknown driver {card['driver']}")
    errors += [f"rewrite target has no card: {t}"
               for t in REWRITE_TARGETS if t.upper() not in atrs]
    return errors


def report(doc):
    cards, drivers = doc["cards"], doc["drivers"]
    no_linux = [d for d in drivers if "linux" not in d["file"]]
    print(f"{len(cards)} cards, {len(drivers)} drivers "
          f"({len(no_linux)} without a linux library)")
    atrs = collections.Counter(c["atr"].upper() for c in cards)
    for atr, n in atrs.items():
        if n > 1:
            names = [c["name"] for c in cards if c["atr"].upper() == atr]
            print(f"listed {n} times (first wins): {atr} {names}")


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    path = sys.argv[1] if len(sys.argv) > 1 else os.path.join(here, "card.json")
    with open(path, encoding="utf-8") as f:
        doc = json.load(f, object_pairs_hook=collections.OrderedDict)
    errors = []
    if list(doc.keys()) != MEMBER_ORDER:
        errors.append(f"top-level members must be {MEMBER_ORDER}, not {list(doc.keys())}")
    errors += schema_errors(doc, os.path.join(os.path.dirname(path), "card.schema.json"))
    if not errors:
        errors += reference_errors(doc)
    for e in errors:
        print("error:", e)
    if not errors:
        report(doc)
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main())
