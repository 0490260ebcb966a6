#!/usr/bin/env python3
# Fails when an include points up the layers of src/, or to what the tools may not include.
import pathlib
import re
import sys

# From the lowest up; a folder may include itself and the layers below it, never a neighbour.
LAYERS = [["base"], ["log", "plist", "qvx"], ["platform"], ["config", "volumes"], ["capture", "store"], ["app"]]
HEIGHT = {folder: number for number, layer in enumerate(LAYERS) for folder in layer}
QVX_SEES = {"crypto": "", "format": "crypto", "write": "format crypto", "read": "format crypto",
            "extract": "read format", "remote": "read format"}
LINKED_TOOLS = {("tarnwick-consent", "volctl"), ("tarnwick-consent", "platform")}  # built on modules of another folder
TOOLS_SEE = {"base", "plist", "qvx"}
LIBRARY_FOLDERS = {"plist", "qvx", "platform"}  # the folders that may see third-party libraries
THIRD_PARTY = re.compile(r"(openssl|curl|libmount|blkid|CLI|expat|zstd|zdict|libcryptsetup)\b(?!_)")
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]', re.M)


def allowed(source: str, quote: str, target: str) -> bool:
    tree, home, *_ = source.split("/")
    folder = target.split("/")[0]
    if quote == "<":
        return tree == "tools" or home in LIBRARY_FOLDERS or not THIRD_PARTY.match(target)
    if folder not in HEIGHT:
        return tree == "tools" and ("/" not in target or folder == home or (home, folder) in LINKED_TOOLS)
    if tree == "tools":
        return folder in TOOLS_SEE or (home, folder) in LINKED_TOOLS
    if home == folder == "qvx":
        # The folders inside src/qvx; none of a public header and of one that all of the library shares.
        inner, outer = "".join(target.split("/")[1:-1]), "".join(source.split("/")[2:-1])
        return not outer or target == "qvx/bytes.h" or inner in (outer, *QVX_SEES[outer].split())
    return home == folder or HEIGHT[folder] < HEIGHT[home]


root = pathlib.Path(__file__).resolve().parent.parent
sources = sorted(path for tree in ("src", "tools") for end in ("h", "cpp") for path in (root / tree).rglob("*." + end))
includes = [(str(path.relative_to(root)), *found) for path in sources for found in INCLUDE.findall(path.read_text())]
wrong = [f"{include[0]}: may not include {include[2]}" for include in includes if not allowed(*include)]
print("\n".join(wrong))
sys.exit(len(includes) < 50 or len(wrong) > 0)
