#!/usr/bin/python3
"""Writes the seeds of the fuzz targets, tests/fuzz/seeds/<target>/, the same bytes at every run.

Images come from the tests' own writer, which shares nothing with the program. How a target reads its input stands at
the head of its source; the functions here are the other side of that. A first argument names another folder for them,
and with --vectors before it that folder gets the images of tests/vectors instead, each with its bases as one input.
"""
import hashlib
import json
import os
import random
import shutil
import struct
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "endtoend"))
import kestrix_image as ki  # noqa: E402

FITTING_PINS, FITTING_HASHES, WITHOUT_PASSWORD = 1, 2, 4
NAMES = ("a.kstx", "b.kstx", "c.kstx", "d.kstx", "e.kstx")
ITERATIONS = 3
CHANCE = random.Random(1)  # for the salts and nonces of the writer, which have to be the same each time


def image_input(files, flags=0):
    head = bytes([flags, len(files) - 1])
    return head + b"".join(struct.pack("<H", len(file)) + file for file in files[:-1]) + files[-1]


def chain(levels, passwords=(None,) * 5, chunks=3, chunkSize=1024, diskSize=None, edit=None):
    """The files of a chain, the topmost first; each level above the lowest changes one chunk."""
    disk = bytearray(ki.seeded_disk(diskSize or chunks * chunkSize, 7))
    with tempfile.TemporaryDirectory() as folder:
        written = []
        for level in range(levels):
            if level:
                start = level % chunks * chunkSize
                disk[start:start + 8] = ki.seeded_disk(8, level)
            path = os.path.join(folder, NAMES[levels - 1 - level])
            top = level == levels - 1
            written.append(ki.make_image(path, bytes(disk), passwords[level], written[-1] if written else None,
                                         chunkSize=chunkSize, kdfIterations=ITERATIONS, epoch=0x1234,
                                         edit=edit if top else None, randomBytes=CHANCE.randbytes))
        return [one.record.encode() for one in reversed(written)]


def changed(change, levels=1, **arguments):
    """A chain whose topmost image is damaged by change, which gets its Record."""
    return chain(levels, edit=change, **arguments)


def set_header(**fields):
    def change(record):
        for name, value in fields.items():
            setattr(record.header, name, value)
    return change


def set_entry(i, **fields):
    def change(record):
        for name, value in fields.items():
            setattr(record.table[i], name, value)
    return change


def set_trailer(**fields):
    def change(record):
        for name, value in fields.items():
            setattr(record.trailer, name, value)
    return change


def set_tail(record):
    record.tail = b"tail"


def set_zeros(record):
    record.data[1] = bytes(len(record.data[1]))
    record.table[1].hash = hashlib.sha256(record.data[1]).digest()


def set_gap(record):
    record.gap = b"a gap"


