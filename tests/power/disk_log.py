"""What a disk holds that loses its power.

A disk is a base, which is never changed, and the blocks that were written since. A log has each write and each flush
in their order. A disk whose power goes keeps all that was written before its last flush. Of what was written since, its
own cache may have let any part reach the medium.
"""

BLOCK = 4096  # bytes that a disk writes whole or not at all, where they are aligned
FLUSH = None

# What of the writes since the last flush stays: all, none, each write or each block by itself.
MODES = ("all", "none", "writes", "blocks")


class Disk:
    """A disk of the size of its base, with an overlay of written blocks."""

    def __init__(self, base, blocks=None):
        self.base = base
        self.blocks = dict(blocks or {})

    def __len__(self):
        return len(self.base)

    def copy(self):
        return Disk(self.base, self.blocks)

    def read(self, offset, length):
        parts = []
        end = offset + length
        while offset < end:
            number, start = divmod(offset, BLOCK)
            stop = min(BLOCK, start + end - offset)
            block = self.blocks.get(number)
            if block is None:
                parts.append(self.base[offset:offset + stop - start])
            else:
                parts.append(block[start:stop])
            offset += stop - start
        return b"".join(parts)

    def write(self, offset, data):
        for place, piece in pieces(offset, data):
            number, start = divmod(place, BLOCK)
            if len(piece) == BLOCK:
                self.blocks[number] = bytes(piece)
            else:
                block = bytearray(self.read(number * BLOCK, min(BLOCK, len(self.base) - number * BLOCK)))
                block[start:start + len(piece)] = piece
                self.blocks[number] = bytes(block)


def pieces(offset, data):
    """Yields a write as parts of one block each: the offset, and the bytes."""
    start = 0
    while start < len(data):
        size = min(len(data) - start, BLOCK - (offset + start) % BLOCK)
        yield offset + start, data[start:start + size]
        start += size


class DiskLog:
    """What was done to a disk: an entry is FLUSH, or the offset and the bytes of a write."""

    def __init__(self):
        self.entries = []

    def __len__(self):
        return len(self.entries)

    def write(self, offset, data):
        self.entries.append((offset, data))

    def flush(self):
        self.entries.append(FLUSH)


def cut(disk, log, position, mode, random):
    """Returns what a disk holds that was as `disk` before the log began, and loses its power after `position` entries."""
    entries = log.entries[:position]
    flushed = max((i + 1 for i, entry in enumerate(entries) if entry is FLUSH), default=0)
    left = disk.copy()
    # A cache is mostly almost empty or almost full, so that a half of its content alone would be one case of many.
    kept = random.choice((0.05, 0.5, 0.95))
    for i, entry in enumerate(entries):
        if entry is FLUSH:
            continue
        if i < flushed or mode == "all":
            left.write(*entry)
        elif mode == "writes":
            if random.random() < kept:
                left.write(*entry)
        elif mode == "blocks":
            for place, piece in pieces(*entry):
                if random.random() < kept:
                    left.write(place, piece)
    return left
