#!/usr/bin/python3
"""Makes the folder of images with one defect each, and vectors.json, which states what every command says of them.

make_vectors.py [FOLDER] writes into that folder, or into its own. The same bytes come out every time: disks, salts and
nonces are drawn from generators with fixed seeds. What is stated of an image stands beside its making, by hand: the
fault that opening ends in, or the finding at each chunk that isn't sound. outcomes.py spells that out.
"""
import copy
import hashlib
import os
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(os.path.dirname(HERE), "endtoend"))
sys.dont_write_bytecode = True

from edits import (  # noqa: E402
    both, changed_with_digest, cut, entry, flip, flip_data, flip_pin, flipped, from_another, header, named, reference,
    resized, swapped_chunks, swapped_data, trailer, with_one_more, without_last)
from index import (  # noqa: E402
    ABNORMAL, CHUNK, CHUNKS, COUNT, EPOCH, EVERY, ITERATIONS, NEW, OLD, ONE, OTHER, RIGHT, SECRET, SIZE, TABLE_END,
    Vectors)
from kestrix_image import CAPTURE_CHUNK  # noqa: E402
from outcomes import (  # noqa: E402
                      BAD_HASH, BAD_TAG, BAD_TRAILER, CUT, CUT_BELOW, EMPTY_PASSWORD, HASH, NO_BASE_IN_CHUNK, NO_HEADER,
                      NO_ITERATIONS, NO_PASSWORD, NO_PASSWORD_FILE, NO_TABLE, NO_TRAILER, NOT_AN_IMAGE, OK,
                      OTHER_GEOMETRY, OUTSIDE, TAG, TOO_DEEP, missing_base, not_opened, other_base)


def sound_images(v):
    v.make("base.kstx")
    v.make("sealed-base.kstx", password=SECRET)
    v.add("sound", "Nothing: a plain full image of three chunks, the last one short.")
    v.add("sound-sealed", "Nothing: a sealed full image.", seal=True)
    v.add("sound-thin", "Nothing: chunk 1 is stored, chunks 0 and 2 are references.", disk=NEW, base="base.kstx")
    v.add("sound-thin-all-references", "Nothing: every chunk is a reference, the data area is empty.", base="base.kstx")
    v.add("sound-thin-no-reference", "Nothing: every chunk is stored, the base is needed to open it all the same.",
          disk=OTHER, base="base.kstx")
    v.add("sound-thin-sealed", "Nothing: a sealed thin image on a sealed base, each with a key of its own.", disk=NEW,
          seal=True, base="sealed-base.kstx")
    v.add("sound-sealed-on-plain", "Nothing: a sealed thin image on a plain base.", disk=NEW, seal=True,
          base="base.kstx")
    v.add("sound-plain-on-sealed", "Nothing: a plain thin image on a sealed base.", disk=NEW, password=RIGHT,
          base="sealed-base.kstx")
    v.add("sound-thin-on-thin", "Nothing: chunk 0 is a reference to a reference.", disk=NEW, base="sound-thin.kstx",
          bases=["base.kstx"])
    v.add("sound-epoch", "Nothing: the header carries the largest epoch.", epoch=2**56 - 1)
    v.add("plain-with-absent-password-file", "A password file is named that isn't there: a plain image never looks.",
          use="sound.kstx", password="absent.password")