def image_seeds():
    sealed = (b"password",) * 5
    plain, thin = chain(1), chain(2)
    return {
        "plain": image_input(plain),
        "plain_short_last_chunk": image_input(chain(1, diskSize=2560)),
        "plain_one_chunk": image_input(chain(1, chunks=1)),
        "plain_many_chunks": image_input(chain(1, chunks=40, chunkSize=64)),
        "plain_no_chunks": image_input(changed(set_header(diskSize=0, chunkCount=0))),
        "sealed": image_input(chain(1, sealed)),
        "sealed_without_password": image_input(chain(1, sealed), WITHOUT_PASSWORD),
        "sealed_other_password": image_input(chain(1, (b"other",))),
        "thin": image_input(thin),
        "thin_of_three": image_input(chain(3)),
        "thin_of_four": image_input(chain(4)),
        "thin_sealed": image_input(chain(3, sealed)),
        "thin_sealed_on_plain": image_input(chain(2, (None, b"password"))),
        "thin_plain_on_sealed": image_input(chain(2, (b"password", None))),
        "thin_base_missing": image_input(thin[:1]),
        "thin_names_itself": image_input(changed(set_trailer(baseName=b"a.kstx"), 2), FITTING_PINS),
        "thin_wrong_pin": image_input(changed(set_trailer(basePin=bytes(32)), 2)),
        "thin_other_geometry": image_input([thin[0], chain(1, chunks=2)[0]], FITTING_PINS),
        "thin_separator_in_name": image_input(changed(set_trailer(baseName=b"./b.ks"), 2)),
        "thin_gap": image_input(changed(set_gap, 2)),
        "thin_tail": image_input(changed(set_tail, 2)),
        "reference_without_base": image_input(changed(set_entry(1, storedLength=0))),
        "hash_wrong": image_input(changed(set_entry(1, hash=bytes(32)))),
        "tag_wrong": image_input(chain(1, sealed, edit=set_entry(2, tag=bytes(16)))),
        "stored_too_long": image_input(changed(set_entry(2, storedLength=1100)), FITTING_HASHES),
        "stored_too_short": image_input(changed(set_entry(2, storedLength=900)), FITTING_HASHES),
        "stored_huge": image_input(changed(set_entry(0, storedLength=0xFFFFFFFF))),
        "chunk_size_zero": image_input(changed(set_header(chunkSize=0)), FITTING_HASHES),
        "chunk_size_huge": image_input(changed(set_header(chunkSize=0xFFFFFFFF)), FITTING_HASHES),
        "chunk_count_huge": image_input(changed(set_header(chunkCount=1 << 60))),
        "disk_size_small": image_input(changed(set_header(diskSize=1000)), FITTING_HASHES),
        "disk_size_huge": image_input(changed(set_header(diskSize=(1 << 64) - 1)), FITTING_HASHES),
        "disk_offset_far": image_input(changed(set_entry(1, diskOffset=1 << 40))),
        "disk_offset_uneven": image_input(changed(set_entry(1, diskOffset=100))),
        "iterations_zero": image_input(chain(1, sealed, edit=set_header(kdfIterations=0))),
        "version_unknown": image_input(changed(set_header(version=4))),
        "truncated_header": image_input([plain[0][:40]]),
        "truncated_table": image_input([plain[0][:100]]),
        "truncated_data": image_input([plain[0][:-1]]),
        "truncated_trailer": image_input([thin[0][:-1], thin[1]]),
    }


def check_seeds():
    """What only kestrix-image tells apart."""
    def lose_data(record):
        record.data[1] = bytes(len(record.data[1]))

    def move_and_lengthen(record):
        set_tail(record)
        set_entry(1, diskOffset=7)(record)

    return {
        "thin_of_five": image_input(chain(5)),
        "thin_of_five_partly_sealed": image_input(chain(5, (b"password", None) * 3)),
        "zeros": image_input(changed(set_zeros)),
        "tail_and_wrong_place": image_input(changed(move_and_lengthen)),
        "digest_and_place_wrong": image_input(changed(set_entry(1, diskOffset=0, hash=bytes(32)))),
        "digest_of_sealed_wrong": image_input(chain(2, (b"password",) * 2, edit=set_entry(1, hash=bytes(32)))),
        "chunks_behind_the_disk": image_input(changed(set_header(diskSize=1500)), FITTING_HASHES),
        "twin_beside": image_input([*changed(lose_data), *chain(1)]),
        "twin_sealed_beside": image_input([*changed(lose_data), *chain(1, (b"password",))]),
    }


def renamed(image, names):
    """The image with the name in its trailer replaced as names has it, if it is one of them. No digest covers it."""
    total, = struct.unpack("<I", image[-4:].rjust(4, b"\0"))
    trailer = image[-total:] if 48 <= total <= len(image) else b""
    for old, new in names.items():
        if trailer[:-36] == ki.TRAILER_MAGIC + struct.pack("<I", len(old)) + old.encode():
            return (image[:-total] + ki.TRAILER_MAGIC + struct.pack("<I", len(new)) + new.encode() + trailer[-36:-4] +
                    struct.pack("<I", len(new) + 48))
    return image


def vector_seeds():
    """Each vector as an input, unless it needs more files than an input has."""
    folder = os.path.join(HERE, "..", "vectors")
    with open(os.path.join(folder, "vectors.json"), encoding="ascii") as file:
        index = json.load(file)
    inputs = {}
    for vector in index:
        names = dict(zip([vector["image"], *vector.get("bases", ())], NAMES))
        if len(names) <= len(vector.get("bases", ())):
            continue
        files = []
        for name in names:
            with open(os.path.join(folder, name), "rb") as file:
                files.append(renamed(file.read(), names))
        inputs[vector["name"]] = image_input(files, 0 if "password" in vector else WITHOUT_PASSWORD)
    return inputs


