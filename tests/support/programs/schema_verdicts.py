"""Tells what JSON Schema says of documents.

Usage: schema_verdicts.py [--closed] SCHEMAS FILE...

SCHEMAS holds an object of schemas by name ("vmescape-agent schema --json"). Each FILE is judged by
the schema of its own name. Prints an object: for each file "" when it is good, else what is wrong.
--closed refuses keys that a schema does not name, too.
"""

import json
import pathlib
import sys

import jsonschema


def close(schema):
    """Makes a schema refuse what it does not name, in all objects that it describes."""
    if isinstance(schema, list):
        for part in schema:
            close(part)
    elif isinstance(schema, dict):
        for key, part in schema.items():
            if key not in ("if", "const", "enum", "default"):
                close(part)
        if "properties" in schema and schema.get("type") == "object":
            schema["unevaluatedProperties"] = False
        # A branch tells only the rest of its object; what is there besides, its neighbours name.
        if "then" in schema:
            del schema["then"]["unevaluatedProperties"]


def refuse(constant):
    raise ValueError(constant + " is no JSON")


def read(path):
    """Reads a file as strictly as the agent does."""
    document = json.loads(path.read_bytes().decode("utf-8"), parse_constant=refuse)
    json.dumps(document, ensure_ascii=False).encode("utf-8")  # no half of a surrogate pair
    return document


def main(arguments):
    closed = arguments[0] == "--closed"
    schemas = json.loads(pathlib.Path(arguments[closed]).read_text())
    validators = {}
    for name, schema in schemas.items():
        jsonschema.Draft202012Validator.check_schema(schema)
        if closed:
            close(schema)
        validators[name] = jsonschema.Draft202012Validator(schema)
    verdicts = {}
    for file in map(pathlib.Path, arguments[closed + 1 :]):
        try:
            wrong = jsonschema.exceptions.best_match(validators[file.stem].iter_errors(read(file)))
            verdicts[str(file)] = f"{wrong.json_path}: {wrong.message}" if wrong else ""
        except (ValueError, RecursionError) as error:
            verdicts[str(file)] = f"no JSON: {error}"
    print(json.dumps(verdicts))


if __name__ == "__main__":
    main(sys.argv[1:])
