#!/usr/bin/env python3
"""Fails when an include points up the floors of src/, or leaves what the tools may see."""
import pathlib
import re
import sys

FLOORS = ["base", "platform", "log", "volumes", "config", "capture", "app"]  # from the ground up
LINKED_TOOLS = {("tarnwick-consent", "volctl")}  # a tool that is built on the modules of another
UPWARDS = {("src/capture/capture_summary.h", "app/capture_store.h")}  # the one arrow that may point up
THIRD_PARTY = re.compile(r"(openssl|curl|libmount|blkid|CLI|expat|zstd|zdict|archive|libcryptsetup|sys/acl)\b(?!_)")
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]', re.M)


def allowed(source: str, quote: str, target: str) -> bool:
    tree, home, *_ = source.split("/")
    floor = target.split("/")[0]
    if quote == "<":
        return tree == "tools" or home == "platform" or not THIRD_PARTY.match(target)
    if floor not in FLOORS:
        return tree == "tools" and ("/" not in target or floor == home or (home, floor) in LINKED_TOOLS)
    visible = FLOORS[:2] if tree == "tools" else FLOORS[:FLOORS.index(home) + 1]
    return floor in visible or (source, target) in UPWARDS


root = pathlib.Path(__file__).resolve().parent.parent
sources = sorted(path for tree in ("src", "tools") for path in (root / tree).rglob("*") if path.suffix in (".h", ".cpp"))
includes = [(str(path.relative_to(root)), *found) for path in sources for found in INCLUDE.findall(path.read_text())]
wrong = [f"{include[0]}: may not include {include[2]}" for include in includes if not allowed(*include)]
print("\n".join(wrong))
sys.exit(len(includes) < 50 or len(wrong) > 0)
