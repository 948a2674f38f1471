"""Other programs that copy or keep a whole disk, each set to what a capture does as far as it goes: past the page
cache where it can read so, blocks of 4 MiB where it takes a size, no compression where that can be switched off.

They are not alike. Some take no digest, some leave zeros out, some find equal pieces, one always seals; what each does
is told beside its figures.
"""
import os
import shutil
import subprocess
from dataclasses import dataclass

from commands import SOURCE, TARGET
from machine import Contender

DD = "dd bs=4M iflag=direct status=none if={disk}"
BORG = "env BORG_BASE_DIR=peer/home "
RESTIC = "env RESTIC_PASSWORD=secret restic --no-cache --repo peer/repository "


@dataclass
class Peer:
    name: str
    program: str
    command: str  # of a shell; it makes what it makes in the folder `peer`
    does: str
    sha256: bool = False  # whether it takes SHA-256 of every byte it keeps, in the same pass
    prepare: str = ""
    version: str = "--version"
    copy: str = ""  # what must be equal to the disk


PEERS = [
    Peer("dd", "dd", DD + " of=peer/out", "copies", copy="peer/out"),
    Peer("dd, tee, openssl", "openssl", DD + " | tee peer/out | openssl dgst -sha256", "copies, SHA-256 of the whole",
         sha256=True, version="version", copy="peer/out"),
    Peer("dc3dd", "dc3dd", "dc3dd if={disk} of=peer/out hash=sha256 bufsz=4194304 log=peer/log",
         "copies, SHA-256 of the whole", sha256=True, copy="peer/out"),
    Peer("ddrescue", "ddrescue", "ddrescue --quiet --idirect --cluster-size=8192 {disk} peer/out peer/map",
         "copies, keeps a map of what could be read", copy="peer/out"),
    Peer("partclone.dd", "partclone.dd", "partclone.dd --source {disk} --output peer/out --buffer_size 4194304 "
         "--logfile peer/log --UI-fresh 1", "copies, waits for the disk at the end; reads through the page cache",
         copy="peer/out"),
    Peer("qemu-img", "qemu-img", "qemu-img convert -f raw -O raw -T none {disk} peer/out", "copies, leaves zeros out",
         copy="peer/out"),
    Peer("casync", "casync", "casync make --digest=sha256 --store=peer/store.castr peer/out.caibx {disk}",
         "SHA-256 of pieces of its own choice, keeps each once, compresses; reads through the page cache", sha256=True),
    Peer("borg", "borg", BORG + "borg create --read-special --chunker-params fixed,4194304 --compression none "
         "peer/repository::one {disk}", "SHA-256 of blocks of 4 MiB, keeps each once, waits for the disk; reads "
         "through the page cache", sha256=True, prepare=BORG + "borg init --encryption none peer/repository"),
    Peer("restic", "restic", DD + " | " + RESTIC + "backup --compression off --stdin",
         "SHA-256 of pieces of its own choice, keeps each once, seals, waits for the disk; on all cores", sha256=True,
         prepare=RESTIC + "init", version="version"),
]


def installed(peer):
    return shutil.which(peer.program) is not None


def shell(text, core=None):
    pin = ["taskset", "--cpu-list", str(core)] if core is not None else []
    return [*pin, "bash", "-c", "set -o pipefail; " + text]


def peer_contender(machine, peer, disk, core=None):
    def check():
        if peer.copy:
            machine.must_be_equal("source.disk", peer.copy)

    prepare = "mkdir peer" + (" && " + peer.prepare if peer.prepare else "")
    return Contender(shell(peer.command.format(disk=disk), core), ("peer",), shell(prepare), check)


def of_captures(machine, core=None):
    """Everyone who captures; with a core given, those who take SHA-256 on that core alone."""
    disk = machine.device(f"PhysicalDrive{SOURCE}")
    pin = ["taskset", "--cpu-list", str(core)] if core is not None else []
    capture = [*pin, machine.kestrix, "capture", "--disk", str(SOURCE), "--out", "out"]
    everyone = {
        "kestrix": Contender(capture, ("out",)),
        "kestrix sealed": Contender([*capture, "--encrypt", "--password-file", "password"], ("out",)),
        "bare loop": Contender([*pin, machine.bareLoop, "capture", disk, "out"], ("out",)),
    }
    # casync and borg want to know the device itself.
    disk = os.path.realpath(disk)
    everyone.update({peer.name: peer_contender(machine, peer, disk, core) for peer in PEERS
                     if installed(peer) and (core is None or peer.sha256)})
    return everyone


def of_restores(machine):
    disk = machine.device(f"PhysicalDrive{TARGET}")
    return {
        "kestrix": Contender([machine.kestrix, "restore", "--in", "full", "--disk", str(TARGET), "--confirm", "YES"]),
        "bare loop": Contender([machine.bareLoop, "restore", "full", disk]),
        "dd": Contender(["dd", "bs=4M", "oflag=direct", "status=none", "if=source.disk", f"of={disk}"]),
    }


def of_verifies(machine):
    everyone = {"kestrix": Contender([machine.kestrix, "verify", "--in", "full"]),
                "bare loop": Contender([machine.bareLoop, "verify", "full"]),
                "sha256sum": Contender(["sha256sum", "full"])}
    if shutil.which("openssl"):
        everyone["openssl"] = Contender(["openssl", "dgst", "-sha256", "full"])
    return everyone


def measure(machine, rounds):
    core = max(os.sched_getaffinity(0))
    return (machine.compare(of_captures(machine), rounds, {"row": "capture"}) +
            machine.compare(of_captures(machine, core), rounds, {"row": "capture on one core"}) +
            machine.compare(of_verifies(machine), rounds, {"row": "verify"}) +
            machine.compare(of_restores(machine), rounds, {"row": "restore"}))


def versions():
    """What each installed peer says of itself, in the line that names a version."""
    found = {}
    for peer in PEERS:
        if installed(peer):
            done = subprocess.run([peer.program, peer.version], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                  text=True, check=False)
            lines = [line.strip() for line in done.stdout.splitlines() if any(sign.isdigit() for sign in line)]
            found[peer.name] = lines[0] if lines else "unknown"
    return found
