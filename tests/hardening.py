# hardening.py PROGRAM...: checks that the programs of the optimised build are hardened.
#
# Stack clash protection is visible in the machine code only, so the options that the compiler recorded for each
# translation unit are checked. A stripped file has no such record and is refused.
import re
import subprocess
import sys

OPTIONS = {"-fstack-protector-strong", "-fstack-clash-protection"}


def readelf(path, *options):
    return subprocess.run(["readelf", "-W", *options, path], check=True, stdout=subprocess.PIPE, text=True,
                          env={"LC_ALL": "C", "PATH": "/usr/bin:/bin"}).stdout


def hardening(path):
    header, segments, dynamic, symbols = (readelf(path, option) for option in ("-h", "-l", "-d", "--dyn-syms"))
    debug = readelf(path, "--debug-dump=info", "--dwarf-depth=1")
    units = [set(unit.split()) for unit in re.findall(r"DW_AT_producer.*(GNU C\+\+.*)", debug)]
    x86 = "X86-64" in header
    with open(path, "rb") as file:
        landings = file.read().count(b"\xf3\x0f\x1e\xfa")
    return {
        "position independent": re.search(r"FLAGS_1\).*\bPIE\b", dynamic),
        "read-only relocations": "GNU_RELRO" in segments,
        "binding at start": re.search(r"FLAGS_1\).*\bNOW\b", dynamic),
        "no executable stack": re.search(r"GNU_STACK .* RW ", segments),
        "no search path for libraries": "PATH)" not in dynamic,
        "stack protector": " UND __stack_chk_fail" in symbols,
        "checked library calls": re.search(r" UND \w+_chk\b", symbols),
        "the options": units and all(unit >= OPTIONS | ({"-fcf-protection=full"} if x86 else set()) for unit in units),
        "landing pads for indirect jumps": landings > 100 or not x86,
    }


broken = [f"{path}: {name}: no" for path in sys.argv[1:] for name, present in hardening(path).items() if not present]
print("\n".join(broken))
sys.exit(len(sys.argv) == 1 or len(broken) > 0)
