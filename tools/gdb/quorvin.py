# gdb commands that show a quorvin firmware from the inside.
#
#   quorvin threads    every thread: state, priority, what it waits on
#   quorvin objects    mutexes, pools, event-flag groups, queues, semaphores, timers
#   quorvin requests   the dispatcher's request list and the sleep agent's list
#
# Installed where gdb auto-loads it for libquorvin.so.9; `source quorvin.py`
# loads it by hand. It only reads memory (no function of the process is
# called), so it works on a live process and on a core file alike, also of an
# arm64 firmware read with gdb-multiarch. It needs no symbols of the library:
# the library keeps a table of its tables in the allocated section
# "quorvin_debug", which strip leaves in place; the records' layouts are those
# of the public headers (64-bit, little-endian).
import os
import re
import struct

import gdb

STATES = {0: "ready", 2: "terminated", 3: "suspended", 4: "sleeping", 5: "queue wait",
          6: "semaphore wait", 7: "event-flags wait", 8: "block-pool wait",
          9: "byte-pool wait", 13: "mutex wait"}
CLASSES = {0x00: "system", 0x10: "block pool", 0x20: "byte pool", 0x30: "event flags",
           0x50: "mutex", 0x60: "queue", 0x70: "semaphore", 0x80: "thread"}
OPERATIONS = {0x01: "time-out", 0x11: "allocate", 0x13: "delete", 0x15: "prioritize",
              0x16: "release", 0x21: "allocate", 0x23: "delete", 0x25: "prioritize",
              0x26: "release", 0x32: "delete", 0x33: "get", 0x35: "set", 0x52: "delete",
              0x53: "get", 0x55: "prioritize", 0x56: "put", 0x62: "delete", 0x63: "flush",
              0x64: "front send", 0x68: "send", 0x66: "prioritize", 0x67: "receive",
              0x72: "delete", 0x73: "get", 0x75: "prioritize", 0x76: "put", 0x88: "sleep",
              0x89: "suspend", 0x8A: "terminate", 0x8C: "wait abort"}
GET_OPTIONS = {0: "OR", 1: "OR_CLEAR", 2: "AND", 3: "AND_CLEAR"}
NAMED_CLASSES = (0x10, 0x20, 0x30, 0x50)  # control blocks that begin with a name
FOREVER = 0xFFFFFFFF

# Offsets in the public records (include/quorvin/*.h).
TCB_PRIORITY, TCB_THRESHOLD, TCB_STATE, TCB_SELF, TCB_REQUEST = 52, 54, 56, 64, 80
REQ_THREAD, REQ_NEXT, REQ_SLEEP_NEXT, REQ_OBJECT = 8, 16, 24, 32
REQ_IN_SLEEP, REQ_WAIT, REQ_VALUE, REQ_OPTION, REQ_SERVICE, REQ_NODE = 48, 64, 72, 80, 88, 96
NODE_NEXT = 8


class Memory:
    """Reads the inferior's memory."""

    def __init__(self):
        self.inferior = gdb.selected_inferior()

    def read(self, address, size):
        return bytes(self.inferior.read_memory(address, size))

    def unpack(self, fmt, address):
        return struct.unpack("<" + fmt, self.read(address, struct.calcsize("<" + fmt)))[0]

    def ptr(self, address):
        return self.unpack("Q", address)

    def u16(self, address):
        return self.unpack("H", address)

    def u32(self, address):
        return self.unpack("I", address)

    def i32(self, address):
        return self.unpack("i", address)

    def name(self, address):
        return self.read(address, 20).split(b"\0", 1)[0].decode("utf-8", "replace")


def find_table():
    """Address and size of the library's "quorvin_debug" section."""
    text = gdb.execute("info files", to_string=True)
    for line in text.splitlines():
        match = re.match(r"\s*(0x[0-9a-f]+) - (0x[0-9a-f]+) is quorvin_debug\b", line)
        if match:
            start, end = int(match.group(1), 16), int(match.group(2), 16)
            return start, end - start
    found = find_table_by_link_map()
    if found:
        return found
    raise gdb.GdbError("quorvin: libquorvin is not loaded (no quorvin_debug section); "
                       "for a core file, check `info sharedlibrary`, `set sysroot` and `set solib-search-path`")


