#!/usr/bin/python3
"""Independent side of the hive engine's tests: writes an empty hive from the
format's description, fills hives with hivex, dumps them with hivex (sorted
UTF-8 lines "K\t<path>" and "V\t<path>\t<name>\t<type>\t<hex data>", a path's
parts joined by '\\', the root's empty), and compares such a dump with what
regfexport and reglookup show.

It also turns a guest registry description (a plain UTF-8 text) into a hive
(from-desc), into the registry text that Wine's RegLoadKeyW loads (wine-text),
and into the dump above (desc-dump). A description:

    ; comment (also '#'); blank lines are ignored
    [ControlSet001\Services\atapi]      a key, relative to the hive root; [] is
                                         the root; missing parents are made
    "Start"=dword:0                      0..2^32-1, decimal or 0x hex
    "Stamp"=qword:0x1cf0a4e2b38a1c0      0..2^64-1
    "Group"=sz:"SCSI miniport"           REG_SZ (stored with its terminating NUL)
    "ImagePath"=expand:"%SystemRoot%\\x" REG_EXPAND_SZ
    "Owners"=multi:"a.inf","b.inf"       REG_MULTI_SZ, items each NUL-ended, then a
                                         NUL; multi: with no item is one NUL
    "FailureActions"=hex:80,51,01,00     REG_BINARY; hex: alone is empty
    "Odd"=hex(0):01                      any type, by its number in hex
    @=sz:"Service"                       the key's unnamed (default) value

Inside quotes \\ is a backslash and \" a quote; nothing else is escaped. Names
and strings may hold any UTF-8 text. Key and value names compare without
regard to case, as the registry compares them; a value given twice keeps the
last. Wine takes the first key of a registry text as relative to the key it is
loaded under unless that key's first part names the load key or one of its
parents (then it strips the match): a description's top-level keys must not be
named like those (Machine, Software, ...)."""
import itertools, os, random, re, struct, subprocess, sys, time

import hivex


def empty_hive(path, minor):
    bins = bytearray(4096)
    bins[0:4] = b'hbin'
    struct.pack_into('<II', bins, 4, 0, 4096)

    def put(off, payload):
        size = (len(payload) + 4 + 7) // 8 * 8
        struct.pack_into('<i', bins, off, -size)
        bins[off + 4:off + 4 + len(payload)] = payload
        return off + size

    # A self-relative descriptor: owner and group BUILTIN\Administrators-like SIDs, no ACLs.
    sid = bytes.fromhex('0101000000000005' '12000000')
    sd = struct.pack('<BBHIIII', 1, 0, 0x8004, 20, 20 + len(sid), 0, 0) + sid + sid
    root, sk = 0x20, 0x20 + 88
    nk = bytearray(80)
    nk[0:2] = b'nk'
    struct.pack_into('<H', nk, 2, 0x2C)  # root entry, no delete, ASCII name
    struct.pack_into('<IIIIIIIII', nk, 16, 0, 0, 0, 0xFFFFFFFF, 0xFFFFFFFF, 0, 0xFFFFFFFF, sk, 0xFFFFFFFF)
    struct.pack_into('<HH', nk, 72, 4, 0)
    nk[76:80] = b'ROOT'
    assert put(root, bytes(nk)) == sk
    skc = bytearray(b'sk\0\0') + struct.pack('<IIII', sk, sk, 1, len(sd)) + sd
    end = put(sk, bytes(skc))
    struct.pack_into('<i', bins, end, 4096 - end)
    base = bytearray(4096)
    base[0:4] = b'regf'
    struct.pack_into('<IIQIIIIIII', base, 4, 1, 1, 0, 1, minor, 0, 1, root, 4096, 1)
    csum = 0
    for i in range(127):
        csum ^= struct.unpack_from('<I', base, 4 * i)[0]
    struct.pack_into('<I', base, 508, csum or 1)
    with open(path, 'wb') as f:
        f.write(bytes(base) + bytes(bins))


