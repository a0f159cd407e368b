# SPDX-License-Identifier: Apache-2.0
"""gdb extension of libutils: readable lists, queues, timers, strings and hash tables, and commands that
print event logs, the log cache and the armed timers of a process or of its core file.

gdb loads it by itself together with the library: from its own data directory, or from beside the library
when the user trusts that place (add-auto-load-safe-path); otherwise: source libutils-gdb.py. It reads memory only, so it works on core files of either byte order.
`help utils` lists the commands. They need the debug information of the library.
"""
import re
import time

import gdb
import gdb.printing

MAGIC_HEAD, MAGIC_TAIL, ARMED, PERIODIC = 0x454D4954, 0x656D6974, 2, 1
EVLOG_MAGIC = 0xAA55AA55
TIMER_MESSAGE_TYPE, TIMER_MESSAGE_LENGTH = 5, 56
MOST_NODES = 100000  # of a chain that may be damaged
MOST_ENTRIES = 5000  # of an event log
UNREADABLE = ("a log cannot be read: its trace section is neither in the core file nor on this machine; "
              "print a copy of the section with utils evlog --file")


# --- reading ---------------------------------------------------------------------------------------

def text_of(value, size):
    """Up to `size` characters at an address, ended by the first NUL."""
    raw = bytes(gdb.selected_inferior().read_memory(int(value), size)) if size > 0 else b""
    return raw.split(b"\0")[0].decode("utf-8", "backslashreplace")


def field_text(array):
    """The text of a character array, which has no terminator when it is full."""
    return text_of(int(array.address), array.type.sizeof)


def quoted(text):
    return '"' + text.replace("\\", "\\\\").replace('"', '\\"').replace("\n", "\\n").replace("\t", "\\t") + '"'


def walk(node, link, most):
    """The nodes of a chain. Ends behind a damaged link with None, and never runs in circles."""
    seen = set()
    while int(node) != 0:
        if int(node) in seen or len(seen) > most:
            yield None
            return
        seen.add(int(node))
        try:
            following = node.dereference()[link]
            following.fetch_lazy()
        except gdb.MemoryError:
            yield None
            return
        yield node
        node = following


def shape(value_type):
    return [field.name for field in value_type.fields()]


def static(name, source):
    """A variable of the library's own, by the source file that has it."""
    for scope in ("utils::(anonymous namespace)::", ""):
        for symbol in gdb.lookup_static_symbols(scope + name):
            if symbol.symtab.filename.endswith(source):
                return symbol.value()
    raise gdb.GdbError(f"utils: {name} of {source} is not known: the debug information of libutils is missing")


def typed(name):
    try:
        return gdb.lookup_type(name)
    except gdb.error:
        raise gdb.GdbError(f"utils: the type {name} is not known: no debug information") from None


# --- printers --------------------------------------------------------------------------------------

class ListPrinter:
    """A LIST: its nodes by position. `utils list` shows them as records."""
    fields = ["head", "tail", "count", "lock"]

    def __init__(self, value):
        self.value = value

    def nodes(self):
        return list(walk(self.value["head"], "next", max(int(self.value["count"]), 0) + MOST_NODES))

    def to_string(self):
        count, nodes = int(self.value["count"]), self.nodes()
        whole = None not in nodes and len(nodes) == count and \
            int(self.value["tail"]) == (int(nodes[-1]) if nodes else 0)
        found = len(nodes) - nodes.count(None)
        if count == 0 and whole:
            return "empty LIST"
        return f"LIST of {count}" + ("" if whole else f", DAMAGED: {found} nodes can be reached")

    def children(self):
        for position, node in enumerate(self.nodes(), 1):
            if node is not None:
                yield f"[{position}]", node


