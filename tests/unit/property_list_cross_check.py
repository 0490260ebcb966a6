"""Holds the property list reader and writer to Python's own: the same random values, in both forms, must read and write
the same, and no damage to a document may make the two disagree in the dangerous direction. And to what
tests/data/property_lists.txt says of documents that are hostile.

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

RECORDED = Path(__file__).resolve().parent.parent / "data/property_lists.txt"
DOCUMENT_TYPE = b'<!DOCTYPE plist SYSTEM "http://www.vexlor.com/DTDs/PropertyList-1.0.dtd">'
TEXTS = ["", "plain", "a<b>&\"c' ]]>", "Zürich", "日本", "\U0001f600", "line\r\nend", " blanks\t", "x" * 300]
NOT_IN_XML = re.compile("[^\t\n\r\x20-\ud7ff\ue000-\ufffd\U00010000-\U0010ffff]")
ANYTHING = object()


def random_value(draw, depth, binary):
    def inner():
        return random_value(draw, depth + 1, binary)

    return draw.choice([
        lambda: draw.choice(TEXTS + ["\x1b[2J\x7f"] * binary) + str(draw.randrange(9)),
        lambda: draw.choice([draw.randrange(-(2**63), 2**64), draw.randrange(-300, 300), 2**63, 2**64 - 1]),
        lambda: draw.choice([draw.uniform(-1e9, 1e9), draw.gauss(0, 1) * 1e-300, math.inf, math.nan, -0.0, 5e-324]),
        lambda: draw.random() < 0.5,
        lambda: datetime.datetime(draw.randrange(1, 10000), 2, draw.randrange(1, 29), draw.randrange(24), 59, 7, 500000),
        lambda: draw.randbytes(draw.choice([0, 1, 2, 3, 14, 15, 300])),
        *[lambda: plistlib.UID(draw.choice([0, 255, 256, 70000, 2**63]))] * binary,
        *[lambda: [inner() for _ in range(draw.choice([0, 1, 3, 15, 20]))],
          lambda: {draw.choice(TEXTS) + str(n): inner() for n in range(draw.randrange(18))}] * 2 * (depth < 4)])()


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
    at, near_end = draw.randrange(len(document)), max(0, len(document) - draw.randrange(1, 33))
    return draw.choice([
        document[:at],
        document[:at] + bytes([document[at] ^ 1 << draw.randrange(8)]) + document[at + 1:],
        document[:at] + document[at:at + draw.randrange(1, 30)] + document[at:],
        document[:near_end] + draw.randbytes(1) + document[near_end + 1:]])


def wide(number, width):
    return number.to_bytes(16, "big")[16 - width:]


def binary(*objects, root=0, offset_width=4, reference_width=1, first=8, count=None, table=None):
    document, offsets = b"bplist00", wide(first, offset_width)
    for each in objects:
        document += each
        offsets += wide(len(document), offset_width)
    table = len(document) if table is None else table
    return (document + offsets[:len(objects) * offset_width] + bytes([0] * 6 + [offset_width, reference_width])
            + wide(len(objects) if count is None else count, 8) + wide(root, 8) + wide(table, 8))


def element(content):
    return b'<plist version="1.0">%s</plist>' % content


def hostile():
    """Documents, and what is to be read from each: None where it is refused."""
    form = {"document": bytes, "element": element, "object": binary}
    for line in RECORDED.read_text(encoding="ascii").splitlines():
        source, _, value = (each.encode().decode("unicode_escape") for each in line.partition(" = "))
        kind, _, source = source.partition(" ")
        if kind in form:
            yield form[kind](source.encode("latin-1")), value or None

    names = "abcdefghijklmnopqrstuvwxyz"
    bomb = "".join(f'<!ENTITY {name} "{f"&{before};" * 10}">' for before, name in zip(names, names[1:]))
    yield f'<!DOCTYPE plist [<!ENTITY a "aaaaaaaaaa">{bomb}]><plist><string>&y;</string></plist>'.encode(), None
    for depth, expected in (512, ANYTHING), (513, None), (100000, None):
        yield element(b"<array>" * depth + b"</array>" * depth), expected
        yield element(b"<array>" * depth), None
    # Arrays of an array, or of the same array twice: 2^60 values out of 61 objects.
    for depth, width, expected in (512, 1, ANYTHING), (513, 1, None), (100000, 1, None), (10, 2, ANYTHING), (60, 2, None):
        arrays = [bytes([0xA0 + width]) + wide(each, 4) * width for each in range(1, depth + 1)]
        yield binary(*arrays, b"\x09", reference_width=4), expected
    yield binary(b"\xa1\x01", b"\xa1\x02", b"\xa1\x00"), None
    # One text of a megabyte, listed a hundred thousand times.
    yield binary(b"\xaf\x12" + wide(100000, 4) + b"\1" * 100000, b"\x5f\x12" + wide(1 << 20, 4) + b"x" * (1 << 20)), None
    yield binary(b"\xd1\x01\x01", b"\x10\x05"), None

    good = b"\xa2\x01\x01", b"\x51x"
    yield binary(*good), ["x", "x"]
    yield binary(*good) + b"x", None
    for wrong in 0, 1, 3, 2**62 + 2, 2**63, 2**64 - 1:
        yield binary(*good, count=wrong), None
        yield binary(*good, table=wrong), None
        yield binary(*good, root=max(wrong, 2)), None
    for frame in [{"first": wrong} for wrong in (0, 7, 13, 1000, 2**32 - 1)] + [
            {"offset_width": 0}, {"offset_width": 9}, {"reference_width": 0}, {"reference_width": 255}]:
        yield binary(*good, **frame), None


def our_readings(program, documents):
    with tempfile.TemporaryDirectory() as folder:
        names = [Path(folder, str(number)) for number in range(len(documents))]
        for name, document in zip(names, documents):
            name.write_bytes(document)
        subprocess.run([program], input="".join(f"{name}\n" for name in names), text=True, check=True)
        copies = [name.with_suffix(".copy") for name in names]
        return [in_xml(plistlib.loads(copy.read_bytes())) if copy.exists() else None for copy in copies]


def main():
    sys.setrecursionlimit(10000)  # for the deepest of ours that are not refused
    draw = random.Random(20010101)
    cases = [(document, value, True) for document, value in hostile()]
    for number in range(400):
        form = [plistlib.FMT_XML, plistlib.FMT_BINARY][number % 2]
        document = plistlib.dumps(random_value(draw, 0, number % 2), fmt=form, sort_keys=False)
        document = re.sub(rb"<!DOCTYPE[^>]*>", DOCUMENT_TYPE, document)
        cases.append((document, their_reading(document), True))
        # We may be the stricter one with a damaged document, never the laxer one.
        cases += [(each, their_reading(each), False) for each in (damaged(draw, document) for _ in range(8))]

    faults = refused_by_both = 0
    for (document, expected, exactly), ours in zip(cases, our_readings(sys.argv[1], [case[0] for case in cases])):
        refused_by_both += ours is None and expected is None
        if ours != expected and (ours is not None or exactly) and (ours is None or expected is not ANYTHING):
            faults += 1
            print(f"{document[:300]!r}\n  ours     {str(ours)[:300]}\n  expected {str(expected)[:300]}")
    print(f"{len(cases)} documents, {refused_by_both} refused by both, {faults} faults")
    assert refused_by_both > 500, "the damage does no damage"
    return faults > 0


sys.exit(main())
