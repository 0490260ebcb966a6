#!/usr/bin/env python3
"""Fails when an include points up the floors of src/, or leaves what the tools may see."""
import pathlib
import re
import sys

FLOORS = ["base", "platform", "log", "volumes", "config", "capture", "app"]  # from the ground up
UPWARDS = {("src/capture/capture_summary.h", "app/capture_store.h")}  # the one arrow that may point up
THIRD_PARTY = re.compile(r"^(openssl|curl|libmount|blkid|CLI|expat|zstd|zdict|archive|libcryptsetup|sys/acl)\b(?!_)")
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]', re.M)


def allowed(source: str, quote: str, target: str) -> bool:
    inside_tools = source.startswith("tools/")
    if quote == "<":
        return inside_tools or source.startswith("src/platform/") or not THIRD_PARTY.match(target)
    floor = target.split("/")[0]
    if floor not in FLOORS:
        return inside_tools and ("/" not in target or floor == source.split("/")[1])  # a tool's own header
    if inside_tools:
        return floor in ("base", "platform")
    return FLOORS.index(floor) <= FLOORS.index(source.split("/")[1]) or (source, target) in UPWARDS


def main() -> int:
    root = pathlib.Path(__file__).resolve().parent.parent
    sources = [p for folder in ("src", "tools") for p in sorted((root / folder).rglob("*")) if p.suffix in (".h", ".cpp")]
    includes = [(str(p.relative_to(root)), *found) for p in sources for found in INCLUDE.findall(p.read_text())]
    wrong = [include for include in includes if not allowed(*include)]
    for source, _, target in wrong:
        print(f"{source}: may not include {target}")
    if len(includes) < 50:
        print("hardly any include found: this check looks in the wrong place")
        return 1
    return bool(wrong)


sys.exit(main())