class QueuePrinter:
    """A msgQ: its figures and the messages that wait, oldest first."""
    fields = ["name", "maxMsgs", "maxMsgLength", "options", "highWater", "missCount", "lock", "notEmpty",
              "queued", "spare"]

    def __init__(self, value):
        self.value = value

    def to_string(self):
        v = self.value
        queued = int(v['queued']['count'])
        return (f"queue {quoted(field_text(v['name']))}: {queued or 'empty, none'} of {int(v['maxMsgs'])} queued, "
                f"at most {int(v['maxMsgLength'])} bytes each, high water {int(v['highWater'])}, "
                f"{int(v['missCount'])} missed")

    def messages(self):
        """Address and length of each message. A node is its link, a 16-bit length, then the bytes."""
        word = gdb.lookup_type("void").pointer()
        node, left = int(self.value["queued"]["head"]), max(int(self.value["queued"]["count"]), 0)
        while node != 0 and left > 0:
            following = gdb.Value(node).cast(word.pointer()).dereference()
            length = gdb.Value(node + word.sizeof).cast(typed("short").pointer()).dereference()
            yield node + 2 * word.sizeof, int(length)
            node, left = int(following), left - 1

    def children(self):
        try:
            for number, (address, length) in enumerate(self.messages()):
                yield f"[{number}]", self.message(address, length)
        except gdb.MemoryError:
            yield "[...]", "damaged chain"

    @staticmethod
    def message(address, length):
        first = bytes(gdb.selected_inferior().read_memory(address, 1))[0] if length > 0 else 0
        if length == TIMER_MESSAGE_LENGTH and first == TIMER_MESSAGE_TYPE:
            try:
                return gdb.Value(address).cast(gdb.lookup_type("timer_message").pointer()).dereference()
            except gdb.error:
                pass
        byte = typed("unsigned char")
        return gdb.Value(address).cast(byte.array(length - 1).pointer()).dereference() if length > 0 else "empty"


class TimerPrinter:
    """A timer: its kind, state and what it does when it fires."""
    fields = ["magicHead", "next", "state", "period", "delta", "expiry", "handler", "arg1", "arg2", "flags",
              "ulhArg", "ulhFn", "magicTail"]

    def __init__(self, value):
        self.value = value

    def to_string(self):
        v = self.value
        if (int(v["magicHead"]), int(v["magicTail"])) != (MAGIC_HEAD, MAGIC_TAIL):
            deleted = int(v["magicHead"]) == MAGIC_HEAD ^ 0xFFFFFFFF
            return "deleted timer" if deleted else "not a timer: its magic words are wrong"
        kind = "periodic" if int(v["flags"]) & PERIODIC else "one-shot"
        state = f"armed for {int(v['period'])} ms, due at {int(v['expiry'])}" if int(v["state"]) == ARMED else "idle"
        call = f"{function(v['handler'])}({int(v['arg1']):#x}, {int(v['arg2']):#x})"
        return f"{kind} timer, {state}, calls {call}{self.delivery()}"

    def delivery(self):
        wrapper, argument = self.value["ulhFn"], int(self.value["ulhArg"])
        if int(wrapper) == 0:
            return ""
        if "deliver" not in function(wrapper):
            return f" through {function(wrapper)}"
        if argument == 0:
            return " on the service thread"
        try:
            queue = gdb.Value(argument).cast(gdb.lookup_type("msgQ").pointer()).dereference()
            return f" by way of queue {quoted(field_text(queue['name']))}"
        except gdb.error:
            return f" by way of the queue at {argument:#x}"


def function(pointer):
    if int(pointer) == 0:
        return "nothing"
    shown = pointer.format_string(symbols=True)
    return shown[shown.index("<") + 1:shown.rindex(">")] if "<" in shown else shown


class StringPrinter:
    """A qelString: its text and the room it has."""
    fields = ["buf", "ops", "size", "avail", "retry"]

    def __init__(self, value):
        self.value = value

    def to_string(self):
        if int(self.value["buf"]) == 0:
            return "qelString that lost its text"
        text = text_of(self.value["buf"], int(self.value["size"]))
        if not text:
            return f"empty qelString in {int(self.value['size'])} bytes"
        return f"qelString of {len(text)} in {int(self.value['size'])} bytes: {quoted(text)}"


class BufferPrinter:
    """A Buffer: its bytes."""
    fields = ["data", "size", "used"]

    def __init__(self, value):
        self.value = value

    def to_string(self):
        used, size = int(self.value["used"]), int(self.value["size"])
        return f"Buffer with {used} of {size} bytes used" if used > 0 else f"empty Buffer of {size} bytes"

    def children(self):
        used = int(self.value["used"])
        if used > 0:
            yield "data", self.value["data"].dereference().cast(self.value["data"].type.target()).address.cast(
                self.value["data"].type.target().array(used - 1).pointer()).dereference()


