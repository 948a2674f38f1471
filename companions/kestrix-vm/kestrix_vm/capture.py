"""A capture: the moment is taken, `kestrix capture` runs on it, and all of it is taken down again."""
import contextlib
import os
import selectors
import signal
import time

from .agent import Freezer
from .bitmaps import new_run, refuse_without_nbd
from .fault import Fault, NotBegun, Stopped
from .machine import NUMBER, Machine, find_kestrix, refuse_noexec, unmount_run
from .state import Run, remove_run
from .tracker import Tracker

SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)
LOOK_EVERY = 0.2  # seconds
# What must stay free where the scratch files lie. A guest that fills it up between two looks is paused by QEMU, or gets
# write errors, as it is told to.
SCRATCH_FLOOR = 64 * 1024 * 1024


def say(text):
    """A line for whoever looks; nobody need."""
    with contextlib.suppress(OSError, ValueError):
        print(text, flush=True)


def human(size):
    return f"{size / 2**30:.2f} GiB"


def heed_signals():
    """From here on a signal that asks for the end raises Stopped wherever the run is."""
    def stop(number, _):
        raise Stopped(signal.Signals(number).name)
    for number in SIGNALS:
        signal.signal(number, stop)
    signal.pthread_sigmask(signal.SIG_UNBLOCK, SIGNALS)


def hold_signals():
    """What is taken down is taken down whole. A signal waits until they are heeded again."""
    signal.pthread_sigmask(signal.SIG_BLOCK, SIGNALS)


def clear_dead_runs(guest, state):
    """Takes down what killed runs left: mounts of any guest, all else of this one."""
    folders = []
    for folder, noted in state.dead_runs():
        unmount_run(folder)
        if noted.get("guest") == guest.key:
            folders.append(folder)
    guest.clear(folders)
    for folder in folders:
        if os.path.exists(os.path.join(folder, "frozen")):
            thaw_left(guest, os.path.join(folder, "frozen"))
        remove_run(folder)


def thaw_left(guest, marker):
    """A guest that stayed frozen when its run was killed together with what should have thawed it."""
    why = guest.why_no_agent()
    if why:
        raise NotBegun(f"A capture that was killed may have left the guest frozen, and it can't be thawed: {why}.")
    try:
        agent = guest.agent()()
        agent.thaw(30)
        agent.close()
    except Fault as error:
        raise NotBegun(f"A capture that was killed may have left the guest frozen, and {error}.") from None
    os.unlink(marker)
    say("What an earlier capture left frozen was thawed.")


def capture(guest, state, domain, choose, options):
    """Captures the disks that choose gives, each a pair of a Disk and the arguments of its `kestrix capture`, of one
    moment. They are looked for when nothing of an earlier run stands above them any more. Gives the exit status; raises
    NotBegun or Fault."""
    refuse_without_nbd()
    kestrix = find_kestrix(options.kestrix)
    refuse_noexec(state.folder)
    with state.lock_guest(guest.key):
        run, begun, statuses, faults = None, False, [], []
        try:
            heed_signals()
            clear_dead_runs(guest, state)
            disks = choose()
            guest.refuse([disk for disk, _ in disks])
            refuse_full(state.folder)
            run = Run(state, new_run(), guest.key)
            guest.prepare(run, [disk for disk, _ in disks])
            take_moment(guest, run, options)
            views = [guest.serve(i) for i in range(len(disks))]
            begun = True
            for i, (disk, arguments) in enumerate(disks):
                statuses.append(capture_disk(guest, state, run, domain, i, disk, arguments, kestrix, views[i]))
        except (Fault, OSError, Stopped) as error:
            faults.append(as_sentence(error))
        finally:
            hold_signals()
            if run:
                faults += take_down(guest, run)
    if faults:
        raise (Fault if begun else NotBegun)(" ".join(faults))
    return 1 if any(statuses) else 0


def as_sentence(error):
    if isinstance(error, Stopped):
        return f"Stopped by {error.name}."
    if isinstance(error, OSError):
        return f"{error.filename or 'The system'}: {error.strerror or error}."
    return str(error)


def refuse_full(folder):
    free = free_space(folder)
    if free < 2 * SCRATCH_FLOOR:
        raise NotBegun(f"There is too little room in {folder} for what the guest writes meanwhile: {free >> 20} MiB.")


