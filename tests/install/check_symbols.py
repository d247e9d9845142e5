"""Fails when libqxmedia exports a name that no public header declares.

usage: check_symbols.py LIBRARY PUBLIC_HEADER_LIST INCLUDE_DIR

Every defined dynamic symbol is demangled; the class or function it belongs
to (namespaces qx and mp4 taken off) must be a word of the public headers.
Instantiations of the standard library pass when every project type in their
arguments is public.
"""
import re
import subprocess
import sys

LINKER_NAMES = {"_init", "_fini", "__bss_start", "_edata", "_end"}
PREFIXES = ("typeinfo name for ", "typeinfo for ", "vtable for ", "VTT for ", "guard variable for ",
            "non-virtual thunk to ", "virtual thunk to ", "covariant return thunk to ")
PROJECT_TYPE = re.compile(r"\b(?:QX|MP4|CM|CV|VT)[A-Za-z0-9_]*")


def outer_name(symbol):
    """The first component of a qualified name, outside template arguments."""
    depth, name = 0, ""
    for i, ch in enumerate(symbol):
        depth += ch == "<"
        depth -= ch == ">"
        if depth == 0 and (ch in "(<" or symbol.startswith("::", i) or ch == " "):
            if symbol.startswith("::", i) and name in ("qx", "mp4", "dispatch"):
                return outer_name(symbol[i + 2:])
            return name
        name += ch
    return name


def main(library, header_list, include_dir):
    with open(header_list) as listing:
        headers = [line.strip() for line in listing if line.strip()]
    public = set()
    for header in headers:
        with open(f"{include_dir}/{header}") as text:
            public.update(re.findall(r"\w+", text.read()))
    out = subprocess.run(["nm", "-D", "--defined-only", "-C", library], check=True, capture_output=True,
                         text=True).stdout
    symbols = [line.split(" ", 2)[2] for line in out.splitlines() if line.count(" ") >= 2]
    private, standard = [], 0
    for symbol in symbols:
        if symbol in LINKER_NAMES:
            continue
        name = symbol.replace("[abi:cxx11]", "")
        for prefix in PREFIXES:
            name = name.removeprefix(prefix)
        if name.startswith(("std::", "__gnu_cxx::", "void std::", "__cxx")):
            standard += 1
            if any(t not in public for t in PROJECT_TYPE.findall(name)):
                private.append(symbol)
        elif outer_name(name) not in public:
            private.append(symbol)
    print(f"{len(symbols)} exported symbols ({standard} from the standard library), {len(private)} private")
    for symbol in private:
        print("private:", symbol)
    return 1 if private else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:4]))
