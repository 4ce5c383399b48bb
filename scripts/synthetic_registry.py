"""Registry trees for synthetic machines, written as regedit exports or as hive files.

A tree is a dict: key path (relative to the hive root, "\\"-separated, "" for the root) ->
list of values (name, type, data bytes). Every parent of a listed key is created. The same
tree written both ways reads the same through a recorded machine.

The hive writer is our own: hivexregedit (libhivex's add_child) rewrites a key's whole
sub-key list for every key it adds, so a 100,000-entry Uninstall key takes hours; this one
lays out every cell once, in one pass (docs/performance.md).
"""
import struct

REG_SZ, REG_EXPAND_SZ, REG_BINARY, REG_DWORD, REG_MULTI_SZ = 1, 2, 3, 4, 7

_HBIN_SIZE = 4096
_HBIN_HEADER = 32
_LEAF_MAX = 1024  # sub-keys per lh list; more go under an ri index
_NONE = 0xFFFFFFFF
_FILETIME = 129000000000000000  # 2009-10-10, fixed so the bytes do not change run to run


def sz(name, text, kind=REG_SZ):
    return (name, kind, (text + "\0").encode("utf-16-le"))


def dword(name, number):
    return (name, REG_DWORD, struct.pack("<I", number))


def multi_sz(name, texts):
    return (name, REG_MULTI_SZ, ("".join(t + "\0" for t in texts) + "\0").encode("utf-16-le"))


# ---- regedit export ----

def _reg_quote(text):
    return '"' + text.replace("\\", "\\\\").replace('"', '\\"') + '"'


def _reg_hex(data, prefix):
    out, line = [], prefix
    for i, byte in enumerate(data):
        piece = "%02x" % byte + ("," if i + 1 < len(data) else "")
        if len(line) + len(piece) > 77:
            out.append(line + "\\")
            line = "  "
        line += piece
    out.append(line)
    return "\r\n".join(out)


def _reg_value(name, kind, data):
    head = "@" if name == "" else _reg_quote(name)
    if kind == REG_SZ and len(data) % 2 == 0 and data.endswith(b"\0\0"):
        text = data[:-2].decode("utf-16-le")
        if not any(c in text for c in "\0\r\n"):
            return head + "=" + _reg_quote(text)
    if kind == REG_DWORD and len(data) == 4:
        return head + "=dword:%08x" % struct.unpack("<I", data)
    prefix = head + ("=hex:" if kind == REG_BINARY else "=hex(%x):" % kind)
    return _reg_hex(data, prefix)


def write_reg(path, root, tree):
    """A UTF-16LE regedit export of `tree` under the root key name `root` (e.g.
    HKEY_LOCAL_MACHINE\\SOFTWARE), keys in regedit's order (case-insensitive by path)."""
    blocks = []
    for key in sorted(_with_parents(tree), key=lambda k: [p.upper() for p in k.split("\\")]):
        lines = ["[" + (root + "\\" + key if key else root) + "]"]
        lines += [_reg_value(*value) for value in tree.get(key, ())]
        blocks.append("\r\n".join(lines) + "\r\n")
    text = "Windows Registry Editor Version 5.00\r\n\r\n" + "\r\n".join(blocks) + "\r\n"
    with open(path, "wb") as f:
        f.write(b"\xff\xfe" + text.encode("utf-16-le"))


def _with_parents(tree):
    keys = set(tree)
    for key in list(keys):
        while key:
            key = key.rpartition("\\")[0]
            keys.add(key)
    keys.add("")
    return keys


# ---- hive file ----

class _Node:
    __slots__ = ("name", "children", "values", "offset")

    def __init__(self, name):
        self.name, self.children, self.values, self.offset = name, {}, [], 0


def _build(tree):
    root = _Node("ROOT")
    for key in sorted(_with_parents(tree)):
        node = root
        for part in (key.split("\\") if key else []):
            child = node.children.get(part.upper())
            if child is None:
                child = node.children[part.upper()] = _Node(part)
            node = child
        node.values = list(tree.get(key, ()))
    return root


def _name_bytes(name):
    """(bytes, compressed): Latin-1 where every character fits, else UTF-16LE."""
    try:
        return name.encode("latin-1"), True
    except UnicodeEncodeError:
        return name.encode("utf-16-le"), False


def _lh_hash(name):
    value = 0
    for c in name.upper():
        value = (value * 37 + ord(c)) & 0xFFFFFFFF
    return value