def header_fields(v):
    for i in range(8):
        v.add(f"magic-{i}", f"Byte {i} of the magic is another.", opening=NOT_AN_IMAGE,
              raw=lambda data, i=i: data[:i] + bytes([data[i] ^ 0x20]) + data[i + 1:])
    for version in (0, 1, 4, 0x102, 0x203, 0x10003, 0x02000000, 0x80000002, 2**32 - 1):
        v.add(f"version-{version:x}", f"The version is {version:#x}.", opening=NOT_AN_IMAGE,
              edit=header(version=version))
    v.add("version-3-full", "A full image says that it is thin: there is no trailer.", opening=NO_TRAILER,
          edit=header(version=3))
    v.add("version-2-thin", "A thin image says that it is full: its references lead nowhere, its trailer is ignored.",
          disk=NEW, base="base.kstx", edit=header(version=2), found={0: NO_BASE_IN_CHUNK})

    v.add("disk-size-0", "The disk size is 0: chunk 0 would be empty, those behind it begin below zero and are whole.",
          edit=header(diskSize=0), found={0: HASH, 2: HASH})
    for name, size in (("one-less", SIZE - 1), ("one-more", SIZE + 1), ("one-chunk-less", SIZE - CHUNK)):
        v.add(f"disk-size-{name}", f"The disk size is {size}, the table covers {SIZE}.", edit=header(diskSize=size),
              found={1: HASH, 2: HASH} if name == "one-chunk-less" else {2: HASH})
    for bits in (40, 63, 64):
        v.add(f"disk-size-2-{bits}", f"The disk size is 2 to the power {bits}, less 1.",
              edit=header(diskSize=2**bits - 1), found={2: HASH})
    for size in (0, 1, 513, 4096, 2**32 - 1):
        v.add(f"sector-size-{size}", f"The sector size is {size}: nobody but a capture compares it.",
              edit=header(sectorSize=size))
    for size in (0, 1, CHUNK - 1, CHUNK + 1, SIZE, 2**31 - 1, 2**32 - 1):
        v.add(f"chunk-size-{size}", f"The chunk size is {size}, the table is made for {CHUNK}: no stored chunk has the "
                                    "length of its chunk.", edit=header(chunkSize=size),
              found={0: HASH, 1: HASH, 2: HASH})

    v.add("chunk-count-0", "The chunk count is 0: a table without entries, and nothing to do.",
          edit=header(chunkCount=0))
    v.add("chunk-count-one-less", "The chunk count is 2: what stands behind the second entry is taken for data.",
          edit=header(chunkCount=2), found={0: HASH, 1: HASH})
    v.add("chunk-count-one-more", "The chunk count is 4: the first data are taken for an entry, and data lie later.",
          edit=header(chunkCount=4), found={0: HASH, 1: HASH, 2: CUT})
    v.add("last-chunk-missing", "Count, table and data agree on two chunks, and the disk size asks for three.",
          edit=without_last)
    v.add("chunk-behind-the-disk", "Count, table and data have one chunk more than the disk size asks for. It counts "
                                   "as whole and has no room on a disk of that size.", edit=with_one_more,
          plain=CHUNKS + [bytes(CHUNK)])
    for count in (1000, 1000000):
        v.add(f"chunk-count-{count}", f"The chunk count is {count}, and the file holds three.",
              edit=header(chunkCount=count), opening=NO_TABLE)
    for count in (59652323, 100000000, 300000000):
        v.add(f"chunk-count-{count}", f"64 bytes that claim a table of {72 * count} bytes.", raw=cut(64),
              edit=header(chunkCount=count), opening=NO_TABLE, claims=72 * count)
    for bits in (57, 60, 63):
        v.add(f"chunk-count-2-{bits}", f"The chunk count is 2 to the power {bits}: no memory holds such a table.",
              edit=header(chunkCount=2**bits), opening=ABNORMAL)
    v.add("chunk-count-largest", "The chunk count is 2 to the power 64, less 1.", edit=header(chunkCount=2**64 - 1),
          opening=ABNORMAL)

    for field, value in (("salt", b"s" * 16), ("kdfIterations", 1), ("epoch", 1)):
        v.add(f"plain-with-{field.lower()}", f"A plain image carries {field}: a reader that has no use for it goes on.",
              edit=header(**{field: value}))


def keys_and_passwords(v):
    v.make("sealed.kstx", password=SECRET)
    every_tag = {i: TAG for i in EVERY}
    for name, password, more in (("no-password-file-named", "none", {"opening": NO_PASSWORD}),
                                 ("wrong-password", "wrong.password", {"found": every_tag}),
                                 ("empty-password-file", "empty.password", {"opening": EMPTY_PASSWORD}),
                                 ("password-file-of-line-ends", "line-ends.password", {"opening": EMPTY_PASSWORD}),
                                 ("absent-password-file", "absent.password", {"opening": NO_PASSWORD_FILE})):
        v.add(name, f"A sound sealed image, and {name.replace('-', ' ')}.", use="sealed.kstx", password=password,
              **more)
    for flag in (2, 128, 255):
        v.add(f"encrypted-{flag}", f"The flag is {flag}: any value but 0 means sealed.", seal=True,
              edit=header(encrypted=flag))
    v.add("encrypted-255-without-password", "The flag is 255, and no password file is named.", use="encrypted-255.kstx",
          opening=NO_PASSWORD)
    v.add("sealed-marked-plain", "The flag of a sealed image is 0: its ciphertext is taken for the disk's bytes.",
          seal=True, edit=header(encrypted=0), found={i: HASH for i in EVERY})
    v.add("plain-marked-sealed", "The flag of a plain image is 1, its iteration count 0: no key comes out of that.",
          password=RIGHT, edit=header(encrypted=1), opening=NO_ITERATIONS)
    v.add("plain-marked-sealed-iterations-1", "The flag of a plain image is 1, and its iteration count as well.",
          password=RIGHT, edit=header(encrypted=1, kdfIterations=1), found=every_tag)
    v.add("iterations-0", "The iteration count of a sealed image is 0.", seal=True, edit=header(kdfIterations=0),
          opening=NO_ITERATIONS)
    v.add("iterations-1", "Sealed with one iteration: weak, and nobody's business but the writer's.", seal=True,
          kdfIterations=1)
    v.add("iterations-one-more", "The iteration count is one more than at the sealing: another key.", seal=True,
          edit=header(kdfIterations=ITERATIONS + 1), found=every_tag)
    for i in (0, 15):
        v.add(f"salt-byte-{i}", f"Byte {i} of the salt is another: another key.", seal=True, found=every_tag,
              edit=lambda record, i=i: setattr(record.header, "salt", flipped(record.header.salt, i)))
    v.add("salt-zero", "The salt of a sealed image is zero: another key.", seal=True, edit=header(salt=bytes(16)),
          found=every_tag)

    v.make("other-password-base.kstx", password=b"another")
    v.add("base-with-another-password", "The base was sealed with another password: opening passes, the first "
                                        "reference doesn't.", disk=NEW, seal=True, base="other-password-base.kstx",
          found={0: BAD_TAG})
    v.add("base-with-another-password-unused", "The base was sealed with another password, and no chunk refers to it.",
          disk=OTHER, seal=True, base="other-password-base.kstx")
    v.add("wrong-password-thin", "A wrong password for a sealed thin image on a sealed base: the first chunk is a "
                                 "reference.", use="sound-thin-sealed.kstx", disk=NEW, password="wrong.password",
          bases=["sealed-base.kstx"], found={0: BAD_TAG})
    v.add("wrong-password-sealed-on-plain", "A wrong password for a sealed thin image on a plain base: only its stored "
                                            "chunk fails.", use="sound-sealed-on-plain.kstx", disk=NEW,
          password="wrong.password", bases=["base.kstx"], found={1: TAG})
    v.add("plain-on-sealed-without-password", "A plain thin image on a sealed base, and no password file is named.",
          use="sound-plain-on-sealed.kstx", disk=NEW, bases=["sealed-base.kstx"], opening=NO_PASSWORD)


