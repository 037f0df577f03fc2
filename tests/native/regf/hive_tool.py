#!/usr/bin/python3
"""Independent side of the hive engine's tests: writes an empty hive from the
format's description, fills hives with hivex, dumps them with hivex (sorted
UTF-8 lines "K\t<path>" and "V\t<path>\t<name>\t<type>\t<hex data>", a path's
parts joined by '\\', the root's empty), and compares such a dump with what
regfexport and reglookup show."""
import itertools, random, re, struct, subprocess, sys, time

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


if __name__ == '__main__':
    cmd, args = sys.argv[1], sys.argv[2:]
    if cmd == 'dump':
        sys.stdout.write(''.join(l + '\n' for l in dump_hivex(args[0])))
    elif cmd == 'check':
        sys.exit(check(args[0], args[1], args[2:]))
    else:  # empty PATH MINOR, fill PATH KEYS SEED, bench PATH SETS ADDS
        {'empty': empty_hive, 'fill': fill, 'bench': bench_edits}[cmd](args[0], *map(int, args[1:]))
