"""Disks that fail: unreadable and unwritable places, for once and for good, and disks that are pulled out."""
import os

from cases import MIB, Disk, Machine, blank, case, host, noise, past_firmware, reach_prompt, stick

GROUP = "Faults"
DISK_MIB = 24
CHUNK = 4 * MIB
# The place of a fault, in bytes: in the first, a middle and the last chunk.
PLACES = {"FIRST": 64 * 1024, "MIDDLE": 2 * CHUNK + 8192, "LAST": DISK_MIB * MIB - 4096}
NUMBER = "$(kestrix-keep disks | grep -B3 'serial: {}' | sed -n 's/^disk \\([0-9]*\\):.*/\\1/p')"


class FaultyDisk(Disk):
    """A disk that gives an error for what reads, or writes, at a place."""

    def __init__(self, path, serial, kind_of_access, place, once=False):
        super().__init__(path, "virtio", serial, name=serial.lower().replace("-", ""))
        self.fault = {"event": "none", "iotype": kind_of_access, "errno": 5, "sector": place // 512, "once": once}

    def node(self):
        return {"driver": "raw", "node-name": self.name,
                "file": {"driver": "blkdebug", "inject-error": [self.fault],
                         "image": {"driver": "file", "filename": self.path, "locking": "off"}}}


@case(GROUP, "a place of the source that can't be read, or of the target that can't be written: in "
             "the first, a middle and the last chunk, for once and for good")
def test_places(folder):
    source = noise(os.path.join(folder, "source"), DISK_MIB * MIB, 11)
    disks = [Disk(source, "virtio", "SOUND", name="sound"),
             Disk(blank(os.path.join(folder, "store"), 256 * MIB), "virtio", "STORE", name="store")]
    for name, place in PLACES.items():
        for once in (False, True):
            serial = f"{name}-{'ONCE' if once else 'EVER'}"
            disks.append(FaultyDisk(source, f"R-{serial}", "read", place, once))
            disks.append(FaultyDisk(noise(os.path.join(folder, serial), DISK_MIB * MIB, 12), f"W-{serial}", "write",
                                    place, once))
    with Machine(os.path.join(folder, "line.log"), [*disks, stick()], past_firmware()) as machine:
        reach_prompt(machine)
        machine.run("mkfs.ext4 -q /dev/disk/by-id/virtio-STORE && mount /dev/disk/by-id/virtio-STORE /mnt")
        machine.run(f"kestrix capture --disk {NUMBER.format('SOUND')} --out /mnt/sound.kstx", seconds=120)
        for name in PLACES:
            for times in ("EVER", "ONCE"):
                capture_fails(machine, f"R-{name}-{times}")
                restore_fails(machine, f"W-{name}-{times}", times == "ONCE")
        machine.run("umount /mnt")
        machine.type("poweroff")
        machine.wait_until_off()


def capture_fails(machine, serial):
    """The fault may have met what looked at the disk before: then the capture is whole, and is what the disk holds."""
    said = machine.run(f"kestrix capture --disk {NUMBER.format(serial)} --out /mnt/{serial}.kstx; echo status $?",
                       seconds=180)
    if "status 0" in said:
        assert serial.endswith("ONCE"), f"{serial}: {said}"
        machine.run(f"kestrix-image diff /mnt/sound.kstx /mnt/{serial}.kstx", seconds=120)
    else:
        assert "status 1" in said and "FATAL" in said, f"{serial}: {said}"
        said = machine.run(f"kestrix verify --in /mnt/{serial}.kstx", seconds=120, status=1)
    machine.run(f"rm -f /mnt/{serial}.kstx")


def restore_fails(machine, serial, is_once):
    said = machine.run(f"kestrix restore --in /mnt/sound.kstx --disk {NUMBER.format(serial)} --confirm YES; "
                       "echo status $?", seconds=180)
    assert "status 1" in said and "FATAL" in said and "Restore complete" not in said, f"{serial}: {said}"
    said = machine.run("kestrix-keep restore --image /mnt/sound.kstx --disk serial:" + serial + " --yes-overwrite " +
                       serial + "; echo status $?", seconds=300)
    if is_once:
        assert "status 0" in said and "RESTORED: " in said, f"{serial}: {said}"
    else:
        assert "status 1" in said and "NOT DONE: " in said and "partly written" in said.lower(), f"{serial}: {said}"


# ---- Of the backup disk ----

IMAGE_PLACES = {"FIRST": 64 * 1024, "MIDDLE": 2 * CHUNK + 64 * 1024, "LAST": 5 * CHUNK + 64 * 1024}


def full_store(folder, source):
    """A disk with an image of the source, and room for nothing else: whoever lets it go gets its places."""
    store = blank(os.path.join(folder, "store"), 64 * MIB)
    host("mke2fs", "-q", "-t", "ext4", "-b", "4096", "-m", "0", store)
    with Machine(os.path.join(folder, "make.log"), [Disk(source, "virtio", "SOUND"), Disk(store, "virtio", "STORE"),
                                                    stick()], past_firmware()) as machine:
        reach_prompt(machine)
        machine.run("mount /dev/disk/by-id/virtio-STORE /mnt")
        machine.run(f"kestrix capture --disk {NUMBER.format('SOUND')} --out /mnt/image.kstx; sync", seconds=120)
        machine.run("fallocate -l $(($(stat -f -c '%a * %S' /mnt) - 65536)) /mnt/filler; umount /mnt")
        machine.type("poweroff")
        machine.wait_until_off()
    return store


def place_of(store, offset):
    """Where a byte of the image lies on the disk."""
    block = host("debugfs", "-R", f"bmap /image.kstx {offset // 4096}", store).split()[-1]
    return int(block) * 4096


def spoil(disk, place):
    """What is not written there is not what was there before."""
    with open(disk, "r+b") as file:
        file.seek(place)
        file.write(b"spoiled " * 512)


@case(GROUP, "a place of the backup disk that can't be read or written: in the first, a middle and the last chunk of "
             "an image, for once and for good")
def test_backup_places(folder):
    source = noise(os.path.join(folder, "source"), DISK_MIB * MIB, 11)
    store = full_store(folder, source)
    disks = [Disk(source, "virtio", "SOUND", name="sound"),
             Disk(noise(os.path.join(folder, "target"), DISK_MIB * MIB, 12), "virtio", "TARGET", name="target")]
    for name, offset in IMAGE_PLACES.items():
        for kind in ("read", "write"):
            for times in ("EVER", "ONCE"):
                serial = f"{kind[0].upper()}-{name}-{times}"
                host("cp", "--sparse=always", store, os.path.join(folder, serial))
                place = place_of(store, offset)
                if kind == "write":
                    spoil(os.path.join(folder, serial), place)
                disks.append(FaultyDisk(os.path.join(folder, serial), serial, kind, place, times == "ONCE"))
    with Machine(os.path.join(folder, "line.log"), [*disks, stick()], past_firmware()) as machine:
        reach_prompt(machine)
        told = 0
        for name in IMAGE_PLACES:
            for times in ("EVER", "ONCE"):
                image_is_not_read(machine, f"R-{name}-{times}")
                told += image_is_not_written(machine, f"W-{name}-{times}")
        machine.type("poweroff")
        machine.wait_until_off()
    return f"{told} of 6 captures said so, verify of each"


def image_is_not_read(machine, serial):
    """What fails only once may be read anew by the kernel itself: then the target has to be the source."""
    machine.run(f"mount -o ro,noload /dev/disk/by-id/virtio-{serial} /mnt")
    said = machine.run(f"kestrix restore --in /mnt/image.kstx --disk {NUMBER.format('TARGET')} --confirm YES; "
                       "echo status $?", seconds=180)
    if "status 0" in said:
        assert serial.endswith("ONCE"), f"{serial}: {said}"
        machine.run("cmp /dev/disk/by-id/virtio-SOUND /dev/disk/by-id/virtio-TARGET", seconds=120)
    else:
        assert "status 1" in said and "FATAL" in said and "Restore complete" not in said, f"{serial}: {said}"
    if serial.endswith("EVER"):
        machine.run("kestrix verify --in /mnt/image.kstx", seconds=120, status=1)
    machine.run("umount /mnt")


def image_is_not_written(machine, serial):
    """What fails behind the last write that was looked at only verify tells. Gives whether capture told it."""
    device = f"/dev/disk/by-id/virtio-{serial}"
    machine.run(f"mount {device} /mnt; rm /mnt/image.kstx; sync")
    said = machine.run(f"kestrix capture --disk {NUMBER.format('SOUND')} --out /mnt/image.kstx; echo status $?",
                       seconds=180)
    told = "status 1" in said and "FATAL" in said
    assert told or "status 0" in said, f"{serial}: {said}"
    machine.run(f"umount /mnt; mount -o ro,noload {device} /mnt")
    machine.run("test ! -e /mnt/image.kstx || ! kestrix verify --in /mnt/image.kstx", seconds=120)
    machine.run("umount /mnt")
    return told


# ---- Pulled out ----

# Each: what is pulled out, the command, and what it says.
PULLED = [
    ("SOURCE", "kestrix capture --disk $SOURCE --out /mnt/store/new.kstx"),
    ("STORE", "kestrix capture --disk $SOURCE --out /mnt/store/new.kstx"),
    ("STORE", "kestrix verify --in /mnt/store/sound.kstx"),
    ("TARGET", "kestrix restore --in /mnt/store/sound.kstx --disk $TARGET --confirm YES"),
    ("STORE", "kestrix restore --in /mnt/store/sound.kstx --disk $TARGET --confirm YES"),
    ("STORE", "kestrix consolidate --in /mnt/store/sound.kstx --out /mnt/store/whole.kstx"),
]


@case(GROUP, "the source, the target or the backup disk is pulled out in the middle of a command: it ends in time with "
             "status 1, and what it left is taken for no image")
def test_pulled_out(folder):
    source = noise(os.path.join(folder, "source"), 48 * MIB, 13)
    prepared = os.path.join(folder, "prepared")
    host("mke2fs", "-q", "-t", "ext4", blank(prepared, 160 * MIB))
    with Machine(os.path.join(folder, "make.log"), [Disk(source, "virtio", "SOURCE"), Disk(prepared, "virtio", "STORE"),
                                                    stick()], past_firmware()) as machine:
        reach_prompt(machine)
        machine.run("mount /dev/disk/by-id/virtio-STORE /mnt")
        machine.run(f"kestrix capture --disk {NUMBER.format('SOURCE')} --out /mnt/sound.kstx; umount /mnt", seconds=180)
        for number, (name, command) in enumerate(PULLED):
            pull(machine, folder, number, name, command, source, prepared)
        machine.type("poweroff")
        machine.wait_until_off()
    return f"{len(PULLED)} times"


def pull(machine, folder, number, name, command, source, prepared):
    """Plugs in three USB disks, lets the command begin, pulls one of them, and looks what came of it."""
    plugged = {"SOURCE": source, "STORE": prepared, "TARGET": noise(os.path.join(folder, "target"), 48 * MIB, 14)}
    store = os.path.join(folder, "store")
    host("cp", "--sparse=always", prepared, store)
    plugged["STORE"] = store
    if number == 0:
        machine.tell("object-add", **{"qom-type": "throttle-group", "id": "slow", "limits": {"bps-total": 8 * MIB}})
    for serial, path in plugged.items():
        node = f"{serial.lower()}{number}"
        machine.tell("blockdev-add", **{"driver": "throttle", "node-name": node, "throttle-group": "slow", "file": {
            "driver": "raw", "file": {"driver": "file", "filename": path, "locking": "off"}}})
        machine.tell("device_add", driver="usb-storage", bus="xhci.0", drive=node, id=node, serial=f"PULL-{serial}")
    machine.run("for s in SOURCE STORE TARGET; do until ls /dev/disk/by-id/*PULL-$s* >/dev/null 2>&1; do sleep 0.3; "
                "done; done; udevadm settle; mkdir -p /mnt/store; mount /dev/disk/by-id/*PULL-STORE* /mnt/store",
                seconds=120)
    for serial in plugged:
        machine.run(f"{serial}={NUMBER.format('PULL-' + serial)}; test -n \"${serial}\"")
    machine.type(f"timeout 120 {command}; echo status $?")
    machine.expect(r"\r\s+[1-9][\d.]*%", seconds=60)
    machine.tell("device_del", id=f"{name.lower()}{number}")
    ended = machine.expect(r"status (\d+)\s", seconds=150)[1]
    assert ended == "1", f"{name}, {command}: status {ended}"
    machine.run("umount -l /mnt/store; sync", status=None)
    for serial in plugged:
        if serial != name:
            machine.tell("device_del", id=f"{serial.lower()}{number}")
    machine.run("while ls /dev/disk/by-id/*PULL-* >/dev/null 2>&1; do sleep 0.3; done; udevadm settle", seconds=60)
    if name != "TARGET":
        look_at_left(machine, store)


def look_at_left(machine, store):
    """What the command left on the backup disk, which comes back."""
    machine.tell("blockdev-add", **{"driver": "raw", "node-name": "back", "file": {
        "driver": "file", "filename": store, "locking": "off"}})
    machine.tell("device_add", driver="usb-storage", bus="xhci.0", drive="back", id="back", serial="BACK")
    machine.run("until ls /dev/disk/by-id/*BACK* >/dev/null 2>&1; do sleep 0.3; done; udevadm settle; "
                "mount /dev/disk/by-id/*BACK* /mnt", seconds=60)
    for left in ("new", "whole"):
        machine.run(f"test ! -e /mnt/{left}.kstx || ! kestrix verify --in /mnt/{left}.kstx", seconds=120)
    machine.run("kestrix verify --in /mnt/sound.kstx", seconds=120)
    machine.run("umount /mnt")
    machine.tell("device_del", id="back")
    machine.run("while ls /dev/disk/by-id/*BACK* >/dev/null 2>&1; do sleep 0.3; done; udevadm settle", seconds=60)
    machine.tell("blockdev-del", **{"node-name": "back"})
