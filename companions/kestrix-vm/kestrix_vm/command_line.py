"""The command line of kestrix-vm."""
import argparse
import json
import sys

from . import VERSION
from .capture import capture, human, say
from .disks import refuse_unfit
from .fault import Fault, NotBegun
from .state import State, default_folder

PLACE = "{disk}"  # of a disk's name in the path of an image
SUBCOMMANDS = """Subcommands:
  disks    shows the disks of the guests
  capture  captures a disk of a guest, or all of them
"""


class Parser(argparse.ArgumentParser):
    """One that ends with 2 and takes no shortened options, which could come to mean another one."""

    def __init__(self, **more):
        super().__init__(allow_abbrev=False, **more)


def make_parser():
    parser = Parser(prog="kestrix-vm", description="Captures disks of running QEMU guests by kestrix: the disk of one "
                    "moment, and of a later image only what changed.", epilog=SUBCOMMANDS,
                    formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--version", action="version", version=f"kestrix-vm {VERSION}")
    commands = parser.add_subparsers(dest="command", required=True, metavar="SUBCOMMAND", help=argparse.SUPPRESS)
    disks = commands.add_parser("disks", description="Shows the disks of the "
                                "guests: where they lie, whether what changes can be tracked, and the last capture.")
    disks.add_argument("--json", action="store_true", help="for programs")
    add_guest_options(disks)
    take = commands.add_parser("capture", description="Captures a disk of a "
                               "guest as it is at this moment, while the guest goes on.")
    take.add_argument("domain", metavar="DOMAIN", help="the guest's name")
    take.add_argument("disk", metavar="DISK", nargs="?", help="the disk, as `kestrix-vm disks` names it")
    take.add_argument("--all-disks", action="store_true",
                      help=f"all disks of the guest, of one moment; the paths hold {PLACE} in the place of each's name")
    take.add_argument("--out", metavar="PATH", required=True, help="the image")
    take.add_argument("--base", metavar="PATH", help="an earlier image of this disk, in the same folder")
    take.add_argument("--thin", action="store_true", help="store what differs from the base alone")
    take.add_argument("--encrypt", action="store_true", help="seal the image with the password")
    take.add_argument("--password-file", metavar="PATH", help="the password of the image and of a sealed base")
    take.add_argument("--no-freeze", action="store_true", help="ask no guest agent to freeze the file systems")
    take.add_argument("--freeze-patience", metavar="SECONDS", type=positive, default=10,
                      help="how long the agent may take to freeze them (10)")
    take.add_argument("--freeze-bound", metavar="SECONDS", type=positive, default=10,
                      help="how long they stay frozen at most (10)")
    take.add_argument("--kestrix", metavar="PATH", help="the program; else the one beside this, or in PATH")
    add_guest_options(take)
    take.add_argument("--agent", metavar="SOCKET", help="with --qmp: the socket of the guest's agent")
    take.add_argument("--nbd", metavar="SOCKET", help="with --qmp: the socket of the NBD server that QEMU already has")
    return parser


def add_guest_options(parser):
    way = parser.add_mutually_exclusive_group()
    way.add_argument("--connect", metavar="URI", help="libvirt's connection (qemu:///system)")
    way.add_argument("--qmp", metavar="SOCKET", help="a QMP socket of QEMU or qemu-storage-daemon instead")
    parser.add_argument("--state", metavar="FOLDER", help="what is kept between runs and the folder of a run "
                        f"({default_folder()})")
    parser.add_argument("--timeout", metavar="SECONDS", type=positive, default=60,
                        help="how long QEMU may take to answer (60)")


def positive(text):
    value = float(text)
    if not 0 < value < 1e6:
        raise ValueError(text)
    return value


def open_guest(options, state, domain):
    """The guest, by the way that was named. It is looked for by its name; a storage daemon has none."""
    if options.qmp is None:
        from .libvirt_guest import LibvirtGuest  # needs python3-libvirt, which the other way does without
        return LibvirtGuest(options.connect or "qemu:///system", domain, state)
    from .qmp_guest import QmpGuest
    guest = QmpGuest(options.qmp, options.timeout, state, getattr(options, "agent", None),
                     getattr(options, "nbd", None))
    name = guest.name()
    if domain and name and name != domain:
        guest.close()
        raise NotBegun(f"The guest behind {options.qmp} is {name}, not {domain}.")
    return guest


# ---- disks ----


def show_disks(options):
    state = State(options.state or default_folder())
    told = []
    if options.qmp is None:
        from .libvirt_guest import domains
        guests = [open_guest(options, state, name) for name in domains(options.connect or "qemu:///system")]
    else:
        guests = [open_guest(options, state, None)]
    for guest in guests:
        try:
            told += [told_disk(guest, state, disk) for disk in guest.find_disks()]
        finally:
            guest.close()
    if options.json:
        say(json.dumps(told, indent=1))
    else:
        for disk in told:
            say(line_of(disk))
    return 0


def told_disk(guest, state, disk):
    why = None
    try:
        refuse_unfit(disk)
    except NotBegun as error:
        why = str(error)
    previous = guest.judge(disk)
    return {"domain": guest.name(), "disk": disk.name, "node": disk.node, "file": disk.file, "format": disk.format,
            "size": disk.size, "sectorSize": disk.sectorSize or 512, "refused": why, "bitmap": disk.keeps_bitmaps(),
            "epoch": None if previous.epoch is None else f"{previous.epoch:014x}", "unproved": previous.why,
            "lastCapture": state.last(guest.key, disk.name)}


def line_of(disk):
    keeps = {"disk": "tracked", "process": "tracked until the guest's process ends", "no": "not tracked"}
    last = disk["lastCapture"]
    text = (f"{disk['domain'] or '-'}  {disk['disk']}  {disk['node']}  {human(disk['size'])}  {disk['format']}  "
            f"{disk['file']}\n    {keeps[disk['bitmap']]}; ")
    if disk["refused"]:
        text += disk["refused"]
    elif disk["unproved"]:
        text += f"nothing is proved: {disk['unproved']}"
    else:
        text += f"proves what changed since epoch {int(disk['epoch'], 16):X}"
    if last:
        text += f"\n    last capture: {last['image']}, {'complete' if last['status'] == 0 else 'failed'}"
    return text


# ---- capture ----


def arguments_of(options, disk):
    """The command line of its `kestrix capture` behind the number of the disk."""
    def placed(path):
        return path.replace(PLACE, disk.name) if options.all_disks else path
    arguments = ["--out", placed(options.out)]
    if options.base:
        arguments += ["--base", placed(options.base)]
    if options.thin:
        arguments.append("--thin")
    if options.encrypt:
        arguments.append("--encrypt")
    if options.password_file:
        arguments += ["--password-file", options.password_file]
    return arguments


def refuse_nonsense(parser, options):
    if options.all_disks == (options.disk is not None):
        parser.error("either a DISK or --all-disks")
    if options.all_disks and (PLACE not in options.out or options.base and PLACE not in options.base):
        parser.error(f"with --all-disks the paths need {PLACE} in the place of a disk's name")
    if options.thin and not options.base:
        parser.error("--thin needs a --base")
    if options.encrypt and not options.password_file:
        parser.error("--encrypt needs a --password-file")
    if options.qmp is None and (options.agent or options.nbd):
        parser.error("--agent and --nbd go with --qmp")


def chosen_disks(guest, options):
    if not options.all_disks:
        disks = [guest.find_disk(options.disk)]
    else:
        disks = [disk for disk in guest.find_disks() if not disk.readOnly]
    if not disks:
        raise NotBegun("The guest has no disks.")
    return [(disk, arguments_of(options, disk)) for disk in disks]


def run_capture(parser, options):
    refuse_nonsense(parser, options)
    state = State(options.state or default_folder())
    guest = open_guest(options, state, options.domain)
    try:
        return capture(guest, state, options.domain, lambda: chosen_disks(guest, options), options)
    finally:
        guest.close()


def main(words):
    parser = make_parser()
    options = parser.parse_args(words)
    try:
        return show_disks(options) if options.command == "disks" else run_capture(parser, options)
    except Fault as error:
        status, text = error.status, str(error)
        if options.command == "disks":
            status = NotBegun.status
        try:
            print(f"kestrix-vm: {text}", file=sys.stderr, flush=True)
        except OSError:
            pass
        return status