class ElfFile:
    """The headers of an ELF file on disk (64-bit, little-endian)."""

    def __init__(self, path):
        with open(path, "rb") as f:
            self.data = f.read()
        (self.phoff, self.shoff) = struct.unpack_from("<QQ", self.data, 32)
        (self.phnum, _, self.shnum, self.shstrndx) = struct.unpack_from("<HHHH", self.data, 56)

    def segment(self, kind):
        for i in range(self.phnum):
            p_type, _, _, vaddr = struct.unpack_from("<IIQQ", self.data, self.phoff + 56 * i)
            if p_type == kind:
                return vaddr
        return None

    def section(self, wanted):
        names = struct.unpack_from("<Q", self.data, self.shoff + 64 * self.shstrndx + 24)[0]
        for i in range(self.shnum):
            name, _, _, addr, _, size = struct.unpack_from("<IIQQQQ", self.data, self.shoff + 64 * i)
            if self.data[names + name:].split(b"\0", 1)[0] == wanted:
                return addr, size
        return None


def find_table_by_link_map():
    """The table found through the dynamic linker's list of loaded objects.

gdb cannot list the libraries of a core file that lacks the executable's
read-only pages (qemu-user writes such cores); the list is in the core all
the same: auxiliary vector, the executable's DT_DEBUG, then the link map."""
    try:
        auxv = gdb.execute("info auxv", to_string=True)
        phdr = int(re.search(r"AT_PHDR\s.*?(0x[0-9a-f]+)", auxv).group(1), 16)
        exe = ElfFile(gdb.current_progspace().filename)
        base = phdr - (exe.segment(6) if exe.segment(6) is not None else exe.phoff)
        mem, dynamic = Memory(), base + exe.segment(2)
        while True:
            tag, value = mem.unpack("q", dynamic), mem.ptr(dynamic + 8)
            if tag in (0, 21):
                break
            dynamic += 16
        link = mem.ptr(value + 8) if tag == 21 else 0
        while link:
            name = gdb.selected_inferior().read_memory(mem.ptr(link + 8), 256).tobytes().split(b"\0")[0].decode()
            if "libquorvin" in name:
                dirs = [gdb.parameter("sysroot") + os.path.dirname(name)]
                dirs += (gdb.parameter("solib-search-path") or "").split(":")
                for path in [name] + [os.path.join(d, os.path.basename(name)) for d in dirs if d]:
                    if os.path.isfile(path) and ElfFile(path).section(b"quorvin_debug"):
                        addr, size = ElfFile(path).section(b"quorvin_debug")
                        return mem.ptr(link) + addr, size
            link = mem.ptr(link + 24)
    except (gdb.error, AttributeError, OSError, TypeError, struct.error):
        return None
    return None