def cut_files(v):
    for length in (0, 1, 7, 8, 12, 36, 37, 60, 63):
        v.add(f"cut-{length}", f"The file ends after {length} bytes, in the header.", raw=cut(length),
              opening=NO_HEADER)
    for length in (64, 65, 64 + 71, 64 + 72, 64 + 73, TABLE_END - 72, TABLE_END - 1):
        v.add(f"cut-{length}", f"The file ends after {length} bytes, in the table or before it.", raw=cut(length),
              opening=NO_TABLE)
    for length in (TABLE_END, TABLE_END + 1, TABLE_END + CHUNK - 1, TABLE_END + CHUNK, TABLE_END + CHUNK + 1,
                   TABLE_END + 2 * CHUNK - 1, TABLE_END + 2 * CHUNK, TABLE_END + 2 * CHUNK + 1, TABLE_END + SIZE - 1):
        i = (length - TABLE_END) // CHUNK
        v.add(f"cut-{length}", f"The file ends after {length} bytes, in the data of chunk {i} or before them.",
              raw=cut(length), found={i: CUT})
    v.add("cut-sealed", "A sealed image ends one byte early.", seal=True, raw=lambda data: data[:-1], found={2: CUT})
    v.add("unfinished", "A run died before it wrote header and table: zeros in their place.",
          raw=lambda data: bytes(TABLE_END) + data[TABLE_END:], opening=NOT_AN_IMAGE)
    v.add("unfinished-table", "A run died before it wrote the table: entries of zeros, which are references.",
          raw=lambda data: data[:64] + bytes(72 * COUNT) + data[TABLE_END:], found={0: NO_BASE_IN_CHUNK})
    v.add("unfinished-table-thin", "A thin image without its table: every entry reads as a reference with a digest of "
                                   "zeros.", disk=NEW, base="base.kstx", found={0: BAD_HASH},
          raw=lambda data: data[:64] + bytes(72 * COUNT) + data[TABLE_END:])
    v.add("bytes-behind-full", "Bytes stand behind the data area of a full image: nobody reads them.",
          edit=lambda record: setattr(record, "tail", b"more"))
    v.add("trailer-behind-full", "A sound trailer stands behind a full image: nobody reads it.",
          edit=lambda record: setattr(record, "trailer", copy.copy(v.written["sound-thin.kstx"].record.trailer)))

    # base.kstx has nine letters, so that the trailer has 57 bytes.
    start = TABLE_END + CHUNK
    for length in (TABLE_END, start - 1, start, start + 1, start + 8, start + 12, start + 21, start + 47, start + 48,
                   start + 52, start + 53, start + 54, start + 56):
        v.add(f"thin-cut-{length}", f"A thin image ends after {length} bytes; its trailer began at {start} and had 57.",
              disk=NEW, base="base.kstx", raw=cut(length), opening=NO_TRAILER)
    v.add("thin-bytes-behind", "Bytes stand behind the trailer: the file's last four bytes are no length.", disk=NEW,
          base="base.kstx", edit=lambda record: setattr(record, "tail", b"more"), opening=NO_TRAILER)
    v.add("thin-bytes-before-trailer", "Bytes stand between the data area and the trailer: nobody reads them.",
          disk=NEW, base="base.kstx", edit=lambda record: setattr(record, "gap", b"more"))