class HashPrinter:
    """A hash_table: every key with its values."""
    fields = ["hashFn", "cmpFn", "buckets", "numBuckets"]

    def __init__(self, value):
        self.value = value

    def headers(self):
        header = typed("hash_header").pointer()
        for bucket in range(int(self.value["numBuckets"])):
            for node in walk((self.value["buckets"] + bucket).dereference()["head"], "next", MOST_NODES):
                if node is not None:
                    yield node.cast(header).dereference()

    def to_string(self):
        keys = sum(1 for _ in self.headers())
        return f"hash_table of {keys} keys" if keys > 0 else "empty hash_table"

    def children(self):
        block = typed("hash_block").pointer()
        for number, header in enumerate(self.headers()):
            values = []
            for node in walk(header["elements"]["head"], "next", MOST_NODES):
                if node is not None:
                    content = node.cast(block).dereference()
                    values += [f"{int(content['values'][i]):#x}" for i in range(int(content["used"]))]
            yield f"key {number}", header["key"]
            yield f"values {number}", ", ".join(values)

    @staticmethod
    def display_hint():
        return "map"


PRINTERS = {"LIST": ListPrinter, "msgQ": QueuePrinter, "timer": TimerPrinter, "qelString": StringPrinter,
            "Buffer": BufferPrinter, "hash_table": HashPrinter}


class Lookup(gdb.printing.PrettyPrinter):
    """Finds the printer of a record by its name and fields: a program may have a Buffer of its own."""

    def __init__(self):
        super().__init__("libutils")

    def __call__(self, value):
        value_type = value.type.strip_typedefs().unqualified()
        if value_type.code != gdb.TYPE_CODE_STRUCT:
            return None
        printer = PRINTERS.get(value_type.tag or value_type.name)
        return printer(value) if printer and shape(value_type) == printer.fields else None


# --- commands --------------------------------------------------------------------------------------

class Utils(gdb.Command):
    """Show what libutils keeps in a process or core file."""

    def __init__(self):
        super().__init__("utils", gdb.COMMAND_DATA, prefix=True)


class ListCommand(gdb.Command):
    """utils list LIST [TYPE]: show the nodes of a list, each as a record of TYPE.

    utils list my_ports struct port"""

    def __init__(self):
        super().__init__("utils list", gdb.COMMAND_DATA, gdb.COMPLETE_EXPRESSION)

    def invoke(self, argument, from_tty):
        name, _, record = argument.strip().partition(" ")
        if not name:
            raise gdb.GdbError("utils list: which list?")
        value = gdb.parse_and_eval(name)
        if value.type.strip_typedefs().code == gdb.TYPE_CODE_PTR:
            value = value.dereference()
        printer = ListPrinter(value)
        print(printer.to_string())
        for position, node in printer.children():
            if record:
                node = gdb.parse_and_eval(f"*({record} *) {int(node):#x}")
            print(f"{position} {node}")


class TimersCommand(gdb.Command):
    """utils timers: show the armed timers of the process, the one that falls due first in front."""

    def __init__(self):
        super().__init__("utils timers", gdb.COMMAND_DATA)

    def invoke(self, argument, from_tty):
        chain = list(walk(static("chain", "timer.cpp"), "next", MOST_NODES))
        print(f"{len(chain) - chain.count(None) or 'no'} armed timers" + (", then the chain is DAMAGED" if None in chain else ""))
        for node in chain:
            if node is not None:
                print(f"{int(node):#x}: {TimerPrinter(node.dereference()).to_string()}")