def free_space(folder):
    told = os.statvfs(folder)
    return told.f_bavail * told.f_frsize


def take_moment(guest, run, options):
    """Freezes if there is an agent, takes the views, thaws, and says which it was."""
    why = "as told" if options.no_freeze else guest.why_no_agent()
    if why:
        guest.take()
        say(f"Not frozen: {why}. The image is what a power cut would leave.")
        return
    open_agent = guest.agent()
    freezer = Freezer(open_agent, options.freeze_patience, options.freeze_bound, run.path("frozen"))
    try:
        count, why = freezer.freeze()
        began = time.monotonic()
        guest.take()
        if count:
            why = freezer.thaw()
        seconds = time.monotonic() - began
    finally:
        freezer.close()
        if os.path.exists(run.path("frozen")):
            say("WARNING: the guest may still be frozen: the agent did not confirm the thaw. Thaw it "
                "(guest-fsfreeze-thaw).")
    if why:
        say(f"Not frozen: {why}. The image is what a power cut would leave.")
    else:
        say(f"File systems frozen: {count}, for {seconds:.2f} s.")


def capture_disk(guest, state, run, domain, i, disk, arguments, kestrix, view):
    """One disk of the moment. Gives the exit status of its `kestrix capture`."""
    uri, marks = view
    previous = guest.previous[i]
    say(f"{disk.name} of {domain}: {human(disk.size)}, {disk.format}. {told_proof(previous, marks)}")
    machine = Machine(run.path(f"m{i}"), kestrix)
    tracker = None
    try:
        machine.mount(uri, disk.size)
        if disk.keeps_bitmaps() != "no":
            tracker = Tracker(machine.tracker_path(), NUMBER, disk.size, previous.epoch, marks, lambda: guest.draw(i),
                              lambda epoch: guest.commit(i, epoch))
        machine.start(arguments)
        status = watch(guest, machine, tracker, state.folder)
    finally:
        hold_signals()
        if tracker:
            tracker.close()
        machine.close()
    heed_signals()
    committed = bool(tracker) and tracker.committedEpoch is not None
    if tracker and tracker.fault:
        say(f"The image proves nothing for the next capture: {tracker.fault}")
    state.note_last(guest.key, disk.name, {
        "domain": domain, "image": named_image(arguments), "time": int(time.time()), "status": status,
        "epoch": f"{tracker.committedEpoch:014x}" if committed else None, "proved": previous.epoch is not None})
    return status


def named_image(arguments):
    return os.path.abspath(arguments[arguments.index("--out") + 1])


def told_proof(previous, marks):
    if previous.epoch is None:
        return f"Nothing is proved: {previous.why}."
    return (f"Changed since the image of epoch {previous.epoch:X}: {sum(mark.bit_count() for mark in marks)} blocks of "
            "64 KiB.")


def watch(guest, machine, tracker, folder):
    """Serves the tracker until kestrix has ended. Ends it where the view breaks, or would break the guest."""
    child = os.pidfd_open(machine.child.pid)
    why = None
    try:
        while why is None and machine.child.poll() is None:
            with selectors.DefaultSelector() as selector:
                for waited in [child, *guest.sockets(), *(tracker.sockets() if tracker else [])]:
                    selector.register(waited, selectors.EVENT_READ)
                ready = [key.fileobj for key, _ in selector.select(LOOK_EVERY)]
            if tracker:
                tracker.serve(ready)
            why = guest.look_at_events()
            if why is None and free_space(folder) < SCRATCH_FLOOR:
                why = (f"{folder} is nearly full of what the guest has written meanwhile. The capture ends so that the "
                       "guest can go on.")
    finally:
        os.close(child)
    if why:
        machine.kill()
        raise Fault(why)
    return machine.child.returncode


def take_down(guest, run):
    """Gives what went wrong in it, as sentences."""
    faults = []
    try:
        guest.take_down()
    except (Fault, OSError) as error:
        faults.append(f"{as_sentence(error)} What stays of this capture in QEMU is taken away by the next one.")
    # What a later run needs to know of this one: the server that stays in QEMU, and a guest that stays frozen.
    if not faults and not os.path.exists(run.path("frozen")):
        run.remove()
    return faults