def answer(bitmap, active=1, hasPrevious=1, previous=0x1234, current=0x1235, secondaryGap=0, gap=0, extent=4096,
           shift=9, bitmapBytes=None):
    said = len(bitmap) if bitmapBytes is None else bitmapBytes
    return (struct.pack("<IIQQIIQII", active, hasPrevious, previous, current, secondaryGap, gap, extent, shift, said) +
            struct.pack("<H", len(bitmap)) + bitmap)


def tracker_input(answers, thin=False, base=True, equal=False, errors=0, epoch=0x1234, offset=1024, length=1024):
    flags = thin | base << 1 | equal << 2 | errors | (len(answers) - 1) << 6
    return struct.pack("<BQQH", flags, epoch, offset, length - 1) + b"".join(answers)


def tracker_seeds():
    clean, dirty = answer(bytes(1)), answer(b"\x04")
    return {
        "clean": tracker_input([clean]),
        "clean_thin": tracker_input([clean], thin=True),
        "dirty": tracker_input([dirty]),
        "dirty_thin": tracker_input([dirty], thin=True),
        "dirty_thin_equal": tracker_input([dirty], thin=True, equal=True),
        "without_base": tracker_input([clean], base=False),
        "thin_without_base": tracker_input([clean], thin=True, base=False),
        "attach_refused": tracker_input([clean], errors=8),
        "query_refused": tracker_input([clean], errors=16),
        "commit_refused": tracker_input([clean], errors=32),
        "inactive": tracker_input([answer(bytes(1), active=0)]),
        "no_extent": tracker_input([answer(bytes(1), extent=0)]),
        "no_previous_epoch": tracker_input([answer(bytes(1), hasPrevious=0)]),
        "other_epoch": tracker_input([answer(bytes(1), previous=0x9999)]),
        "no_epoch": tracker_input([answer(bytes(1), previous=0)], epoch=0),
        "wide_epoch": tracker_input([answer(bytes(1), current=1 << 60)]),
        "gap": tracker_input([answer(bytes(1), gap=1)]),
        "secondary_gap": tracker_input([answer(bytes(1), secondaryGap=1)]),
        "bitmap_empty": tracker_input([answer(b"")]),
        "bitmap_short": tracker_input([answer(bytes(1), shift=8)]),
        "bitmap_long": tracker_input([answer(bytes(64), shift=3)]),
        "bitmap_promised": tracker_input([answer(b"", bitmapBytes=64)]),
        "bitmap_huge": tracker_input([answer(b"", bitmapBytes=0xFFFFFFF0)]),
        "bitmap_beyond_memory": tracker_input([answer(b"", bitmapBytes=1 << 30)]),
        "shift_63": tracker_input([answer(bytes(1), shift=63)]),
        "shift_64": tracker_input([answer(bytes(1), shift=64)]),
        "shift_0": tracker_input([answer(bytes(512), shift=0)]),
        "later_other_epoch": tracker_input([clean, answer(bytes(1), previous=0x9999)]),
        "later_longer": tracker_input([clean, answer(bytes(9))]),
        "later_shorter": tracker_input([answer(bytes(9)), clean]),
        "later_other_shift": tracker_input([clean, answer(bytes(1), shift=3)]),
    }


