# Commands for gdb that show the state of velorin-util in a process or in a core file:
#
#   velorin pools         the pools of fixed-size elements, with what is free in them
#   velorin debug-record  the debug level and the connection filters in force
#
# gdb loads this file by itself with the library when it is installed; elsewhere `source` does.
# Nothing is called in the process and nothing is changed. What is read may be damaged: every walk
# is bounded, and what does not fit is said. Only the symbol table of the library is needed, as the
# layouts below are fixed, one for each width.

import struct

import gdb

PAGE = 4096
CHUNK = 64 * 1024
CHUNKS_KEPT = 2048


class Unavailable(Exception):
    """Something that the command needs is not there; the text tells the user what."""


class Memory:
    """The memory of the process, read in large pieces that are kept for the time of a command."""

    def __init__(self):
        self.word = gdb.lookup_type("long").sizeof  # as wide as a pointer on both targets
        self._chunks = {}

    def read(self, address, size):
        if address < 0 or address + size > 1 << (8 * self.word):
            raise gdb.MemoryError("Cannot access memory at address 0x%x" % address)
        start = address - address % CHUNK
        if address + size <= start + CHUNK:
            chunk = self._chunk(start)
            if chunk is not None:
                return chunk[address - start : address - start + size]
        return bytes(gdb.selected_inferior().read_memory(address, size))

    def _chunk(self, start):
        if start not in self._chunks:
            if len(self._chunks) >= CHUNKS_KEPT:
                self._chunks.clear()
            try:
                chunk = bytes(gdb.selected_inferior().read_memory(start, CHUNK))
            except gdb.MemoryError:
                chunk = None  # not all of it is mapped: read what is asked for alone
            self._chunks[start] = chunk
        return self._chunks[start]

    def fields(self, address, layout):
        """Reads little-endian fields: i and I are 32 bits, P is a pointer, x skips a byte."""
        layout = "<" + layout.replace("P", "I" if self.word == 4 else "Q")
        return struct.unpack(layout, self.read(address, struct.calcsize(layout)))

    def pointer(self, address):
        return self.fields(address, "P")[0]


def address_of(name):
    """The address of a variable of the library; it may be static, and its type unknown."""
    try:
        return int(gdb.parse_and_eval("(unsigned long)&" + name))
    except gdb.error:
        pass
    if not library_loaded():
        raise Unavailable("velorin-util is not loaded: start the program first")
    raise Unavailable(
        "velorin-util has no symbol %s: its symbol table is stripped; load it with symbol-file "
        "or add-symbol-file" % name
    )


def library_loaded():
    return any("libvelorin-util.so" in (o.filename or "") for o in gdb.objfiles())


def require_process():
    if gdb.selected_inferior().pid == 0:
        raise Unavailable("there is no process and no core file")


