#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Counts what the routines spend on their arguments and the shared state, with callgrind.

    bench/entry_checks.py [program]

The program defaults to build/bench/bin/entry_checks. Counts of instructions do not depend on what
else the machine does. The host's model costs next to nothing, so that shares of a real run are
smaller.
"""

import re
import subprocess
import sys
import tempfile
from pathlib import Path

CALLS = 20
ROUTINES = ["fgintegrate", "fgpresampledir2", "scoretheta", "agqintjoint"]


def inclusive_counts(program):
    """Instructions by function, what it calls included, and by pair of caller and callee."""
    with tempfile.TemporaryDirectory() as folder:
        out = Path(folder) / "counts"
        subprocess.run(["valgrind", "--tool=callgrind", f"--callgrind-out-file={out}", program,
                        str(CALLS)], check=True, capture_output=True)
        lines = out.read_text().splitlines()
    names, own, calls = {}, {}, {}
    function = callee = None
    inclusive_next = False
    for line in lines:
        tagged = re.match(r"(c?fn)=\((\d+)\)(?: (.*))?", line)
        if tagged:
            kind, number, name = tagged.groups()
            if name:
                names[number] = name
            if kind == "fn":
                function = number
            else:
                callee = number
        elif line.startswith("calls="):
            inclusive_next = True
        elif re.match(r"[+\-*\d]", line) and function is not None:
            count = int(line.split()[1])
            if inclusive_next:
                calls[function, callee] = calls.get((function, callee), 0) + count
                inclusive_next = False
            else:
                own[function] = own.get(function, 0) + count
    total = dict(own)
    for (caller, _), count in calls.items():
        total[caller] = total.get(caller, 0) + count
    by_name = {names[number]: count for number, count in total.items()}
    by_pair = {(names[a], names[b]): count for (a, b), count in calls.items()}
    return by_name, by_pair


def main():
    program = sys.argv[1] if len(sys.argv) > 1 else "build/bench/bin/entry_checks"
    total, calls = inclusive_counts(program)
    print(f"{'routine':<16} {'instructions a call':>19} {'of them checks':>15} {'share':>8}")
    for routine in ROUTINES:
        start = f"statsubs::{routine}("
        whole = sum(count for name, count in total.items() if name.startswith(start))
        checks = sum(count for (caller, callee), count in calls.items() if caller.startswith(start)
                     and ("check_entry" in callee or "sole_entry" in callee))
        if checks == 0:
            sys.exit(f"the checks of {routine} are not in the profile")
        print(f"{routine:<16} {whole // CALLS:>19} {checks // CALLS:>15} {checks / whole:>8.2%}")


if __name__ == "__main__":
    main()
