"""Validates JSON documents with a schema. usage: validate.py SCHEMA DOCUMENTS

Each line of the second file is one document. Prints each that is not valid, and why.
"""

import json
import sys

import jsonschema

with open(sys.argv[1], encoding="utf-8") as file:
    schema = json.load(file)
jsonschema.Draft202012Validator.check_schema(schema)
validator = jsonschema.Draft202012Validator(schema)
with open(sys.argv[2], encoding="utf-8") as documents:
    for line in documents:
        for error in validator.iter_errors(json.loads(line)):
            print(line, error)