def value_bytes(rng, t, i):
    if t in (1, 2):
        s = 'str%d-%s' % (i, 'x' * rng.randrange(0, 60)) + ('%SystemRoot%\\sys' if t == 2 else '')
        return (s + '\0').encode('utf-16-le')
    if t == 4:
        return rng.getrandbits(32).to_bytes(4, 'little')
    if t == 11:
        return rng.getrandbits(64).to_bytes(8, 'little')
    if t == 7:
        return ('\0'.join('m%d' % k for k in range(rng.randrange(1, 5))) + '\0\0').encode('utf-16-le')
    if t == 3:
        n = rng.choice([0, 1, 3, 4, 5, 16, 200, 1000, 3000, 16344, 16345, 40000] if rng.random() < 0.5 else [0, 4, 5, 64, 300])
        return bytes(rng.getrandbits(8) for _ in range(min(n, 64))) * (n // 64) + bytes(n % 64)
    return bytes(rng.randrange(0, 9))  # REG_NONE and odd types


def fill(path, keys, seed):
    """A SOFTWARE-like tree: vendors, products, versions, deep CLSID-like fan-out."""
    rng = random.Random(seed)
    h = hivex.Hivex(path, write=True)
    nodes = [h.root()]
    made = 0
    types = [1, 1, 1, 2, 3, 3, 4, 4, 7, 11, 0, 0x20000]
    while made < keys:
        parent = rng.choice(nodes[-400:]) if rng.random() < 0.7 else rng.choice(nodes)
        name = rng.choice(['Vendor', 'Product', 'Setup', 'CLSID', 'Item', 'Svc', 'Zz_', 'mixedCase']) + '%d' % made
        if made % 997 == 0:
            name += '\u00e9t\u00e9'
        child = h.node_add_child(parent, name)
        nodes.append(child)
        made += 1
        vals = []
        for v in range(rng.randrange(0, 6)):
            t = rng.choice(types)
            vals.append({'key': '' if v == 0 and rng.random() < 0.2 else 'Val%d_%d' % (made, v), 't': t,
                         'value': value_bytes(rng, t, made)})
        if vals:
            h.node_set_values(child, vals)
    h.commit(None)


def dump_hivex(path):
    h = hivex.Hivex(path)
    out = []
    stack = [(h.root(), '')]
    while stack:
        node, p = stack.pop()
        out.append('K\t' + p)
        for v in h.node_values(node):
            t, data = h.value_value(v)
            out.append('V\t%s\t%s\t%d\t%s' % (p, h.value_key(v), t, data.hex()))
        for c in h.node_children(node):
            stack.append((c, (p + '\\' if p else '') + h.node_name(c)))
    return sorted(out)


def run(args):
    return subprocess.run(args, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=True).stdout


def unquote(s):
    return re.sub(r'%([0-9A-Fa-f]{2})', lambda m: chr(int(m.group(1), 16)), s)


def read_reglookup(path):
    """Keys, and values as (type name, text), as reglookup prints them."""
    keys, vals = set(), {}
    for f in (line.split(',') for line in run(['reglookup', '-H', path]).decode('latin-1').splitlines()):
        if len(f) >= 4 and f[1] == 'KEY':
            keys.add(unquote(f[0])[1:].replace('/', '\\'))
        elif len(f) >= 4:
            vals[unquote(f[0])] = (f[1], unquote(f[2]))
    return keys, vals


REG_NAMES = {0: 'NONE', 1: 'SZ', 2: 'EXPAND_SZ', 3: 'BINARY', 4: 'DWORD', 5: 'DWORD_BE', 6: 'LINK',
             7: 'MULTI_SZ', 11: 'QWORD'}


def reglookup_form(t, data):
    """What reglookup prints for a value, as far as its text form is exact."""
    name = REG_NAMES.get(t, '0x%08X' % t)
    if t in (4, 11) and len(data) == (4 if t == 4 else 8):
        return (name, '0x%0*X' % (len(data) * 2, int.from_bytes(data, 'little')))
    if t in (1, 2):
        return (name, data[:len(data) // 2 * 2].decode('utf-16-le', 'replace').split('\0')[0])
    if t == 3:
        return (name, data.decode('latin-1') if data else '(null)')
    return (name,)


def read_regfexport(path):
    """Keys, and values as (size,) or (size, hex dump), as regfexport prints them."""
    keys, vals, cur, val = set(), {}, None, None
    lines = run(['regfexport', path]).decode('utf-8', 'replace').splitlines()
    for i, line in enumerate(lines):
        if line.startswith('Key path: '):
            cur = line[len('Key path: '):].split('\\', 1)[1] if '\\' in line else ''
            keys.add(cur)
        elif line.startswith('Value: ') and cur is not None:
            val = line.split(' ', 2)[2] if line.count(' ') >= 2 else ''
            val = '' if val == '(default)' else val
        elif line.startswith('Data size: ') and val is not None:
            got = (int(line.split(': ')[1]),)
            if i + 1 < len(lines) and lines[i + 1] == 'Data:':
                dump = itertools.takewhile(lambda l: re.match(r'^[0-9a-f]{8}: ', l), lines[i + 2:])
                got += (''.join(''.join(l[10:58].split()) for l in dump),)
            vals[(cur, val)] = got
            val = None
    return keys, vals


READERS = {  # reader, where it files a value, what it shows of a value, whether it shows a path exactly
    'reglookup': (read_reglookup, lambda k, n: '/' + k.replace('\\', '/') + '/' + n, reglookup_form, str.isascii),
    'regfexport': (read_regfexport, lambda k, n: (k, n), lambda t, data: (len(data), data.hex()), lambda p: True),
}


def check(path, engine_dump, readers):
    """Compares the engine's dump of a hive with what hivex and the named readers
    see; prints how many values each compared and what differs."""
    with open(engine_dump, encoding='utf-8') as f:
        mine = sorted(line.rstrip('\n') for line in f if line.strip())
    keys = {l.split('\t')[1] for l in mine if l[0] == 'K'}
    values = {(f[1], f[2]): (int(f[3]), bytes.fromhex(f[4])) for f in (l.split('\t') for l in mine if l[0] == 'V')}
    theirs, bad, counts = dump_hivex(path), [], ''
    if theirs != mine:
        bad.append('hivex differs: %r' % [d[:100] for d in sorted(set(theirs) ^ set(mine))[:4]])
    for name in readers:
        read, where, form, exact = READERS[name]
        shown = [(k, n) for (k, n) in values if exact(k + n)]
        counts += ' %s_values=%d' % (name, len(shown))
        seen_keys, seen = read(path)
        missing = sorted(k for k in keys if exact(k) and k not in seen_keys)
        found = ['%s lacks keys %r' % (name, missing[:3])] if missing else []
        for k, n in shown:
            got, want = seen.get(where(k, n)), form(*values[(k, n)])
            if got is None or got[:len(want)] != want[:len(got)]:
                found.append('%s differs at %r\\%r: %r' % (name, k, n, got and tuple(str(g)[:60] for g in got)))
        bad += found[:5]
    print('\n'.join(['oracle keys=%d hivex_values=%d%s' % (len(keys), len(values), counts)] + bad))
    return 1 if bad else 0


def bench_edits(path, sets, adds):
    """The benchmark's edits done by hivex: values set over the tree, keys added."""
    start = time.perf_counter()
    h = hivex.Hivex(path, write=True)
    nodes, stack = [], [h.root()]
    while stack:
        n = stack.pop()
        nodes.append(n)
        stack.extend(h.node_children(n))
    step = max(1, len(nodes) // sets)
    for i in range(sets):
        h.node_set_value(nodes[(i * step) % len(nodes)], {'key': 'Bench%d' % i, 't': 4, 'value': i.to_bytes(4, 'little')})
    for i in range(adds):
        h.node_add_child(nodes[(i * 7919) % len(nodes)], 'BenchKey%d' % i)
    h.commit(None)
    print('hivex: %.3f s' % (time.perf_counter() - start))


class DescError(Exception):
    pass


def _quoted(line, i, lineno):
    """The string that starts with the quote at line[i], and the index after it."""
    out, i = [], i + 1
    while i < len(line):
        c = line[i]
        if c == '"':
            return ''.join(out), i + 1
        if c == '\\':
            if i + 1 >= len(line) or line[i + 1] not in '\\"':
                raise DescError('line %d: only \\\\ and \\" are escapes' % lineno)
            c, i = line[i + 1], i + 1
        out.append(c)
        i += 1
    raise DescError('line %d: unterminated string' % lineno)


def _strings(text, lineno):
    """A comma-separated list of quoted strings (maybe none)."""
    items, i = [], 0
    while i < len(text):
        if text[i] != '"':
            raise DescError('line %d: expected a quoted string' % lineno)
        s, i = _quoted(text, i, lineno)
        items.append(s)
        if i < len(text):
            if text[i] != ',' or i + 1 == len(text):
                raise DescError('line %d: expected "," between strings' % lineno)
            i += 1
    return items


def _utf16z(s):
    return (s + '\0').encode('utf-16-le')


def _number(text, bits, lineno):
    try:
        n = int(text, 0)
    except ValueError:
        raise DescError('line %d: bad number %r' % (lineno, text))
    if not 0 <= n < 1 << bits:
        raise DescError('line %d: %r does not fit %d bits' % (lineno, text, bits))
    return n.to_bytes(bits // 8, 'little')


def _hex_bytes(text, lineno):
    parts = [b.strip() for b in text.split(',')] if text else []
    if any(not re.fullmatch(r'[0-9a-fA-F]{2}', b) for b in parts):
        raise DescError('line %d: bad hex bytes' % lineno)
    return bytes(int(b, 16) for b in parts)


def _value(kind, text, lineno):
    """(type, bytes) of a value's right-hand side after 'kind:'."""
    m = re.fullmatch(r'hex\(([0-9a-fA-F]{1,8})\)', kind)
    if m:
        return int(m.group(1), 16), _hex_bytes(text, lineno)
    if kind == 'hex':
        return 3, _hex_bytes(text, lineno)
    if kind == 'dword':
        return 4, _number(text, 32, lineno)
    if kind == 'qword':
        return 11, _number(text, 64, lineno)
    if kind in ('sz', 'expand'):
        items = _strings(text, lineno)
        if len(items) != 1:
            raise DescError('line %d: %s takes one string' % (lineno, kind))
        return (1 if kind == 'sz' else 2), _utf16z(items[0])
    if kind == 'multi':
        return 7, b''.join(_utf16z(s) for s in _strings(text, lineno)) + _utf16z('')
    raise DescError('line %d: unknown type %r' % (lineno, kind))


def read_desc(path):
    """{lower-case path: (path, {lower-case name: (name, type, bytes)})}, parents
    before children, the root ('') first."""
    keys = {'': ('', {})}
    cur = keys['']
    with open(path, encoding='utf-8') as f:
        for lineno, raw in enumerate(f, 1):
            line = raw.strip()
            if not line or line[0] in ';#':
                continue
            if line[0] == '[':
                if line[-1] != ']':
                    raise DescError('line %d: a key line ends with "]"' % lineno)
                parts = line[1:-1].split('\\') if line[1:-1] else []
                if any(not p or len(p) > 255 for p in parts):
                    raise DescError('line %d: empty or overlong key name' % lineno)
                for n in range(1, len(parts) + 1):
                    keys.setdefault('\\'.join(parts[:n]).lower(), ('\\'.join(parts[:n]), {}))
                cur = keys['\\'.join(parts).lower()]
                continue
            if line[0] == '@':
                name, i = '', 1
            elif line[0] == '"':
                name, i = _quoted(line, 0, lineno)
            else:
                raise DescError('line %d: expected [key], "name"= or @=' % lineno)
            m = re.match(r'=([a-z]+(?:\([0-9a-fA-F]+\))?):', line[i:])
            if not m:
                raise DescError('line %d: expected =type:' % lineno)
            t, data = _value(m.group(1), line[i + m.end():], lineno)
            cur[1][name.lower()] = (name, t, data)
    return keys


def desc_dump(path):
    """The description as dump_hivex shows a hive made from it."""
    out = []
    for p, values in read_desc(path).values():
        out.append('K\t' + p)
        out += ['V\t%s\t%s\t%d\t%s' % (p, n, t, d.hex()) for n, t, d in values.values()]
    return sorted(out)


def from_desc(desc, out, minor=3):
    """A hive holding the description, written by hivex into an empty hive."""
    keys = read_desc(desc)
    empty_hive(out + '.tmp', minor)
    h = hivex.Hivex(out + '.tmp', write=True)
    nodes = {'': h.root()}
    for low, (p, values) in keys.items():
        if low:
            parent, _, name = p.rpartition('\\')
            nodes[low] = h.node_add_child(nodes[parent.lower()], name)
        if values:
            h.node_set_values(nodes[low], [{'key': n, 't': t, 'value': d} for n, t, d in values.values()])
    h.commit(None)
    os.replace(out + '.tmp', out)


def wine_escape(s, specials):
    """Text as Wine writes a name or string: UTF-16 units above 127 as \\x<hex>
    (four digits when a hex digit follows), control characters as C or
    octal escapes, '\\' and the specials behind a backslash."""
    units = struct.unpack('<%dH' % (len(s.encode('utf-16-le')) // 2), s.encode('utf-16-le'))
    out = []
    for i, u in enumerate(units):
        nxt = chr(units[i + 1]) if i + 1 < len(units) and units[i + 1] < 128 else ''
        if u > 127:
            out.append(('\\x%04x' if nxt and nxt in '0123456789abcdefABCDEF' else '\\x%x') % u)
        elif u < 32:
            c = '.......abtnvfr.............e....'[u]
            out.append('\\' + c if c != '.' else ('\\%03o' if nxt and nxt in '01234567' else '\\%o') % u)
        else:
            out.append(('\\' if chr(u) == '\\' or chr(u) in specials else '') + chr(u))
    return ''.join(out)


def wine_value(name, t, data):
    """One value line (with continuation lines for long hex data)."""
    head = '"%s"=' % wine_escape(name, '"') if name else '@='
    ended = len(data) >= 2 and len(data) % 2 == 0 and data[-2:] == b'\0\0'
    if t in (1, 2) and ended:
        text = data[:-2].decode('utf-16-le', 'surrogatepass')
        return head + ('str(2):' if t == 2 else '') + '"%s"' % wine_escape(text, '"')
    if t == 4 and len(data) == 4:
        return head + 'dword:%08x' % int.from_bytes(data, 'little')
    line = head + ('hex:' if t == 3 else 'hex(%x):' % t)
    count = len(line)
    for i, b in enumerate(data):
        line += '%02x' % b
        count += 2
        if i < len(data) - 1:
            line += ','
            count += 1
            if count > 76:
                line += '\\\n  '
                count = 2
    return line


def wine_text(desc, out):
    """The description as registry text for RegLoadKeyW under Wine."""
    lines = ['WINE REGISTRY Version 2', ';; All keys relative to \\\\Machine', '']
    for low, (p, values) in read_desc(desc).items():
        if not low:
            if values:
                raise DescError('Wine\'s registry text has no place for values of the root')
            continue
        lines.append('[%s] 1700000000' % '\\\\'.join(wine_escape(n, '[]') for n in p.split('\\')))
        lines += [wine_value(n, t, d) for n, t, d in values.values()]
        lines.append('')
    write_text(out, '\n'.join(lines))


def write_text(out, text, encoding='ascii'):
    """Writes a whole file or, when it fails, nothing at that name."""
    with open(out + '.tmp', 'w', encoding=encoding, newline='\n') as f:
        f.write(text)
    os.replace(out + '.tmp', out)


def same(desc, hive):
    """Compares hivex's dump of a hive with a description; prints what differs."""
    want, got = desc_dump(desc), dump_hivex(hive)
    extra, missing = sorted(set(got) - set(want)), sorted(set(want) - set(got))
    for tag, lines in (('only in the hive', extra), ('only in the description', missing)):
        for l in lines[:8]:
            print('%s: %s' % (tag, l))
    print('%s: %d keys, %d values%s' % (hive, sum(l[0] == 'K' for l in want), sum(l[0] == 'V' for l in want),
                                        '' if want == got else ' DIFFER'))
    return 0 if want == got else 1


if __name__ == '__main__':
    cmd, args = sys.argv[1], sys.argv[2:]
    if cmd == 'dump':
        sys.stdout.write(''.join(l + '\n' for l in dump_hivex(args[0])))
    elif cmd == 'check':
        sys.exit(check(args[0], args[1], args[2:]))
    elif cmd in ('desc-dump', 'from-desc', 'wine-text', 'same'):
        try:  # desc-dump DESC [OUT], from-desc DESC OUT [MINOR], wine-text DESC OUT, same DESC HIVE
            if cmd == 'desc-dump':  # to stdout, or (UTF-8) to the file named second
                text = ''.join(l + '\n' for l in desc_dump(args[0]))
                if len(args) > 1:
                    write_text(args[1], text, 'utf-8')
                else:
                    sys.stdout.write(text)
            elif cmd == 'from-desc':
                from_desc(args[0], args[1], *map(int, args[2:]))
            elif cmd == 'wine-text':
                wine_text(args[0], args[1])
            else:
                sys.exit(same(args[0], args[1]))
        except DescError as e:
            sys.exit('%s: %s' % (args[0], e))
    else:  # empty PATH MINOR, fill PATH KEYS SEED, bench PATH SETS ADDS
        {'empty': empty_hive, 'fill': fill, 'bench': bench_edits}[cmd](args[0], *map(int, args[1:]))