class Firmware:
    """A snapshot of the system's tables, read from memory."""

    def __init__(self):
        self.mem = Memory()
        start, size = find_table()
        self.entries, data, offset = {}, self.mem.read(start, size), 0
        while offset + 24 <= size:  # entries, with zero padding where the compiler aligned one
            tag, address, number = struct.unpack_from("<8sQQ", data, offset)
            if not tag.strip(b"\0"):
                offset += 8
                continue
            self.entries[tag.split(b"\0", 1)[0].decode("ascii", "replace")] = (address, number)
            offset += 24
        if self.entries.get("quorvin", (0, 0))[1] != 1 or self.number("tcbsize") != 200:
            raise gdb.GdbError("quorvin: this library's debug table has another format")
        self.threads = self.read_threads()

    def address(self, tag):
        return self.entries[tag][0]

    def number(self, tag):
        return self.entries[tag][1]

    def table(self, tag):
        """The used slots of a table whose count is the word tagged tag + 'n'."""
        count = self.mem.i32(self.address(tag + ("cnt" if tag == "pool" else "n")))
        count = max(0, min(count, self.number(tag)))
        return [self.mem.ptr(self.address(tag) + 8 * i) for i in range(count)]

    def read_threads(self):
        threads = {}
        for tcb in self.table("pool"):
            if tcb:
                handle = self.mem.ptr(tcb + TCB_SELF)
                threads[handle] = tcb
        return threads

    def thread_name(self, handle):
        if not handle:
            return "-"
        tcb = self.threads.get(handle)
        return '"%s"' % self.mem.name(tcb) if tcb else "0x%x" % handle

    def object_of(self, request):
        """The class name and object label a request names."""
        service = self.mem.u16(request + REQ_SERVICE)
        handle = self.mem.ptr(request + REQ_OBJECT)
        cls = service & 0xFFF0
        return cls, self.label(cls, handle)

    def label(self, cls, handle):
        kind = CLASSES.get(cls, "class 0x%x" % cls)
        if not handle:
            return kind
        block = self.mem.ptr(handle)
        if cls in NAMED_CLASSES and block:
            return '%s "%s"' % (kind, self.mem.name(block))
        return "%s 0x%x" % (kind, handle)

    def ticks_left(self, request):
        wait = self.mem.u32(request + REQ_WAIT)
        if self.mem.unpack("Q", request + REQ_IN_SLEEP):
            return "%d ticks left" % wait
        return "forever" if wait == FOREVER else "no time-out"

    def waiters(self, ctrl):
        """Requests on a suspend list, first to be released first."""
        count = abs(self.mem.i32(ctrl + 16))
        node, found = self.mem.ptr(ctrl + 8), []
        while node and len(found) < count:
            found.append(node - REQ_NODE)
            node = self.mem.ptr(node + NODE_NEXT)
        return found

    def waiter_line(self, request):
        handle = self.mem.ptr(request + REQ_THREAD)
        return "%s (%s)" % (self.thread_name(handle), self.ticks_left(request))

    def direct_group_waits(self):
        """Armed waits of the event-flag groups served in the calling thread."""
        waits = {}
        for handle in self.table("group"):
            group = self.mem.ptr(handle) if handle else 0
            record = self.mem.ptr(group + self.number("grwait")) if group else 0
            while record:
                flags = self.mem.u32(record + 16)
                if flags:
                    waits.setdefault(handle, []).append(
                        (self.mem.ptr(record + 8), flags, self.mem.u16(record + 20)))
                record = self.mem.ptr(record + 0)
        return waits

    def kernel_tid(self, tcb):
        return self.mem.i32(tcb + self.number("rectid"))


def services_in_progress():
    """For each kernel thread id, the library service its stack is in, if any.

Semaphores, event flags and message queues are served in the calling thread,
which then sleeps in the C library; its stack says which service it is in."""
    found, current = {}, gdb.selected_thread()
    for thread in gdb.selected_inferior().threads():
        try:
            thread.switch()
            frame, depth = gdb.newest_frame(), 0
            while frame is not None and depth < 16:
                name = frame.name() or ""
                if name.startswith(("_lx_", "LP_", "Queue")):
                    found[thread.ptid[1]] = name
                    break
                frame, depth = frame.older(), depth + 1
        except gdb.error:
            continue
    if current is not None:
        current.switch()
    return found


class QuorvinPrefix(gdb.Command):
    """Show the state of a quorvin firmware (live process or core file).

quorvin threads   -- every thread, its state and what it waits on
quorvin objects   -- mutexes, pools, event-flag groups, queues, semaphores, timers
quorvin requests  -- the request list and the sleep agent's list"""

    def __init__(self):
        super().__init__("quorvin", gdb.COMMAND_STATUS, prefix=True)