def table_entries(v):
    for i in EVERY:
        for offset in (0, 31):
            v.add(f"hash-{i}-byte-{offset}", f"Byte {offset} of chunk {i}'s recorded digest is another.",
                  edit=flip("hash", i, offset), found={i: HASH})
    v.add("sealed-hash", "The recorded digest of a sealed chunk is another. The seal opens, and restore asks no more.",
          seal=True, edit=flip("hash", 1, 0), found={1: HASH})
    v.add("reference-hash", "The digest of a reference is not that of the base's chunk.", disk=NEW, base="base.kstx",
          edit=flip("hash", 2, 0), found={2: BAD_HASH})

    v.add("reference-in-full", "A full image has a reference.", edit=reference(1), found={1: NO_BASE_IN_CHUNK})
    v.add("reference-in-full-sealed", "A sealed full image has a reference.", seal=True, edit=reference(0),
          found={0: NO_BASE_IN_CHUNK})
    v.add("stored-length-0", "The length of the last chunk is 0 in a full image, and its bytes are there.",
          edit=entry(2, storedLength=0), found={2: NO_BASE_IN_CHUNK})
    v.add("stored-length-0-thin", "The length of chunk 1 is 0 and its bytes stay: a reference with another digest than "
                                  "the base's chunk.", disk=NEW, base="base.kstx", edit=entry(1, storedLength=0),
          found={1: BAD_HASH})

    longer = {"found": {1: HASH}, "fetched": {1: OK}}
    for length in (CHUNK + 1, 2 * CHUNK):
        v.add(f"stored-length-{length}", f"Chunk 1 has {length} stored bytes in place of {CHUNK}. Fetched by itself, "
                                         "its beginning is what counts.", edit=resized(1, length), **longer)
    v.add("stored-length-longer-sealed", "A sealed chunk has one stored byte too many behind its ciphertext.",
          seal=True, edit=resized(1, CHUNK + 1), found={1: TAG}, fetched={1: OK})
    v.add("stored-length-longer-absent", "Chunk 1 claims one byte more than it has: the last chunk begins a byte late "
                                         "and is cut.", edit=entry(1, storedLength=CHUNK + 1),
          found={1: HASH, 2: CUT}, fetched={1: OK})
    for length in (1, CHUNK - 1):
        v.add(f"stored-length-{length}", f"Chunk 1 has {length} stored bytes in place of {CHUNK}.",
              edit=resized(1, length), found={1: HASH})
    v.add("stored-length-shorter-sealed", "A sealed chunk lacks its last stored byte.", seal=True,
          edit=resized(1, CHUNK - 1), found={1: TAG})
    v.add("stored-length-shorter-true-digest", "Chunk 1 is one byte short, and its digest is that of what is there.",
          edit=both(resized(1, CHUNK - 1), entry(1, hash=hashlib.sha256(OLD[CHUNK:2 * CHUNK - 1]).digest())),
          found={1: HASH})
    v.add("stored-length-shorter-left", "Chunk 1 claims one byte less than it has: the last chunk begins a byte early.",
          edit=entry(1, storedLength=CHUNK - 1), found={1: HASH, 2: HASH})
    v.add("last-stored-length-longer", "The last chunk claims a whole chunk's length.",
          edit=entry(2, storedLength=CHUNK), found={2: CUT})
    for i in EVERY:
        v.add(f"stored-length-largest-{i}", f"The length of chunk {i} is 2 to the power 32, less 1.",
              edit=entry(i, storedLength=2**32 - 1), found={i: CUT})
    v.add("stored-length-2-31", "The length of chunk 1 is 2 to the power 31.", edit=entry(1, storedLength=2**31),
          found={1: CUT})
    v.add("stored-length-largest-sealed", "The length of a sealed chunk is 2 to the power 32, less 1.", seal=True,
          edit=entry(1, storedLength=2**32 - 1), found={1: CUT})
    v.add("stored-lengths-largest", "Every length is 2 to the power 32, less 1.", found={0: CUT},
          edit=both(*(entry(i, storedLength=2**32 - 1) for i in EVERY)))
    for length in (CHUNK + 58, 2**32 - 1):
        v.add(f"thin-stored-length-{length}", "The data of a thin image end, by its table, where its trailer began.",
              disk=NEW, base="base.kstx", edit=entry(1, storedLength=length), opening=NO_TRAILER)
    v.add("thin-stored-length-513", "The data of a thin image reach, by its table, one byte into its trailer.",
          disk=NEW, base="base.kstx", edit=entry(1, storedLength=CHUNK + 1), opening=NO_TRAILER)

    for field, size in (("nonce", 12), ("tag", 16)):
        for offset in (0, size - 1):
            v.add(f"{field}-byte-{offset}", f"Byte {offset} of a sealed chunk's {field} is another.", seal=True,
                  edit=flip(field, 1, offset), found={1: TAG})
        v.add(f"{field}-zero", f"The {field} of a sealed chunk is zero.", seal=True,
              edit=entry(0, **{field: bytes(size)}), found={0: TAG})
        v.add(f"plain-with-{field}", f"A plain chunk has a {field}: nobody looks.",
              edit=entry(0, **{field: b"x" * size}))
        v.add(f"reference-with-{field}", f"A reference has a {field}: nobody looks.", disk=NEW, seal=True,
              base="sealed-base.kstx", edit=entry(0, **{field: b"x" * size}))

    v.add("offset-of-another-chunk", "Chunk 2 says that it belongs where chunk 0 lies, and restore puts it there.",
          edit=entry(2, diskOffset=0))
    v.add("offset-behind-the-disk", "Chunk 2 says that it belongs behind the end of the disk.",
          edit=entry(2, diskOffset=2**40))
    v.add("offset-across-the-end", "Chunk 1 says that it belongs where only half of it has room.",
          edit=entry(1, diskOffset=1024))
    v.add("offset-largest", "Chunk 2's place is 2 to the power 64, less 1. A seek there fails, nobody looks at it, and "
                            "the chunk goes where the one before it ended.", edit=entry(2, diskOffset=2**64 - 1))


