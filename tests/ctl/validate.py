#!/usr/bin/env python3
"""validate.py SCHEMA: every line of standard input is one JSON value that the schema allows. Prints
the first thing that is wrong and ends with 1, or ends with 0."""
import json
import sys

import jsonschema


def refuse(constant):
    raise ValueError(constant + " is no JSON")


with open(sys.argv[1], encoding="utf-8") as file:
    schema = json.load(file)
jsonschema.Draft202012Validator.check_schema(schema)
validator = jsonschema.Draft202012Validator(schema)
count = 0
for line in sys.stdin.buffer:
    count += 1
    if not line.endswith(b"\n"):
        sys.exit(f"line {count} has no end")
    record = json.loads(line.decode("utf-8"), parse_constant=refuse)
    error = jsonschema.exceptions.best_match(validator.iter_errors(record))
    if error is not None:
        sys.exit(f"line {count}: {error.message} at {list(error.absolute_path)}: {line[:300]!r}")
if count == 0:
    sys.exit("no line")
