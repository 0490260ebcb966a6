# Compares the property list reader and writer with Python's: random values, damaged documents, and hostile documents
# (those of tests/data/property_lists.txt, and deep ones). A damaged document may be refused, but never read otherwise.
import datetime
import math
import plistlib
import random
import re
import struct
import subprocess
import sys
import tempfile
from pathlib import Path

FORMS = plistlib.FMT_XML, plistlib.FMT_BINARY
RECORDED = Path(__file__).resolve().parent.parent / "data/property_lists.txt"
TEXTS = ["", "plain", "a<b>&\"c' ]]>", "Zürich", "日本", "\U0001f600", "line\r\nend", " blanks\t", "x" * 300]
NOT_IN_XML = re.compile("[^\t\n\r\x20-\ud7ff\ue000-\ufffd\U00010000-\U0010ffff]")


def random_value(draw, depth, binary):
    return draw.choice([
        lambda: draw.choice(TEXTS + ["\x1b[2J\x7f"] * binary) + str(draw.randrange(9)),
        lambda: draw.choice([draw.randrange(-(2**63), 2**64), draw.randrange(-300, 300), 2**63, 2**64 - 1]),
        lambda: draw.choice([draw.uniform(-1e9, 1e9), draw.gauss(0, 1) * 1e-300, math.inf, math.nan, -0.0, 5e-324]),
        lambda: draw.random() < 0.5,
        lambda: datetime.datetime(draw.randrange(1, 10000), 2, draw.randrange(1, 29), draw.randrange(24), 59, 7, 500000),
        lambda: draw.randbytes(draw.choice([0, 1, 2, 3, 14, 15, 300])),
        *[lambda: plistlib.UID(draw.choice([0, 255, 256, 70000, 2**63]))] * binary,
        *[lambda: [random_value(draw, depth + 1, binary) for _ in range(draw.choice([0, 1, 3, 15, 20]))],
          lambda: {draw.choice(TEXTS) + str(n): random_value(draw, depth + 1, binary)
                   for n in range(draw.randrange(18))}] * 2 * (depth < 4)])()


# What the writer makes of it. The representation, because Python's 1, 1.0 and True are equal.
def in_xml(value):
    kinds = {dict: lambda: {in_xml(key): in_xml(each) for key, each in value.items()},
             list: lambda: [in_xml(each) for each in value], str: lambda: NOT_IN_XML.sub("", value),
             plistlib.UID: lambda: repr(value.data), datetime.datetime: lambda: value.replace(microsecond=0)}
    return kinds.get(type(value), lambda: repr(value))()


# None where Python refuses, or reads what our values cannot express (null, keys that are not text, cycles).
def python_reading(document):
    try:
        return in_xml(plistlib.loads(document, fmt=FORMS[document.startswith(b"bplist00")]))
    except Exception:
        return None


def damaged(draw, document):
    at, near_end = draw.randrange(len(document)), max(0, len(document) - draw.randrange(1, 33))
    return draw.choice([document[:at],
                        document[:at] + bytes([document[at] ^ 1 << draw.randrange(8)]) + document[at + 1:],
                        document[:at] + document[at:at + draw.randrange(1, 30)] + document[at:],
                        document[:near_end] + draw.randbytes(1) + document[near_end + 1:]])


def binary(*objects):
    offsets = [8 + sum(map(len, objects[:number])) for number in range(len(objects) + 1)]
    return b"bplist00" + b"".join(objects) + struct.pack(
        f">{len(objects)}I6xBBQQQ", *offsets[:-1], 4, 1, len(objects), 0, offsets[-1])


def recorded():
    form = {"document": bytes, "element": lambda content: b'<plist version="1.0">%s</plist>' % content,
            "object": binary}
    for line in RECORDED.read_text(encoding="ascii").splitlines():
        source, _, value = (each.encode().decode("unicode_escape") for each in line.partition(" = "))
        kind, _, source = source.partition(" ")
        if kind in form:
            yield form[kind](source.encode("latin-1")), [value or None]


def nested(depth, form):
    value = True
    for _ in range(depth):
        value = [value]
    return plistlib.dumps(value, fmt=form)


def our_readings(program, documents):
    with tempfile.TemporaryDirectory() as folder:
        names = [Path(folder, str(number)) for number in range(len(documents))]
        for name, document in zip(names, documents):
            name.write_bytes(document)
        subprocess.run([program], input="".join(f"{name}\n" for name in names), text=True, check=True)
        copies = [name.with_suffix(".copy") for name in names]
        return [in_xml(plistlib.loads(copy.read_bytes())) if copy.exists() else None for copy in copies]


def main():
    sys.setrecursionlimit(10000)  # for the deepest documents that are not refused
    draw = random.Random(20010101)
    cases = list(recorded())
    cases.append((binary(*(b"\xa2" + bytes([each, each]) for each in range(1, 61)), b"\x09"), [None]))  # 2^60 values
    for form in FORMS:
        cases += [(nested(513, form), [None]), (nested(512, form), [python_reading(nested(512, form))])]
    for number in range(400):
        document = plistlib.dumps(random_value(draw, 0, number % 2), fmt=FORMS[number % 2], sort_keys=False)
        cases.append((document, [python_reading(document)]))
        cases += [(each, [python_reading(each), None]) for each in (damaged(draw, document) for _ in range(8))]
    ours = our_readings(sys.argv[1], [document for document, _ in cases])
    for (document, allowed), reading in zip(cases, ours):
        assert reading in allowed, f"{document[:300]!r}\n  ours     {reading!s:.300}\n  allowed  {allowed!s:.300}"
    assert ours.count(None) > 500, "the damage does no damage"


main()