def data_areas(v):
    for i in EVERY:
        for offset, where in ((0, "first"), (-1, "last")):
            v.add(f"data-{i}-{where}", f"One bit of chunk {i}'s {where} byte is another.", edit=flip_data(i, offset),
                  found={i: HASH})
            v.add(f"sealed-data-{i}-{where}", f"One bit of sealed chunk {i}'s {where} byte is another.", seal=True,
                  edit=flip_data(i, offset), found={i: TAG})
    v.add("data-every-chunk", "A bit of every chunk is another.", edit=both(*(flip_data(i, 9) for i in EVERY)),
          found={i: HASH for i in EVERY})
    v.add("data-thin", "A bit of the one chunk that a thin image stores is another.", disk=NEW, base="base.kstx",
          edit=flip_data(1, 0), found={1: HASH})
    v.add("data-swapped", "The data of chunks 0 and 1 have changed places.", edit=swapped_data,
          found={0: HASH, 1: HASH})
    v.add("sealed-data-swapped", "The ciphertexts of chunks 0 and 1 have changed places.", seal=True, edit=swapped_data,
          found={0: TAG, 1: TAG})
    for seal in (False, True):
        v.add("sealed-chunks-swapped" if seal else "chunks-swapped",
              "Chunks 0 and 1 have changed places together with their entries, but for where they belong: nothing "
              "binds a chunk to its place.", seal=seal, edit=swapped_chunks, plain=[CHUNKS[1], CHUNKS[0], CHUNKS[2]])
    v.add("changed-with-digest", "A plain chunk was changed together with its digest: nothing tells.",
          edit=changed_with_digest, plain=[CHUNKS[0], bytes(CHUNK), CHUNKS[2]])
    v.make("sealed-apart.kstx", password=SECRET)
    v.add("chunk-of-another-image", "A sealed chunk, with its entry, comes out of another image of the same disk under "
                                    "the same password, which has another key.", seal=True, found={1: TAG},
          edit=lambda record: from_another(record, v.written["sealed-apart.kstx"].record))