class _Cells:
    """Cells laid out in 4 KiB bins, as Windows writes them; a cell never crosses a bin.
    Offsets count from the first bin, as cell references do."""

    def __init__(self):
        self.data = bytearray()
        self.bin_start = 0
        self.used = 0  # end of the last cell, from the first bin

    def add(self, payload):
        size = (len(payload) + 4 + 7) & ~7
        if not self.data or self.used + size > len(self.data):
            self._close()
            self.bin_start = len(self.data)
            length = max(_HBIN_SIZE, (size + _HBIN_HEADER + _HBIN_SIZE - 1) // _HBIN_SIZE * _HBIN_SIZE)
            self.data += bytes(length)
            struct.pack_into("<4sII", self.data, self.bin_start, b"hbin", self.bin_start, length)
            struct.pack_into("<Q", self.data, self.bin_start + 20, _FILETIME)
            self.used = self.bin_start + _HBIN_HEADER
        offset = self.used
        struct.pack_into("<i", self.data, offset, -size)
        self.data[offset + 4:offset + 4 + len(payload)] = payload
        self.used += size
        return offset

    def reserve(self, length):
        """A cell of `length` payload bytes to fill later through patch()."""
        return self.add(bytes(length))

    def patch(self, offset, payload):
        self.data[offset + 4:offset + 4 + len(payload)] = payload

    def _close(self):
        if self.data and self.used < len(self.data):
            struct.pack_into("<i", self.data, self.used, len(self.data) - self.used)

    def finish(self):
        self._close()
        return self.data


def _security_descriptor():
    """Self-relative: owner Administrators, group SYSTEM, a DACL giving Everyone full
    control of the key."""
    def sid(authority, *subs):
        return struct.pack("<BB", 1, len(subs)) + authority.to_bytes(6, "big") + b"".join(
            struct.pack("<I", s) for s in subs)
    everyone, admins, system = sid(1, 0), sid(5, 32, 544), sid(5, 18)
    ace = struct.pack("<BBHI", 0, 3, 8 + len(everyone), 0xF003F) + everyone
    acl = struct.pack("<BBHHH", 2, 0, 8 + len(ace), 1, 0) + ace
    header = 20
    owner = header + len(acl)
    group = owner + len(admins)
    return struct.pack("<BBHIIII", 1, 0, 0x8004, owner, group, 0, header) + acl + admins + system


def write_hive(path, tree, file_name=""):
    """A regf hive holding `tree`; `file_name` is the path Windows keeps in the header."""
    root = _build(tree)
    nodes = []
    stack = [root]
    while stack:
        node = stack.pop()
        nodes.append(node)
        stack.extend(reversed(sorted(node.children.values(), key=lambda n: n.name.upper())))
    descriptor = _security_descriptor()
    cells = _Cells()
    sk = cells.reserve(20 + len(descriptor))
    parents = {id(root): _NONE}
    for node in nodes:
        name, compressed = _name_bytes(node.name)
        node.offset = cells.reserve(0x4C + len(name))
        for child in node.children.values():
            parents[id(child)] = node.offset
    cells.patch(sk, b"sk\0\0" + struct.pack("<IIII", sk, sk, len(nodes), len(descriptor)) +
                descriptor)
    for node in nodes:
        children = sorted(node.children.values(), key=lambda n: n.name.upper())
        subkeys = _subkey_list(cells, children) if children else _NONE
        values = _NONE
        if node.values:
            offsets = [_value(cells, *value) for value in node.values]
            values = cells.add(struct.pack("<%dI" % len(offsets), *offsets))
        name, compressed = _name_bytes(node.name)
        flags = (0x20 if compressed else 0) | (0x2C if node is root else 0)
        longest_key = max((len(c.name) * 2 for c in children), default=0)
        longest_name = max((len(v[0]) * 2 for v in node.values), default=0)
        longest_data = max((len(v[2]) for v in node.values), default=0)
        cells.patch(node.offset, b"nk" + struct.pack(
            "<HQIIIIIIIIIIIIIIIHH", flags, _FILETIME, 0, parents[id(node)], len(children), 0,
            subkeys, _NONE, len(node.values), values, sk, _NONE, longest_key, 0, longest_name,
            longest_data, 0, len(name), 0) + name)
    data = cells.finish()
    header = bytearray(4096)
    struct.pack_into("<4sIIQIIIIIII", header, 0, b"regf", 1, 1, _FILETIME, 1, 5, 0, 1,
                     root.offset, len(data), 1)
    label = file_name[-31:].encode("utf-16-le")
    header[0x30:0x30 + len(label)] = label
    checksum = 0
    for (word,) in struct.iter_unpack("<I", bytes(header[:0x1FC])):
        checksum ^= word
    checksum = {0: 1, 0xFFFFFFFF: 0xFFFFFFFE}.get(checksum, checksum)
    struct.pack_into("<I", header, 0x1FC, checksum)
    with open(path, "wb") as f:
        f.write(header)
        f.write(data)


def _subkey_list(cells, children):
    leaves = []
    for start in range(0, len(children), _LEAF_MAX):
        part = children[start:start + _LEAF_MAX]
        leaves.append(cells.add(b"lh" + struct.pack("<H", len(part)) + b"".join(
            struct.pack("<II", c.offset, _lh_hash(c.name)) for c in part)))
    if len(leaves) == 1:
        return leaves[0]
    return cells.add(b"ri" + struct.pack("<H%dI" % len(leaves), len(leaves), *leaves))


def _value(cells, name, kind, data):
    name_bytes, compressed = _name_bytes(name)
    if len(data) > 16344:
        raise ValueError("value %r: data over 16,344 bytes needs a big-data cell" % name)
    if len(data) <= 4:
        size, offset = len(data) | 0x80000000, struct.unpack("<I", data.ljust(4, b"\0"))[0]
    else:
        size, offset = len(data), cells.add(data)
    return cells.add(b"vk" + struct.pack("<HIIIHH", len(name_bytes), size, offset, kind,
                                         1 if compressed else 0, 0) + name_bytes)
