"""What it costs that complete means on the disk: the program beside itself with the calls left out that wait for it."""
import os

from commands import SEALED, SOURCE, TARGET, size_of
from machine import Contender, fill_with

WAITS, DOES_NOT = "kestrix", "without the wait"
ROWS = {
    "capture": f"capture --disk {SOURCE} --out out",
    "capture sealed": f"capture --disk {SOURCE} --out out --encrypt{SEALED}",
    "restore": f"restore --in full --disk {TARGET} --confirm YES",
    "restore sealed": f"restore --in sealed --disk {TARGET} --confirm YES{SEALED}",
    "consolidate": "consolidate --in full --out out",
}


def contenders(machine, arguments):
    def check_target():
        target = machine.path("target.disk")
        machine.must_be_equal("source.disk", "target.disk")
        fill_with(target, size_of(target), b"\xEE")

    check = check_target if arguments.startswith("restore") else None
    command = [machine.kestrix, *arguments.split()]
    library = os.path.join(machine.build, "libwithout_sync.so")
    return {WAITS: Contender(command, ("out",), check=check),
            DOES_NOT: Contender(["env", f"LD_PRELOAD={library}", *command], ("out",), check=check)}


def measure(machine, rounds):
    """One record for each run of each row, cold, on loop devices."""
    records = []
    for row, arguments in ROWS.items():
        records += machine.compare(contenders(machine, arguments), rounds, {"row": row}, "cold")
    return records
