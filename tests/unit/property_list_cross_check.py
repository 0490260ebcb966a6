"""Holds the property list reader and writer to Python's own: the same random values, in both forms, must read and write
the same, and no damage to a document may make the two disagree in the dangerous direction.

usage: property_list_cross_check.py COPY_PROGRAM
"""
import datetime
import math
import plistlib
import random
import re
import subprocess
import sys
import tempfile
from pathlib import Path

DOCUMENT_TYPE = b'<!DOCTYPE plist SYSTEM "http://www.vexlor.com/DTDs/PropertyList-1.0.dtd">'
TEXTS = ["", "plain", "a<b>&\"c' ]]>", "Zürich", "日本", "\U0001f600", "line\r\nend", " blanks\t", "x" * 300]
NOT_IN_XML = re.compile("[^\t\n\r\x20-\ud7ff\ue000-\ufffd\U00010000-\U0010ffff]")


def random_value(draw, depth, binary):
    kinds = ["text", "int", "real", "bool", "date", "data"] + ["array", "dict"] * 2 * (depth < 4) + ["uid"] * binary
    match draw.choice(kinds):
        case "text":
            return draw.choice(TEXTS + ["\x1b[2J\x7f"] * binary) + str(draw.randrange(9))
        case "int":
            return draw.choice([draw.randrange(-(2**63), 2**64), draw.randrange(-300, 300), 2**63, 2**64 - 1])
        case "real":
            return draw.choice([draw.uniform(-1e9, 1e9), draw.gauss(0, 1) * 1e-300, math.inf, math.nan, -0.0, 5e-324])
        case "bool":
            return draw.random() < 0.5
        case "date":
            return datetime.datetime(draw.randrange(1, 10000), 2, draw.randrange(1, 29), draw.randrange(24), 59, 7)
        case "data":
            return draw.randbytes(draw.choice([0, 1, 2, 3, 14, 15, 300]))
        case "uid":
            return plistlib.UID(draw.choice([0, 255, 256, 70000, 2**63]))
        case "array":
            return [random_value(draw, depth + 1, binary) for _ in range(draw.choice([0, 1, 3, 15, 20]))]
        case "dict":
            keys = [draw.choice(TEXTS) + str(number) for number in range(draw.randrange(18))]
            return {key: random_value(draw, depth + 1, binary) for key in keys}


def in_xml(value):
    """What the writer promises to make of it; 1, 1.0 and True are told apart."""
    match value:
        case dict():
            return {in_xml(key): in_xml(each) for key, each in value.items()}
        case list():
            return [in_xml(each) for each in value]
        case str():
            return NOT_IN_XML.sub("", value)
        case plistlib.UID():
            return repr(value.data)
        case datetime.datetime():
            return value.replace(microsecond=0)
    return repr(value)


def their_reading(document):
    """None where Python refuses, or reads what no value of ours can hold (null, keys that are no text, cycles)."""
    form = plistlib.FMT_BINARY if document.startswith(b"bplist00") else plistlib.FMT_XML
    try:
        return in_xml(plistlib.loads(document, fmt=form))
    except Exception:
        return None


def damaged(draw, document):
    bytes_ = bytearray(document)
    match draw.randrange(4):
        case 0:
            del bytes_[draw.randrange(len(bytes_)):]
        case 1:
            bytes_[draw.randrange(len(bytes_))] ^= 1 << draw.randrange(8)
        case 2:
            at = draw.randrange(len(bytes_))
            bytes_[at:at] = bytes_[at:at + draw.randrange(1, 30)]
        case 3:
            bytes_[max(0, len(bytes_) - draw.randrange(1, 33))] = draw.randrange(256)
    return bytes(bytes_)


def our_readings(program, documents):
    with tempfile.TemporaryDirectory() as folder:
        names = [Path(folder, str(number)) for number in range(len(documents))]
        for name, document in zip(names, documents):
            name.write_bytes(document)
        subprocess.run([program], input="".join(f"{name}\n" for name in names), text=True, check=True)
        copies = [name.with_suffix(".copy") for name in names]
        return [in_xml(plistlib.loads(copy.read_bytes())) if copy.exists() else None for copy in copies]


def main():
    draw = random.Random(20010101)
    whole, broken = [], []
    for number in range(400):
        form = [plistlib.FMT_XML, plistlib.FMT_BINARY][number % 2]
        document = plistlib.dumps(random_value(draw, 0, number % 2), fmt=form, sort_keys=False)
        whole.append(re.sub(rb"<!DOCTYPE[^>]*>", DOCUMENT_TYPE, document))
        broken += [damaged(draw, whole[-1]) for _ in range(8)]

    faults = refused_by_both = 0
    for number, (document, mine) in enumerate(zip(whole + broken, our_readings(sys.argv[1], whole + broken))):
        theirs = their_reading(document)
        refused_by_both += mine is None and theirs is None
        # We may be the stricter one with a damaged document, never the laxer one.
        if mine != theirs and (mine is not None or number < len(whole)):
            faults += 1
            print(f"document {number}: {document[:300]!r}\n  ours   {str(mine)[:300]}\n  theirs {str(theirs)[:300]}")
    print(f"{len(whole)} whole and {len(broken)} damaged documents, {refused_by_both} refused by both, {faults} faults")
    assert refused_by_both > 500, "the damage does no damage"
    return faults > 0


sys.exit(main())
