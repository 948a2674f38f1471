"""What can be wrong with an image: functions that change its record, or its finished bytes, and such as give one."""
import hashlib

from index import CHUNK
from kestrix_image import Entry


def header(**fields):
    return lambda record: [setattr(record.header, name, value) for name, value in fields.items()]


def entry(i, **fields):
    return lambda record: [setattr(record.table[i], name, value) for name, value in fields.items()]


def trailer(**fields):
    return lambda record: [setattr(record.trailer, name, value) for name, value in fields.items()]


def both(*edits):
    return lambda record: [edit(record) for edit in edits]


def flip(field, i, offset):
    """One bit of a byte field of an entry."""
    def edit(record):
        setattr(record.table[i], field, flipped(getattr(record.table[i], field), offset))
    return edit


def flip_data(i, offset):
    def edit(record):
        record.data[i] = flipped(record.data[i], offset)
    return edit


def flip_pin(offset):
    def edit(record):
        record.trailer.basePin = flipped(record.trailer.basePin, offset)
    return edit


def flipped(data, offset):
    offset %= len(data)
    return data[:offset] + bytes([data[offset] ^ 1]) + data[offset + 1:]


def cut(length):
    return lambda data: data[:length]


def named(name, **fields):
    """A base's name, with lengths that fit."""
    return trailer(baseName=name, nameLength=len(name), totalLength=len(name) + 48, **fields)


def without_last(record):
    record.header.chunkCount -= 1
    record.table.pop()
    record.data.pop()


def with_one_more(record):
    record.header.chunkCount += 1
    record.data.append(bytes(CHUNK))
    record.table.append(Entry(3 * CHUNK, CHUNK, hashlib.sha256(bytes(CHUNK)).digest(), bytes(12), bytes(16)))


def reference(i):
    def edit(record):
        record.table[i].storedLength = 0
        record.data[i] = b""
    return edit


def resized(i, length):
    """A stored chunk of another length, with as many bytes."""
    def edit(record):
        record.table[i].storedLength = length
        record.data[i] = (record.data[i] + bytes(length))[:length]
    return edit


def swapped_data(record):
    record.data[0], record.data[1] = record.data[1], record.data[0]


def swapped_chunks(record):
    swapped_data(record)
    record.table[0], record.table[1] = record.table[1], record.table[0]
    record.table[0].diskOffset, record.table[1].diskOffset = 0, CHUNK


def changed_with_digest(record):
    record.data[1] = bytes(CHUNK)
    record.table[1].hash = hashlib.sha256(bytes(CHUNK)).digest()


def from_another(record, other):
    record.table[1], record.data[1] = other.table[1], other.data[1]
