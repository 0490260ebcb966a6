"""hardening.py PROGRAM...: what the optimised build promises of its programs, read from the finished files.

The stack clash protection leaves no trace but in the code, so the compiler's own record of its options is asked, for
each translation unit; a stripped file has no such record and is refused."""
import re
import subprocess
import sys

OPTIONS = ("-fstack-protector-strong", "-fstack-clash-protection", "-fcf-protection=full")
ENDBR64 = b"\xf3\x0f\x1e\xfa"


def readelf(path, *options):
    return subprocess.run(["readelf", "-W", *options, path], check=True, stdout=subprocess.PIPE, text=True,
                          env={"LC_ALL": "C", "PATH": "/usr/bin:/bin"}).stdout


def faults(path):
    header, segments, dynamic = (readelf(path, option) for option in ("-h", "-l", "-d"))
    symbols = set(re.findall(r" UND (\w+)", readelf(path, "--dyn-syms")))
    with open(path, "rb") as file:
        landings = file.read().count(ENDBR64)
    checks = {
        "position independent": re.search(r"FLAGS_1\).*\bPIE\b", dynamic),
        "read-only relocations": "GNU_RELRO" in segments,
        "binding at start": re.search(r"FLAGS_1\).*\bNOW\b", dynamic),
        "no executable stack": re.search(r"GNU_STACK .* RW ", segments),
        "no search path for libraries": "RPATH" not in dynamic and "RUNPATH" not in dynamic,
        "stack protector": "__stack_chk_fail" in symbols,
        "checked library calls": any(name.endswith("_chk") for name in symbols),
    }
    units = re.findall(r"DW_AT_producer.*(GNU C\+\+.*)", readelf(path, "--debug-dump=info", "--dwarf-depth=1"))
    checks["a record of the compiler's options"] = units
    for option in OPTIONS:
        if option != OPTIONS[2] or "X86-64" in header:
            checks[option] = all(option in unit.split() for unit in units)
    checks["landing pads for indirect jumps"] = landings > 100 or "X86-64" not in header
    return [name for name, holds in checks.items() if not holds]


def main():
    failed = False
    for path in sys.argv[1:]:
        for fault in faults(path):
            print(f"{path}: {fault}: no")
            failed = True
    return 1 if failed or len(sys.argv) == 1 else 0


if __name__ == "__main__":
    sys.exit(main())
