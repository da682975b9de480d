#!/usr/bin/env python3
"""Validates JSON from stdin against one of docs/json-schema/*.json.
usage: validate_json.py SCHEMA_DIR SCHEMA_FILE [--lines]
--lines: every line is one document (JSON Lines). Exit 0 valid, 1 invalid, 77 when the
jsonschema package is missing."""
import json
import pathlib
import sys

try:
    import jsonschema
except ImportError:
    sys.exit(77)

folder = pathlib.Path(sys.argv[1])
store = {}
for f in folder.glob("*.json"):
    store[f.name] = json.loads(f.read_text())
schema = store[sys.argv[2]]
jsonschema.Draft7Validator.check_schema(schema)
resolver = jsonschema.RefResolver(base_uri=sys.argv[2], referrer=schema, store=store)
validator = jsonschema.Draft7Validator(schema, resolver=resolver)
text = sys.stdin.read()
docs = [l for l in text.splitlines() if l.strip()] if "--lines" in sys.argv[3:] else [text]
if not docs:
    print("no document", file=sys.stderr)
    sys.exit(1)
bad = 0
for d in docs:
    for e in validator.iter_errors(json.loads(d)):
        print(f"{list(e.absolute_path)}: {e.message}", file=sys.stderr)
        bad += 1
sys.exit(1 if bad else 0)