class EvlogCommand(gdb.Command):
    """utils evlog [DATABASE | LOG | --file SECTION]: print event logs, oldest events first.

    Without argument, the logs of the process's current database. A log lies in a trace section, which a
    core file does not hold by itself: gdb reads it from the section's file while that exists. With
    --file, print the log in a section file, or in a copy of one."""

    def __init__(self):
        super().__init__("utils evlog", gdb.COMMAND_DATA, gdb.COMPLETE_EXPRESSION)

    def invoke(self, argument, from_tty):
        argument = argument.strip()
        if argument.startswith("--file"):
            with open(argument[len("--file"):].strip(), "rb") as section:
                self.show(section.read(), argument[len("--file"):].strip())
            return
        if argument:
            value = gdb.parse_and_eval(argument)
        else:
            holder = static("current_db", "evlog.cpp")
            value = holder.address.cast(typed("qel_evlog_db").pointer().pointer()).dereference()
        if value.type.strip_typedefs().code == gdb.TYPE_CODE_PTR:
            if int(value) == 0:
                print("no event logs: the process has no current database")
                return
            value = value.dereference()
        if (value.type.strip_typedefs().tag or value.type.strip_typedefs().name) == "qel_evlog_handle":
            self.show_memory(value.address)
            return
        logs = list(walk(value["head"], "next", MOST_ENTRIES))
        if not logs:
            print("no event logs: the database is empty")
        for log in logs:
            if log is not None:
                self.show_memory(log)
        if None in logs:
            raise gdb.GdbError(f"utils evlog: {UNREADABLE}")

    def show_memory(self, log):
        header = typed("qel_evlog_handle")
        total = int(log.dereference()["total"])
        if total == 0:  # gdb reads zeros where the file of a mapping is gone
            raise gdb.GdbError(f"utils evlog: {UNREADABLE}")
        size = header.sizeof + max(0, min(total, MOST_ENTRIES)) * typed("qel_evlog_entry").sizeof
        self.show(bytes(gdb.selected_inferior().read_memory(int(log), size)), f"{int(log):#x}")

    @staticmethod
    def show(raw, place):
        header, entry = typed("qel_evlog_handle"), typed("qel_evlog_entry")
        if len(raw) < header.sizeof:
            raise gdb.GdbError(f"utils evlog: {place} is too short for an event log")
        log = gdb.Value(raw[:header.sizeof], header)
        total, current, wrapped = int(log["total"]), int(log["current"]), int(log["wrapped"])
        if int(log["magic"]) != EVLOG_MAGIC or not 0 <= current < total <= MOST_ENTRIES or \
                len(raw) < header.sizeof + total * entry.sizeof:
            raise gdb.GdbError(f"utils evlog: there is no event log at {place}")
        name, shortcut = (bytes(int(log[f][i]) & 0xFF for i in range(log[f].type.sizeof)).split(b"\0")[0]
                          .decode("utf-8", "backslashreplace") for f in ("name", "shortcut"))
        print(f"event log {quoted(name)} ({shortcut}): {total} entries, current {current}, wrapped {wrapped}")
        for index in (list(range(current, total)) if wrapped else []) + list(range(current)):
            at = header.sizeof + index * entry.sizeof
            EvlogCommand.show_entry(gdb.Value(raw[at:at + entry.sizeof], entry))
        if current == 0 and not wrapped:
            print("no events")

    @staticmethod
    def show_entry(event):
        text = bytes(int(event["text"][i]) & 0xFF for i in range(event["text"].type.sizeof)).split(b"\0")[0]
        if text:
            clock = time.strftime("%H:%M:%S", time.localtime(int(event["seconds"]) & 0xFFFFFFFF))
            print(f"{clock}.{int(event['microseconds']) // 1000:03d} "
                  f"{text.decode('utf-8', 'backslashreplace').rstrip()}")


class LogCacheCommand(gdb.Command):
    """utils log-cache: print the lines of the process's log cache, oldest first."""

    def __init__(self):
        super().__init__("utils log-cache", gdb.COMMAND_DATA)

    def invoke(self, argument, from_tty):
        cache = static("cache", "log_cache.cpp")
        start, write, size, room = (int(cache[f]) for f in ("start", "write", "size", "room"))
        if start == 0:
            print("no log cache: the process has none")
            return
        memory = gdb.selected_inferior()
        older = bytes(memory.read_memory(write, room)) if int(cache["wraps"]) > 0 and room > 0 else b""
        newer = bytes(memory.read_memory(start, write - start)) if write > start else b""
        print(f"log cache {quoted(field_text(cache['path']))}: {size} bytes, started again {int(cache['wraps'])} times"
              + ("" if older or newer else ", empty"))
        if not re.match(rb"\d\d:\d\d:\d\d \d+ ", older):  # its first line is cut
            older = older.split(b"\n", 1)[1] if b"\n" in older else b""
        for line in (older + newer).replace(b"\0", b"").decode("utf-8", "backslashreplace").splitlines():
            print(line)


gdb.printing.register_pretty_printer(gdb.current_objfile(), Lookup(), replace=True)
for command in (Utils, ListCommand, TimersCommand, EvlogCommand, LogCacheCommand):
    command()
