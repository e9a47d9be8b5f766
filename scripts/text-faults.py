#!/usr/bin/env python3
"""Checks that the suite notices a change to any text the tool prints.

  text-faults.py list [--all]
      The string literals of src/ that the tool prints (messages, help, keys, labels,
      descriptions, units, separators, log tags, file names, trace names), one per line as
      FILE:LINE<TAB>TEXT, and where each stands: a golden file, a test source, or nowhere.
      --all lists the literals it leaves out as well (paths it opens, formats it parses...).
  text-faults.py plant [--sample N] [--seed S] [--build DIR] [--at FILE:LINE ...]
      Changes one character in each of N printed literals drawn with seed S (or in those on the
      lines given), one at a time: rebuilds, runs the golden tests and then the rest of the
      suite until one fails, and restores the file. Prints one line per fault with the test that
      caught it, and fails if any went unnoticed.

The source is restored after each fault, also on an interruption; run it on a clean work tree.
"""
import argparse
import pathlib
import random
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
LITERAL = re.compile(r'"((?:[^"\\\n]|\\.)*)"')
CHAR = re.compile(r"'(?:[^'\\\n]|\\.)*'")

# Literals that the tool reads, parses, runs or names internally rather than prints.
NOT_PRINTED = {
    '%ld', '%lld %lld', '%i', '%s', '%c', 'r', '%Y-%m-%d %H:%M:%S.000', '%Y-%m-%d %H:%M:%S.',
    'dddd-dd-dd dd:dd:dd.ddd', ' \\t\\n\\r', ' \\n\\r\\f\\v', '\\r\\n', '0123456789',
    '0123456789abcdefABCDEF', 'records are read in native layout', 'u:object_r:dsp_data_file:s0',
    'DspTraceProcessor', 'default', 'hwbinder', 'thermal-poll', 'HexagonTelemetry',
    'Freq: ([0-9]*)', '([0-9]*\\\\.[0-9]*)%', 'FPS=', 'Prd=', 'Stale=', 'Tear=', 'ICFLp95=',
    'cpuss', 'gpuss', 'disp', 'batt', 'cam', 'skin', 'thermal_zone', 'trip_point_', '_temp',
    'epm:', '..', '/',
    # Messages of the thermal service's own status, which the tool never prints: it prints the
    # transport's description.
    'cannot list ', 'null callback', 'callback already registered', 'callback not registered',
}
# Whole files of the platform that neither print nor name anything the user sees.
NOT_PRINTED_FILES = ('src/platform/counter/', 'src/platform/os/', 'src/platform/zavra_os/',
                     'src/ar_sys_stats/', 'src/platform/thermal/service_registry.h',
                     'src/platform/thermal/thermal.h')
# Node names beside their labels, rail ids, client names and the numbers written to nodes.
NODE_NAMES = {
    'src/plugins/charge_plugin.cpp': re.compile(r'[a-z_]+'),
    'src/plugins/power_rails_plugin.cpp': re.compile(r'[A-Z0-9_]+'),
    'src/plugins/power_sampler.cpp': re.compile(r'current_now|voltage_now|input_current_now'),
    'src/plugins/quillon_dram_bandwidth_plugin.cpp':
        re.compile(r'sample_ms|bwmon|client|mon_enabled|last_sample|cpu|gpu|total|0|1'),
    'src/platform/thermal/default_thermal.cpp': re.compile(r'type|temp|cpu|gpu'),
}
NOT_PRINTED_AT = {('src/emberline.cpp', '0'), ('src/plugins/stats_plugin.cpp', '.')}


def literals():
    """(path, line, text as written, start offset in the file) of every literal of src/."""
    for path in sorted((ROOT / 'src').rglob('*')):
        if path.suffix not in ('.cpp', '.h'):
            continue
        text, i, line = path.read_text(), 0, 1
        while i < len(text):
            if text.startswith('#include', i) and (i == 0 or text[i - 1] == '\n'):
                i = text.find('\n', i)
                continue
            if text.startswith('//', i):
                i = text.find('\n', i)
                continue
            if text.startswith('/*', i):
                end = text.index('*/', i) + 2
                line += text.count('\n', i, end)
                i = end
                continue
            match = (CHAR if text[i] == "'" else LITERAL).match(text, i) if text[i] in '\'"' else None
            if match:
                if text[i] == '"':
                    yield str(path.relative_to(ROOT)), line, match.group(1), i + 1
                i = match.end()
                continue
            if text[i] == '\n':
                line += 1
            i += 1


def printed(path, text, code):
    if not text or path.startswith(NOT_PRINTED_FILES) or text in NOT_PRINTED:
        return False
    if text.startswith('/system/bin/logcat') or (path, text) in NOT_PRINTED_AT:
        return False
    if path in NODE_NAMES and NODE_NAMES[path].fullmatch(text):
        return False
    # The first word of a /proc/stat line, compared, not shown.
    if path == 'src/plugins/stats_plugin.cpp' and text == 'cpu' and 'compare' in code:
        return False
    # Paths of nodes; of the paths only the default report directory is shown.
    if re.fullmatch(r'[A-Za-z0-9_:./-]*/[A-Za-z0-9_:./-]*', text):
        return path == 'src/emberline.h' or (path, text) == ('src/plugins/power_rails_plugin.cpp',
                                                            'average_value')
    return True


def unescape(text):
    table = {'n': '\n', 't': '\t', 'r': '\r', 'f': '\f', 'v': '\v'}
    return re.sub(r'\\(.)', lambda m: table.get(m.group(1), m.group(1)), text)