class Pool:
    """A pool as the register describes it, and what its own memory says."""

    HEADER = {4: "PiPi", 8: "Pi4xPi"}  # first element, element size, free list, mutex's own word
    HEADER_SIZE = {4: 36, 8: 64}
    DESCRIPTOR = {4: "PIiii", 8: "PIiii"}
    DESCRIPTOR_SIZE = {4: 20, 8: 24}

    def __init__(self, memory, descriptor):
        self.memory = memory
        fields = memory.fields(descriptor, self.DESCRIPTOR[memory.word])
        self.base, self.length, self.requested_size, self.requested, self.erase = fields
        self.size = max(self.requested_size, memory.word)
        self.first = self.base + self.HEADER_SIZE[memory.word]
        room = self.length - self.HEADER_SIZE[memory.word]
        # An element that would end exactly at the end of the pages is not made, unless it is the
        # only one.
        self.made = max((room - 1) // self.size, 1)
        self.remarks = []
        self.free = None  # unknown

    def inspect(self):
        if self.requested_size < 1 or self.length < self.HEADER_SIZE[self.memory.word] + self.size:
            self.made = 0
            self.remarks.append("the register's entry is damaged")
            return
        try:
            header = self.memory.fields(self.base, self.HEADER[self.memory.word])
        except gdb.MemoryError:
            self.remarks.append("the pool cannot be read")
            return
        first, size, head, mutex = header
        if not any(self.memory.read(self.base, self.HEADER_SIZE[self.memory.word])):
            self.remarks.append("wiped")
            return
        if first != self.first or size != self.size:
            self.remarks.append("the pool's header is damaged")
            return
        if mutex != 0:
            self.remarks.append("locked: a thread is at its list")
        self._walk(head)

    def _walk(self, element):
        """Counts the elements of the free list; each counts once, so that every list ends."""
        seen = bytearray((self.made + 7) // 8)
        free = 0
        before = "the head"
        while element != 0:
            index, rest = divmod(element - self.first, self.size)
            if rest != 0 or not 0 <= index < self.made:
                self._damaged(before, "leads to 0x%x, which is no element" % element, free)
                return
            if seen[index // 8] & 1 << index % 8:
                self._damaged(before, "leads back to element 0x%x: a circle" % element, free)
                return
            seen[index // 8] |= 1 << index % 8
            free += 1
            before = "element 0x%x" % element
            try:
                element = self.memory.pointer(element)
            except gdb.MemoryError:
                self._damaged(before, "cannot be read", free)
                return
        self.free = free

    def _damaged(self, where, what, free):
        self.remarks.append("free list damaged after %d: %s %s" % (free, where, what))

    def row(self, index):
        size = str(self.requested_size)
        if self.size != self.requested_size:
            size += "/%d" % self.size
        return (
            str(index),
            "0x%x" % self.base,
            str(self.length // PAGE),
            size,
            str(self.requested),
            str(self.made),
            "?" if self.free is None else str(self.free),
            "yes" if self.erase else "no",
            "; ".join(self.remarks),
        )


class Register:
    """The page that lists the pools of the process."""

    HEADER = {4: "iP", 8: "i4xP"}
    HEADER_SIZE = {4: 8, 8: 16}

    def __init__(self, memory):
        self.memory = memory
        self.page = memory.pointer(address_of("gcSdMgmtROPage"))
        self.count = 0
        self.remark = None
        if self.page == 0:
            return
        header = self.HEADER_SIZE[memory.word]
        limit = (PAGE - header) // Pool.DESCRIPTOR_SIZE[memory.word] - 1
        self.count = memory.fields(self.page, self.HEADER[memory.word])[0]
        if not 0 <= self.count <= limit:
            self.remark = "the register is damaged: it counts %d pools, at most %d fit" % (
                self.count,
                limit,
            )
            self.count = min(max(self.count, 0), limit)

    def pools(self):
        start = self.page + Register.HEADER_SIZE[self.memory.word]
        step = Pool.DESCRIPTOR_SIZE[self.memory.word]
        for index in range(self.count):
            pool = Pool(self.memory, start + index * step)
            # What a damaged count takes for pools are the zeros behind the last one.
            if self.remark is not None and pool.base == 0:
                return
            pool.inspect()
            yield index, pool


def print_table(rows):
    widths = [max(len(row[i]) for row in rows) for i in range(len(rows[0]) - 1)]
    for row in rows:
        cells = [cell.rjust(width) for cell, width in zip(row, widths)]
        gdb.write(("  ".join(cells) + "  " + row[-1]).rstrip() + "\n")


class VelorinCommand(gdb.Command):
    """A command that reports what is missing or unreadable as gdb's own do."""

    def invoke(self, argument, from_tty):
        try:
            if argument.strip():
                raise Unavailable("this command takes no arguments")
            require_process()
            self.show(Memory())
        except Unavailable as e:
            raise gdb.GdbError(str(e))
        except gdb.error as e:  # a gdb.MemoryError too
            raise gdb.GdbError("velorin-util's data cannot be read: %s" % e)


class Prefix(gdb.Command):
    """Show the state of the library velorin-util in a process or a core file."""

    def __init__(self):
        super().__init__("velorin", gdb.COMMAND_DATA, prefix=True)


class Pools(VelorinCommand):
    """List the pools of fixed-size elements.

Columns: index of the pool, address, pages without the guard page, element size (as requested, then
the real one when it differs), elements requested, made and free, whether the pool is wiped before a
core is dumped, and what is wrong with it. A free list is followed from element to element and may be
damaged: then "?" stands for the count, with the place where the list leads astray."""

    def __init__(self):
        super().__init__("velorin pools", gdb.COMMAND_DATA)

    def show(self, memory):
        register = Register(memory)
        if register.remark is not None:
            gdb.write(register.remark + "\n")
        rows = [pool.row(index) for index, pool in register.pools()]
        if not rows:
            gdb.write("no pools\n")
            return
        titles = ("pool", "address", "pages", "size", "requested", "made", "free", "erase", "")
        print_table([titles] + rows)


class DebugRecord(VelorinCommand):
    """Show the debug record in force: the level and the client and server filters.

Says whether the record is the one that processes share or the process's own."""

    def __init__(self):
        super().__init__("velorin debug-record", gdb.COMMAND_DATA)

    MEANINGS = (
        "errors and critical lines",
        "errors also to syslog",
        "trace lines too",
        "detail lines and packet dumps too",
        "every line also to the special log",
    )

    def show(self, memory):
        record = memory.pointer(address_of("ad_debug_cfg_p"))
        if record == 0:
            gdb.write("no debug record: the process has neither initialised nor logged yet\n")
            return
        own = record == address_of("ad_debug_cfg_no_share_mem")
        gdb.write("record  0x%x, %s\n" % (record, "the process's own" if own else "shared"))
        level = memory.fields(record, "i")[0]
        known = 0 <= level < len(self.MEANINGS)
        gdb.write("level   %d: %s\n" % (level, self.MEANINGS[level] if known else "unknown"))
        gdb.write("client  %s\n" % self.filter(memory.read(record + 4, 4)))
        gdb.write("server  %s\n" % self.filter(memory.read(record + 8, 4)))

    @staticmethod
    def filter(address):
        return ".".join(str(byte) for byte in address) if any(address) else "all"


Prefix()
Pools()
DebugRecord()