def command_seeds():
    lines = {
        "empty": "",
        "list": "list-disks",
        "list_extra": "list-disks extra words",
        "unknown": "Capture --disk 1 --out x",
        "capture": "capture --disk 1 --out new.kstx",
        "capture_upper_case": "capture --DISK 1 --OUT new.kstx",
        "capture_system_disk": "capture --disk 0 --out new.kstx",
        "capture_base": "capture --disk 1 --out new.kstx --base full.kstx",
        "capture_thin": "capture --disk 1 --out new.kstx --incremental full.kstx --thin",
        "capture_thin_alone": "capture --disk 1 --out new.kstx --thin",
        "capture_sealed": "capture --disk 1 --out new.kstx --encrypt --password-file password",
        "capture_no_password": "capture --disk 1 --out new.kstx --encrypt",
        "capture_vss": "capture --disk 1 --out new.kstx --vss",
        "capture_no_number": "capture --disk abc --out new.kstx",
        "capture_trailing_text": "capture --disk 1x --out new.kstx",
        "capture_out_last": "capture --disk 1 --out",
        "capture_flag_as_value": "capture --disk 1 --out --vss",
        "capture_negative": "capture --disk -5 --out new.kstx",
        "capture_no_disk": "capture --disk 7 --out new.kstx",
        "capture_onto_device": "capture --disk 1 --out \\\\.\\PhysicalDrive1",
        "verify": "verify --in full.kstx",
        "verify_thin": "verify --in thin.kstx --password-file password",
        "verify_missing": "verify --in none.kstx",
        "verify_in_last": "verify --in",
        "restore": "restore --in full.kstx --disk 1 --confirm YES",
        "restore_thin": "restore --in thin.kstx --disk 1 --confirm YES --password-file password",
        "restore_yes": "restore --in full.kstx --disk 1 --confirm yes",
        "restore_unconfirmed": "restore --in full.kstx --disk 1",
        "restore_unconfirmed_absent": "restore --in full.kstx --disk 7",
        "restore_confirm_last": "restore --in full.kstx --disk 1 --confirm",
        "restore_system_disk": "restore --in full.kstx --disk 0 --confirm YES",
        "restore_out_of_range": "restore --in full.kstx --disk 99999999999 --confirm YES",
        "restore_largest": "restore --in full.kstx --disk 2147483647 --confirm YES",
        "restore_smallest": "restore --in full.kstx --disk -2147483649",
        "consolidate": "consolidate --in thin.kstx --out new.kstx",
        "consolidate_sealed": "consolidate --in thin.kstx --out new.kstx --encrypt --password-file password",
        "consolidate_no_password": "consolidate --in thin.kstx --out new.kstx --encrypt",
        "consolidate_onto_itself": "consolidate --in thin.kstx --out THIN.kstx",
        "consolidate_existing": "consolidate --in thin.kstx --out full.kstx",
    }
    return {name: line.replace(" ", "\n").encode() for name, line in lines.items()}


def reply(error, data, said=None):
    return struct.pack("<II", error, len(data) if said is None else said) + data


def socket_input(rooms, stream):
    return bytes([len(rooms) - 1]) + b"".join(struct.pack("<H", room) for room in rooms) + stream


def socket_seeds():
    return {
        "one": socket_input([8], reply(0, b"12345678")),
        "shorter_than_room": socket_input([100], reply(0, b"123")),
        "no_room": socket_input([0], reply(0, b"")),
        "error_with_bytes": socket_input([16], reply(234, b"1234")),
        "error_of_all_bits": socket_input([16], reply(0xFFFFFFFF, b"")),
        "more_than_room": socket_input([3], reply(0, b"1234")),
        "claims_all": socket_input([16], reply(0, b"1234", 0xFFFFFFFF)),
        "breaks_off": socket_input([16], reply(0, b"1234", 8)),
        "breaks_off_in_head": socket_input([16], b"\0\0\0\0\x04"),
        "nothing": socket_input([16], b""),
        "four": socket_input([4, 8, 0, 2], reply(0, b"1234") + reply(1, b"12345678") + reply(0, b"") + reply(0, b"12")),
        "broken_then_whole": socket_input([4, 4], reply(0, b"12345") + reply(0, b"1234")),
    }


def write_seeds(folder, seeds):
    for target, inputs in seeds.items():
        path = os.path.join(folder, target)
        shutil.rmtree(path, ignore_errors=True)
        os.makedirs(path)
        for name, data in inputs.items():
            with open(os.path.join(path, name), "wb") as file:
                file.write(data)


def main():
    if sys.argv[1:2] == ["--vectors"]:
        vectors = vector_seeds()
        write_seeds(sys.argv[2], {"images": vectors, "verify": vectors, "image_check": vectors})
        return
    images = image_seeds()
    write_seeds(sys.argv[1] if len(sys.argv) > 1 else os.path.join(HERE, "seeds"),
                {"images": images, "verify": images, "image_check": {**images, **check_seeds()},
                 "tracker": tracker_seeds(), "command_line": command_seeds(), "device_socket": socket_seeds()})


if __name__ == "__main__":
    main()