def printed_literals():
    for path, line, text, offset in literals():
        code = (ROOT / path).read_text().split('\n')[line - 1]
        if printed(path, text, code):
            yield path, line, text, offset


def where_it_stands(text, golden, tests):
    # A format stands where its pieces do, and so does a text the help spreads over lines.
    raw = unescape(text)
    pieces = [p for p in re.split(r'\n|%[sd]', raw) if p] or [raw]
    if any(all(p in g for p in pieces) for g in golden):
        return 'golden'
    if any(all(p in t for p in pieces) or text in t for t in tests):
        return 'test'
    return 'nowhere'


def list_literals(show_all):
    golden = [p.read_text() for p in (ROOT / 'tests/golden').rglob('*') if p.is_file()]
    tests = [p.read_text() for p in (ROOT / 'tests').rglob('*')
             if p.suffix in ('.cpp', '.h', '.py', '.sh')]
    counts = {}
    for path, line, text, _ in literals():
        code = (ROOT / path).read_text().split('\n')[line - 1]
        kind = where_it_stands(text, golden, tests) if printed(path, text, code) else 'unprinted'
        counts[kind] = counts.get(kind, 0) + 1
        if kind != 'unprinted' or show_all:
            print(f'{kind}\t{path}:{line}\t{text}')
    print(' '.join(f'{k}: {v}' for k, v in sorted(counts.items())), file=sys.stderr)


def mutate(text):
    """The literal with one character changed, away from escapes, or None."""
    plain = [i for i in range(len(text)) if text[i] != '\\' and (i == 0 or text[i - 1] != '\\')]
    alnum = [i for i in plain if text[i].isalnum()]
    spots = alnum or plain
    if not spots:
        return None
    i = spots[len(spots) // 2]
    c = text[i]
    if c.isdigit():
        new = str((int(c) + 1) % 10)
    elif c.isalpha():
        new = chr((ord(c.lower()) - 96) % 26 + 97)
        new = new.upper() if c.isupper() else new
    else:
        new = {' ': '_', ',': ';', ':': ';', '|': '/', '(': '[', ')': ']', '.': ',', '-': '+',
               '=': '~', '[': '{', ']': '}', "'": '`', '%': '#', '>': '<'}.get(c, '#')
    return text[:i] + new + text[i + 1:]


def run(cmd, cwd):
    return subprocess.run(cmd, cwd=cwd, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                          check=False).returncode


def first_failure(cmd, cwd):
    """The name of the first test that failed, or None when all passed."""
    done = subprocess.run(cmd, cwd=cwd, capture_output=True, text=True, check=False)
    if done.returncode == 0:
        return None
    failed = re.findall(r'^\s*\d+ - (\S+) \(', done.stdout, re.M)
    return failed[0] if failed else 'ctest failed'


def plant(sample, seed, build, at):
    # A literal of escapes alone (a newline) has no character a fault could change.
    candidates = [c for c in printed_literals() if mutate(c[2]) is not None]
    if at:
        chosen = [c for c in candidates if f'{c[0]}:{c[1]}' in at]
        sample = len(chosen)
    else:
        chosen = random.Random(seed).sample(candidates, sample)
    missed = 0
    for n, (path, line, text, offset) in enumerate(chosen, 1):
        source = ROOT / path
        original = source.read_text()
        changed = mutate(text)
        source.write_text(original[:offset] + changed + original[offset + len(text):])
        # The golden files need the tool alone; most faults end there, before the long build.
        build_tool = ['nice', 'cmake', '--build', build, '-j2', '--target', 'emberline']
        try:
            failed = None
            if run(build_tool, ROOT) != 0:
                failed = 'the build'
            else:
                failed = first_failure(['ctest', '-R', '^Golden', '-j2', '--timeout', '300'], build)
            if failed is None and run(['nice', 'cmake', '--build', build, '-j2'], ROOT) != 0:
                failed = 'the build'
            if failed is None:
                failed = first_failure(['ctest', '-E', '^(Fuzz|Golden|Sandbox|Report|Layers)',
                                        '-j2', '--timeout', '300', '--stop-on-failure'], build)
            verdict = f'caught by {failed}' if failed else 'MISSED'
            missed += failed is None
        finally:
            source.write_text(original)
        print(f'{n:2} {path}:{line} "{text}" -> "{changed}": {verdict}', flush=True)
    # The last fault's objects must not outlive it.
    run(['touch'] + sorted({str(ROOT / c[0]) for c in chosen}), ROOT)
    run(['cmake', '--build', build, '-j2'], ROOT)
    print(f'{sample - missed} of {sample} caught')
    return 1 if missed else 0


def main():
    parser = argparse.ArgumentParser(description=__doc__.split('\n')[0])
    sub = parser.add_subparsers(dest='command', required=True)
    listing = sub.add_parser('list')
    listing.add_argument('--all', action='store_true')
    planting = sub.add_parser('plant')
    planting.add_argument('--sample', type=int, default=30)
    planting.add_argument('--seed', type=int, default=27)
    planting.add_argument('--build', default=str(ROOT / 'build/normal'))
    planting.add_argument('--at', action='append', default=[], metavar='FILE:LINE',
                          help='the literals on these lines instead of a sample')
    args = parser.parse_args()
    if args.command == 'list':
        list_literals(args.all)
        return 0
    return plant(args.sample, args.seed, args.build, args.at)


if __name__ == '__main__':
    sys.exit(main())