class ThreadsCommand(gdb.Command):
    """Show every thread of the firmware.

For each thread of the thread pool: its handle, name, kernel thread id, state,
priority and preemption threshold, and what it waits on: the object (class and
name, from the suspend list its request hangs on or from its service code),
with the ticks left of a finite wait. A ready thread blocked in an event-flag
group served in the calling thread shows the flags it asks for; one blocked
in another service served in the calling thread (semaphores, message queues,
sleeps) shows the service its stack is in. Then the
dispatcher "CMRH", the timer thread "TimerISR" and the tick thread "SoftTimer"."""

    def __init__(self):
        super().__init__("quorvin threads", gdb.COMMAND_STATUS)

    def invoke(self, argument, from_tty):
        fw = Firmware()
        mem = fw.mem
        direct = {}
        for group, waits in fw.direct_group_waits().items():
            for thread, flags, option in waits:
                direct[thread] = "event flags %s wants 0x%x %s" % (
                    fw.label(0x30, group).split(" ", 2)[-1], flags, GET_OPTIONS.get(option, option))
        calls = services_in_progress()
        print("%-18s %-20s %7s %-16s %4s %4s  %s" % (
            "handle", "name", "tid", "state", "prio", "thr", "waits on"))
        for handle, tcb in fw.threads.items():
            state = mem.u16(tcb + TCB_STATE)
            request = tcb + TCB_REQUEST
            service = mem.u16(request + REQ_SERVICE)
            waits = ""
            if state in (5, 6, 7, 8, 9, 13) and service:
                waits = "%s %s, %s" % (fw.object_of(request)[1], OPERATIONS.get(service, "0x%x" % service),
                                       fw.ticks_left(request))
            elif state == 4:
                waits = "sleep, %s" % fw.ticks_left(request)
            elif handle in direct:
                waits = direct[handle]
            elif service:
                waits = "%s %s, queued" % (fw.object_of(request)[1], OPERATIONS.get(service, "0x%x" % service))
            elif fw.kernel_tid(tcb) in calls:
                waits = "in %s" % calls[fw.kernel_tid(tcb)]
            print("0x%-16x %-20s %7d %-16s %4d %4d  %s" % (
                handle, '"%s"' % mem.name(tcb), fw.kernel_tid(tcb), STATES.get(state, str(state)),
                mem.u16(tcb + TCB_PRIORITY), mem.u16(tcb + TCB_THRESHOLD), waits))
        timer = mem.ptr(fw.address("timerth"))
        scheduler = mem.ptr(fw.address("sched"))
        print("dispatcher \"CMRH\"       tid %d" % mem.i32(fw.address("cmtid")))
        if timer in fw.threads:
            print("timer thread \"TimerISR\" tid %d, handle 0x%x" % (fw.kernel_tid(fw.threads[timer]), timer))
        if scheduler:
            print("tick thread \"SoftTimer\" tid %d (the \"Scheduler\" entry)" % fw.kernel_tid(scheduler))