def trailers(v):
    def thin(name, says, edit=None, **more):
        v.add(name, says, **{"disk": NEW, "base": "base.kstx", "edit": edit, **more})

    for i in range(8):
        thin(f"trailer-magic-{i}", f"Byte {i} of the trailer's magic is another.", opening=BAD_TRAILER,
             edit=lambda record, i=i: setattr(record.trailer, "magic", flipped(record.trailer.magic, i)))
    for length in (0, 8, 10, 2**31, 2**32 - 48, 2**32 - 1):
        thin(f"trailer-name-length-{length}", f"The name has 9 bytes, its length says {length}.",
             trailer(nameLength=length), opening=BAD_TRAILER)
    for length in (0, 47, 58, 4096, 4097, 2**31, 2**32 - 1):
        thin(f"trailer-total-length-{length}", f"The trailer has 57 bytes and no byte before it, its last field says "
                                               f"{length}.", trailer(totalLength=length), opening=NO_TRAILER)
    for length in (48, 56):
        thin(f"trailer-total-length-{length}", f"The trailer has 57 bytes, its last field says {length}.",
             trailer(totalLength=length), opening=BAD_TRAILER)
    thin("trailer-total-length-58-after-gap", "The trailer's length is one too many, and there is a byte before it.",
         both(trailer(totalLength=58), lambda record: setattr(record, "gap", b"K")), opening=BAD_TRAILER)
    thin("trailer-over-longest", "4097 bytes of trailer: one more than is taken.", named(b"n" * 4049),
         opening=NO_TRAILER)
    # The system has no name of that length, and says so in its own way.
    thin("trailer-longest", "4096 bytes of trailer, which is the most. The name leads nowhere.", named(b"n" * 4048),
         opening=missing_base("n" * 4048, error=3))
    thin("trailer-empty-name", "The name is empty; eight bytes before the trailer make it long enough to be looked at.",
         both(named(b""), lambda record: setattr(record, "gap", bytes(8))), opening=BAD_TRAILER)

    for name, base in (("slash", b"folder/base.kstx"), ("backslash", b"folder\\base.kstx"), ("drive", b"C:base.kstx"),
                       ("drive-root", b"C:\\base.kstx"), ("root", b"/base.kstx"), ("parent-slash", b"../base.kstx"),
                       ("parent-backslash", b"..\\base.kstx"), ("here-slash", b"./base.kstx"),
                       ("server", b"\\\\server\\share\\base.kstx"), ("device", b"\\\\.\\PhysicalDrive0"),
                       ("slash-at-end", b"base.kstx/"), ("slash-alone", b"/"), ("colon-at-end", b"base.kstx:"),
                       ("stream", b"base.kstx:hidden"), ("colon-alone", b":"), ("slash-behind-zero", b"base.kstx\0/")):
        thin(f"base-name-{name}", f"The base's name is {ascii(os.fsdecode(base))}: it leads out of the folder, or may.",
             named(base), opening=OUTSIDE, folders=["folder"])
    for name, base in (("parent", ".."), ("here", "."), ("folder", "folder")):
        thin(f"base-name-{name}", f"The base's name is that of a folder, {base}.", named(base.encode()),
             opening=not_opened(base, 5), folders=["folder"])
    thin("base-name-itself", "A thin image that names itself.", named(b"base-name-itself.kstx"), opening=TOO_DEEP)
    thin("base-name-missing", "The base isn't there.", named(b"absent.kstx"), opening=missing_base("absent.kstx"))
    for name, base in (("control", b"base\n.kstx"), ("format", b"%s%n%d.kstx"), ("blank", b"  ")):
        thin(f"base-name-{name}", f"The base isn't there, and its name, {ascii(os.fsdecode(base))}, is printed as it "
                                  "stands.", named(base), opening=missing_base(os.fsdecode(base)))
    thin("base-name-bytes-missing", "The base isn't there, and its name is no text in any usual encoding.",
         named(b"\xff\x80.kstx"), opening=missing_base(os.fsdecode(b"\xff\x80.kstx")))
    for name, base in (("utf-8", "b\u00e4se.kstx".encode()), ("bytes", b"\xff\x80.kstx")):
        thin(f"base-name-{name}", "The base is there, under a name that isn't plain ASCII.", named(base),
             bases=[], places={os.fsdecode(base): "base.kstx"})
    thin("base-name-zero", "A zero byte ends the base's name early, and a base of the shorter name is there: text ends "
                           "at a zero byte where the system looks.", named(b"base.kstx\0.absent"))
    thin("base-name-zero-first", "The base's name begins with a zero byte: an empty path, which leads nowhere.",
         named(b"\0base.kstx"), opening=missing_base("", error=3))

    for i in (0, 16, 31):
        thin(f"pin-byte-{i}", f"Byte {i} of the pin is another.", flip_pin(i), opening=other_base("base.kstx"))
    thin("pin-zero", "The pin is zero.", trailer(basePin=bytes(32)), opening=other_base("base.kstx"))
    thin("pin-and-geometry", "The pin is wrong and the disk size differs: the pin is what is told.",
         both(flip_pin(0), header(diskSize=SIZE - 1)), opening=other_base("base.kstx"))


