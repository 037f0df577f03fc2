#!/usr/bin/python3
"""Independent side of the hive engine's tests: writes an empty hive from the
format's description, fills hives with hivex, and reads hives back with
hivex, regfexport and reglookup into the dump format of the tests:
    K\t<key path>          (path components joined by '\\', root is empty)
    V\t<key path>\t<value name>\t<type>\t<hex data>
sorted, UTF-8."""
import random, re, struct, subprocess, sys, time

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


def parse(dump):
    keys, values = set(), {}
    for line in dump:
        f = line.split('\t')
        if f[0] == 'K':
            keys.add(f[1])
        else:
            values[(f[1], f[2])] = (int(f[3]), bytes.fromhex(f[4]))
    return keys, values


REG_NAMES = {0: 'NONE', 1: 'SZ', 2: 'EXPAND_SZ', 3: 'BINARY', 4: 'DWORD', 5: 'DWORD_BE', 6: 'LINK',
             7: 'MULTI_SZ', 11: 'QWORD'}


def unquote(s):
    return re.sub(r'%([0-9A-Fa-f]{2})', lambda m: chr(int(m.group(1), 16)), s)


def utf16_text(data):
    s = data[:len(data) // 2 * 2].decode('utf-16-le', 'replace')
    return s.split('\0')[0]


def check_reglookup(path, keys, values):
    """reglookup prints key and value paths with '/', escaped text; values are
    compared where its text form is exact (ASCII paths)."""
    out = subprocess.run(['reglookup', '-H', path], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=True).stdout.decode('latin-1')
    seen_keys, seen_vals, compared, bad = set(), {}, 0, []
    for line in out.splitlines():
        f = line.split(',')
        if len(f) < 4:
            continue
        seen = unquote(f[0])
        if f[1] == 'KEY':
            seen_keys.add(seen[1:].replace('/', '\\'))
        else:
            seen_vals[seen] = (f[1], f[2])
    ascii_keys = {k for k in keys if k.isascii()}
    if not ascii_keys <= seen_keys:
        bad.append('reglookup keys missing: %s' % sorted(ascii_keys - seen_keys)[:3])
    for (k, n), (t, data) in values.items():
        if not (k + n).isascii():
            continue
        full = '/' + k.replace('\\', '/') + '/' + n
        got = seen_vals.get(full)
        if got is None:
            bad.append('reglookup lacks value %r' % full)
            continue
        want_type = REG_NAMES.get(t, '0x%08X' % t)
        text = unquote(got[1])
        if t == 4 and len(data) == 4:
            ok = got == (want_type, '0x%08X' % int.from_bytes(data, 'little'))
        elif t == 11 and len(data) == 8:
            ok = got == (want_type, '0x%016X' % int.from_bytes(data, 'little'))
        elif t in (1, 2):
            ok = got[0] == want_type and text == utf16_text(data)
        elif t == 3:
            ok = got[0] == want_type and (text == '(null)' if not data else text.encode('latin-1') == data)
        else:
            ok = got[0] == want_type
        compared += 1
        if not ok:
            bad.append('reglookup differs at %r: %r' % (full, (got[0], got[1][:60])))
    return compared, bad


def check_regfexport(path, keys, values):
    """regfexport prints every key path (under the root's name) and, per value,
    its name, type, size and for binary data a hex dump."""
    out = subprocess.run(['regfexport', path], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=True).stdout.decode('utf-8', 'replace')
    seen, cur, val, compared, bad = {}, None, None, 0, []
    lines = out.splitlines()
    i = 0
    while i < len(lines):
        line = lines[i]
        if line.startswith('Key path: '):
            cur = line[len('Key path: '):].split('\\', 1)[1] if '\\' in line else ''
            seen.setdefault(('K', cur), None)
        elif line.startswith('Value: ') and cur is not None:
            val = line.split(' ', 2)[2] if line.count(' ') >= 2 else ''
            if val == '(default)':
                val = ''
        elif line.startswith('Data size: ') and val is not None:
            size = int(line.split(': ')[1])
            hexdata = None
            if i + 1 < len(lines) and lines[i + 1] == 'Data:':
                hexdata, j = '', i + 2
                while j < len(lines) and re.match(r'^[0-9a-f]{8}: ', lines[j]):
                    hexdata += ''.join(lines[j][10:58].split())
                    j += 1
            seen[(cur, val)] = (size, hexdata)
            val = None
        i += 1
    missing = [k for k in keys if ('K', k) not in seen]
    if missing:
        bad.append('regfexport lacks keys %r' % missing[:3])
    for (k, n), (t, data) in values.items():
        got = seen.get((k, n))
        compared += 1
        if got is None or got[0] != len(data) or (got[1] is not None and got[1] != data.hex()):
            bad.append('regfexport differs at %r\\%r: %r' % (k, n, got and (got[0], (got[1] or '')[:60])))
    return compared, bad


def check(path, engine_dump, with_regfexport=True):
    """Compares the engine's dump of a hive with what the readers see
    (regfexport is slow on large hives and can be left out there)."""
    with open(engine_dump, encoding='utf-8') as f:
        mine = sorted(line.rstrip('\n') for line in f if line.strip())
    keys, values = parse(mine)
    theirs = dump_hivex(path)
    bad = []
    if theirs != mine:
        diff = sorted(set(theirs) ^ set(mine))[:4]
        bad.append('hivex differs: %r' % [d[:100] for d in diff])
    n_rl, b_rl = check_reglookup(path, keys, values)
    n_rx, b_rx = check_regfexport(path, keys, values) if with_regfexport else (0, [])
    bad += b_rl[:5] + b_rx[:5]
    print('oracle keys=%d hivex_values=%d reglookup_values=%d regfexport_values=%d' %
          (len(keys), len(values), n_rl, n_rx))
    for b in bad:
        print(b)
    return 0 if not bad else 1


def bench_edits(path, sets, adds):
    """The benchmark's edits done by hivex: set values spread over the tree,
    add keys, commit."""
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
    cmd = sys.argv[1]
    if cmd == 'empty':
        empty_hive(sys.argv[2], int(sys.argv[3]))
    elif cmd == 'fill':
        fill(sys.argv[2], int(sys.argv[3]), int(sys.argv[4]))
    elif cmd == 'dump':
        sys.stdout.write(''.join(l + '\n' for l in dump_hivex(sys.argv[2])))
    elif cmd == 'check':
        sys.exit(check(sys.argv[2], sys.argv[3], '--no-regfexport' not in sys.argv))
    elif cmd == 'bench':
        bench_edits(sys.argv[2], int(sys.argv[3]), int(sys.argv[4]))