class ObjectsCommand(gdb.Command):
    """Show every object the library knows of.

Mutexes: owner and waiters in hand-over order. Block and byte pools: total,
available and the largest waiting request. Event-flag groups: flags and
waiters with what they ask for. Queues and semaphores of the dispatcher that
threads wait on: depth or count and waiters; message queues: descriptor and
message size. Application timers: remaining and reschedule ticks, active or
not. A waiter shows its thread and the ticks left of a finite wait."""

    def __init__(self):
        super().__init__("quorvin objects", gdb.COMMAND_STATUS)

    def invoke(self, argument, from_tty):
        fw = Firmware()
        mem = fw.mem
        for handle in fw.table("mutex"):
            mutex = mem.ptr(handle) if handle else 0
            if not mutex:
                continue
            print('mutex "%s" (0x%x): %s, owner %s%s' % (
                mem.name(mutex), handle, "free" if mem.u32(mutex + 60) else "owned",
                fw.thread_name(mem.ptr(mutex + 24)), ", inherit" if mem.u32(mutex + 56) else ""))
            self.print_waiters(fw, mutex + 32)
        for handle in fw.table("blockp"):
            pool = mem.ptr(handle) if handle else 0
            if pool:
                waiters = fw.waiters(pool + 40)
                print('block pool "%s" (0x%x): %d of %d blocks of %d bytes available%s' % (
                    mem.name(pool), handle, mem.u32(pool + 68), mem.u32(pool + 64), mem.u32(pool + 32),
                    ", largest request 1 block" if waiters else ""))
                self.print_waiters(fw, pool + 40)
        for handle in fw.table("bytep"):
            pool = mem.ptr(handle) if handle else 0
            if pool:
                waiters = fw.waiters(pool + 40)
                largest = max([mem.unpack("Q", r + REQ_VALUE) for r in waiters] or [0])
                print('byte pool "%s" (0x%x): %d of %d bytes available%s' % (
                    mem.name(pool), handle, mem.u32(pool + 36), mem.u32(pool + 32),
                    ", largest request %d bytes" % largest if waiters else ""))
                self.print_waiters(fw, pool + 40, lambda r: "%d bytes" % mem.unpack("Q", r + REQ_VALUE))
        direct = fw.direct_group_waits()
        for handle in fw.table("group"):
            group = mem.ptr(handle) if handle else 0
            if not group:
                continue
            print('event flags "%s" (0x%x): flags 0x%08x' % (mem.name(group), handle, mem.u32(group + 20)))
            for thread, flags, option in direct.get(handle, []):
                print("    waiter %s wants 0x%x %s" % (fw.thread_name(thread), flags,
                                                       GET_OPTIONS.get(option, option)))
            self.print_waiters(fw, group + 24, lambda r: "wants 0x%x %s" % (
                mem.unpack("Q", r + REQ_VALUE), GET_OPTIONS.get(mem.unpack("Q", r + REQ_OPTION), "?")))
        seen = set()
        for tcb in fw.threads.values():
            request = tcb + TCB_REQUEST
            cls = mem.u16(request + REQ_SERVICE) & 0xFFF0
            handle = mem.ptr(request + REQ_OBJECT)
            block = mem.ptr(handle) if handle and cls in (0x60, 0x70) else 0
            if not block or handle in seen or mem.u16(tcb + TCB_STATE) not in (5, 6):
                continue
            seen.add(handle)
            if cls == 0x60:
                capacity, free = mem.u32(block + 32), mem.u32(block + 36)
                print("queue 0x%x: %d of %d messages%s" % (handle, capacity - free, capacity,
                                                           ", full" if not free else ""))
                self.print_waiters(fw, block + 8, lambda r: "send" if mem.i32(block + 24) > 0 else "receive")
            else:
                print("semaphore 0x%x: count %d of %d" % (handle, mem.u32(block + 52), mem.u32(block + 48)))
                self.print_waiters(fw, block + 24)
        record = mem.ptr(fw.address("mqlist"))
        while record:
            print("message queue (descriptor %d): %d-byte messages; depth kept by the kernel" % (
                mem.i32(record), mem.u32(record + fw.number("mqbytes"))))
            record = mem.ptr(record + fw.number("mqlist"))
        for timer in fw.table("timers"):
            if timer:
                print('timer "%s": %s, %d ticks left, reschedule %d' % (
                    mem.name(timer), "active" if mem.u16(timer + 44) else "inactive",
                    mem.u32(timer + 48), mem.u32(timer + 56)))

    @staticmethod
    def print_waiters(fw, ctrl, what=None):
        for position, request in enumerate(fw.waiters(ctrl), 1):
            extra = ", " + what(request) if what else ""
            print("    waiter %d: %s%s" % (position, fw.waiter_line(request), extra))


class RequestsCommand(gdb.Command):
    """Show the dispatcher's request list and the sleep agent's list.

The request list holds the requests queued for the dispatcher, first to be
served first: thread, service and object. The sleep agent's list holds every
wait with a time-out, in registration order, with the ticks left on each."""

    def __init__(self):
        super().__init__("quorvin requests", gdb.COMMAND_STATUS)

    def invoke(self, argument, from_tty):
        fw = Firmware()
        for title, tag, link in (("request list", "reqtop", REQ_NEXT), ("sleep list", "sleep", REQ_SLEEP_NEXT)):
            request, count = fw.mem.ptr(fw.address(tag)), 0
            print("%s:" % title)
            while request and count < 64:
                service = fw.mem.u16(request + REQ_SERVICE)
                print("    0x%x: %s, %s %s, %s" % (
                    request, fw.thread_name(fw.mem.ptr(request + REQ_THREAD)), fw.object_of(request)[1],
                    OPERATIONS.get(service, "0x%x" % service), fw.ticks_left(request)))
                request, count = fw.mem.ptr(request + link), count + 1
            if not count:
                print("    (empty)")


QuorvinPrefix()
ThreadsCommand()
ObjectsCommand()
RequestsCommand()