def bases(v):
    def on(name, says, base_edit=None, base_raw=None, edit=None, **more):
        """A thin image of NEW, sound but for its base, which changed after the thin image was made."""
        base = f"{name}-base.kstx"
        v.make(base, edit=None)
        pinned = v.written[base].image_id()
        v.make(base, edit=base_edit, raw=base_raw)
        options = {"disk": NEW, "base": base, **more}
        v.add(name, says, edit=both(trailer(basePin=pinned), edit or (lambda record: None)), **options)

    def replaced(name):
        return {"opening": other_base(f"{name}-base.kstx")}

    for name, edit in (("epoch", header(epoch=1)), ("sector-size", header(sectorSize=4096)),
                       ("hash", flip("hash", 1, 0)), ("last-tag", flip("tag", 2, 15)),
                       ("salt", header(salt=b"s" * 16))):
        name = f"base-changed-{name}"
        on(name, f"The base's {name[13:].replace('-', ' ')} is another than when the image was made against it.", edit,
           **replaced(name))
    on("base-data-referred", "A bit of the base's data is another, in a chunk that is referred to.", flip_data(2, 0),
       found={2: BAD_HASH})
    on("base-data-overridden", "A bit of the base's data is another, in a chunk that the thin image stores itself.",
       flip_data(1, 0))
    on("base-cut-referred", "The base ends one byte early, in a chunk that is referred to.",
       base_raw=lambda data: data[:-1], found={2: CUT_BELOW})
    on("base-without-data", "The base ends with its table.", base_raw=cut(TABLE_END), found={0: CUT_BELOW})
    on("base-empty", "The base has no byte.", base_raw=cut(0), opening=NO_HEADER)
    on("base-cut-table", "The base ends in its table.", base_raw=cut(TABLE_END - 1), opening=NO_TABLE)
    on("base-unfinished", "The base has no header and no table.", base_raw=lambda data: bytes(len(data)),
       opening=NOT_AN_IMAGE)
    on("base-claims-no-memory", "The base claims more chunks than any memory holds.", header(chunkCount=2**60),
       opening=ABNORMAL)

    v.make("stored-length-largest-base.kstx", edit=entry(2, storedLength=2**32 - 1))
    v.add("base-stored-length-largest", "The base claims 4 GiB, less a byte, for a chunk that is referred to.",
          disk=NEW, base="stored-length-largest-base.kstx", found={2: CUT_BELOW})

    for field, value in (("diskSize", SIZE - 1), ("diskSize", SIZE + 1), ("chunkSize", CHUNK - 1),
                         ("chunkSize", CHUNK + 1)):
        v.add(f"geometry-{field.lower()}-{value}", f"The {field} of a thin image is {value}, its base's is another.",
              disk=NEW, base="base.kstx", edit=header(**{field: value}), opening=OTHER_GEOMETRY)
    v.add("geometry-chunkcount-2", "A thin image has one chunk less than its base.", disk=NEW, base="base.kstx",
          edit=without_last, opening=OTHER_GEOMETRY)
    v.add("geometry-chunkcount-4", "A thin image has one chunk more than its base.", disk=NEW, base="base.kstx",
          edit=with_one_more, opening=OTHER_GEOMETRY)
    for field, value in (("sectorSize", 4096), ("epoch", 5), ("salt", b"s" * 16), ("kdfIterations", 9)):
        v.add(f"differs-{field.lower()}", f"The {field} of a thin image differs from its base's, as it may.", disk=NEW,
              base="base.kstx", edit=header(**{field: value}))

    v.make("full-with-reference.kstx", edit=reference(2))
    v.add("reference-into-full-reference", "A reference leads to a reference in a full image.", disk=NEW,
          base="full-with-reference.kstx", found={2: NO_BASE_IN_CHUNK})
    v.make("middle-bad-hash.kstx", disk=NEW, base="base.kstx", edit=flip("hash", 2, 0))
    v.add("reference-through-bad-digest", "A reference leads through one whose digest is wrong to a sound chunk.",
          disk=NEW, base="middle-bad-hash.kstx", bases=["base.kstx"], found={2: BAD_HASH})
    v.make("middle-bad-trailer.kstx", disk=NEW, base="base.kstx", edit=trailer(magic=b"KSTXDSK2"))
    v.add("trailer-below-malformed", "The base is thin, and its trailer is malformed.", disk=NEW,
          base="middle-bad-trailer.kstx", opening=BAD_TRAILER)
    v.make("middle-bad-pin.kstx", disk=NEW, base="base.kstx", edit=flip_pin(0))
    v.add("pins-of-two-wrong", "The pin is wrong here and in the base: the deeper one is told first.", disk=NEW,
          base="middle-bad-pin.kstx", bases=["base.kstx"], edit=flip_pin(0), opening=other_base("base.kstx"))
    v.make("middle-sealed.kstx", disk=NEW, password=SECRET, base="base.kstx")
    v.add("sealed-in-the-middle", "Nothing: plain on sealed on plain.", disk=NEW, password=RIGHT,
          base="middle-sealed.kstx", bases=["base.kstx"])
    v.make("middle-other-password.kstx", disk=NEW, password=b"another", base="base.kstx")
    v.add("other-password-in-the-middle", "The image in the middle of a chain has another password. Its chunk is 1.",
          disk=NEW, password=RIGHT, base="middle-other-password.kstx", bases=["base.kstx"], found={1: BAD_TAG})


def chains(v):
    for size in (2, 3):
        names = [f"loop-of-{size}"] + [f"loop-of-{size}-{i}" for i in range(1, size)]
        for i, name in enumerate(names[1:], 1):
            after = (names + names[:1])[i + 1]
            v.make(name + ".kstx", disk=NEW, base="base.kstx", edit=named(f"{after}.kstx".encode()))
        v.add(names[0], f"{size} thin images, each of which names the next, the last the first.", disk=NEW,
              base="base.kstx", edit=named(f"{names[1]}.kstx".encode()), bases=[f"{name}.kstx" for name in names[1:]],
              opening=TOO_DEEP)
    names = [f"chain-{i:02d}.kstx" for i in range(66)]
    for i, name in enumerate(names):
        v.make(name, disk=ONE, base=names[i - 1] if i else None)
    for images in (2, 64, 65):
        v.add(f"chain-of-{images}", f"Nothing: a chain of {images} images, of which the first holds the only chunk.",
              disk=ONE, use=names[images - 1], bases=names[:images - 1])
    v.add("chain-of-66", "A chain of 66 images: one more than is taken.", disk=ONE, use=names[65], bases=names[:65],
          opening=TOO_DEEP)


def capture_sized(v):
    """Images with the chunk size of a capture, so that capture --base gets further than that comparison."""
    def add(name, says, **more):
        v.add(f"large-{name}", says, deep=True, **more)

    options = {"chunkSize": CAPTURE_CHUNK, "epoch": EPOCH}
    v.make("large-base.kstx", **options)
    v.make("large-sealed-base.kstx", password=SECRET, **options)
    add("sound", "Nothing: one short chunk, and the epoch that the change tracker remembers.")
    add("sound-sealed", "Nothing, sealed.", seal=True)
    add("sound-thin", "Nothing: one reference.", base="large-base.kstx")
    add("sound-thin-stored", "Nothing: one stored chunk.", disk=NEW, base="large-base.kstx")
    add("sound-thin-sealed", "Nothing: one reference into a sealed base.", seal=True, base="large-sealed-base.kstx")
    add("epoch-0", "No epoch: a capture can't tell what changed since.", epoch=0)
    add("epoch-other", "Another epoch than the one that the change tracker remembers.", epoch=EPOCH - 1)
    add("epoch-largest", "The largest epoch.", epoch=2**56 - 1)
    add("sector-size", "Another sector size than the disk's.", sectorSize=4096)
    add("disk-size-one-less", "The disk size is one less: the stored chunk is longer than its chunk.",
        edit=header(diskSize=SIZE - 1), found={0: HASH})
    add("chunk-size-one-less", "The chunk size is one less than a capture's, which makes no difference to this disk.",
        edit=header(chunkSize=CAPTURE_CHUNK - 1))
    add("chunk-count-0", "A table without entries for a disk with a chunk.", edit=without_last)
    add("hash", "The recorded digest is another.", edit=flip("hash", 0, 0), found={0: HASH})
    add("hash-sealed", "The recorded digest of a sealed chunk is another.", seal=True, edit=flip("hash", 0, 0),
        found={0: HASH})
    add("data", "A bit of the data is another.", edit=flip_data(0, 7), found={0: HASH})
    add("data-sealed", "A bit of the ciphertext is another.", seal=True, edit=flip_data(0, 7), found={0: TAG})
    add("tag", "A bit of the tag is another.", seal=True, edit=flip("tag", 0, 0), found={0: TAG})
    add("nonce", "A bit of the nonce is another.", seal=True, edit=flip("nonce", 0, 0), found={0: TAG})
    add("salt", "A bit of the salt is another.", seal=True, found={0: TAG},
        edit=lambda record: setattr(record.header, "salt", flipped(record.header.salt, 0)))
    add("wrong-password", "A sound sealed image and a wrong password.", use="large-sound-sealed.kstx",
        password="wrong.password", found={0: TAG})
    add("reference-in-full", "A full image has a reference.", edit=reference(0), found={0: NO_BASE_IN_CHUNK})
    add("stored-length-longer", "One stored byte too many, which is there.", edit=resized(0, SIZE + 1), found={0: HASH},
        fetched={0: OK})
    add("stored-length-shorter", "One stored byte too few.", edit=resized(0, SIZE - 1), found={0: HASH})
    add("stored-length-largest", "The stored length is 2 to the power 32, less 1.",
        edit=entry(0, storedLength=2**32 - 1), found={0: CUT})
    add("cut", "The file ends one byte early.", raw=lambda data: data[:-1], found={0: CUT})
    add("cut-table", "The file ends in its table.", raw=cut(64 + 71), opening=NO_TABLE)
    add("cut-trailer", "A thin image ends in its trailer.", base="large-base.kstx", raw=lambda data: data[:-1],
        opening=NO_TRAILER)
    add("pin", "A bit of the pin is another.", base="large-base.kstx", edit=flip_pin(0),
        opening=other_base("large-base.kstx"))
    add("reference-hash", "The digest of a reference is not that of the base's chunk.", base="large-base.kstx",
        edit=flip("hash", 0, 0), found={0: BAD_HASH})
    v.make("large-damaged-base.kstx", edit=flip_data(0, 7), **options)
    add("base-data", "A bit of the base's data is another.", base="large-damaged-base.kstx", found={0: BAD_HASH})
    v.make("large-other-password-base.kstx", password=b"another", **options)
    add("base-with-another-password", "The base was sealed with another password.", password=RIGHT,
        base="large-other-password-base.kstx", found={0: BAD_TAG})
    add("offset", "The chunk says that it belongs a sector later. A capture asks the disk, not the table.",
        edit=entry(0, diskOffset=512))


def main():
    vectors = Vectors(sys.argv[1] if len(sys.argv) > 1 else HERE)
    for part in (sound_images, header_fields, keys_and_passwords, cut_files, table_entries, data_areas, trailers, bases,
                 chains, capture_sized):
        part(vectors)
    vectors.close()


if __name__ == "__main__":
    main()
