"""The command line of emberline-report."""

import argparse
import json
import math
import sys

from . import PROG
from .fields import parse_patterns, select_fields, series
from .reading import ReportError, display_name, load_report, warn_about


def image_name(path):
    if not path.lower().endswith((".png", ".svg")):
        raise ReportError("the plot's file name must end in .png or .svg: %s" % path)
    return path


def run_summary(args):
    from .summary import summarise, summary_text
    report = load_report(args.file)
    name = display_name(args.file)
    warn_about(report, name)
    summary = summarise(report, name)
    print(json.dumps(summary) if args.json else summary_text(summary))
    return 0


def run_plot(args):
    from .plot import plot_run
    image_name(args.output)
    report = load_report(args.file)
    name = display_name(args.file)
    warn_about(report, name)
    chosen = select_fields(report.numeric_fields(), parse_patterns(args.fields))
    plot_run({field: series(report, field) for field in chosen}, name, args.output)
    return 0


def run_compare(args):
    from .compare import run
    from .runs import FileRun
    patterns = parse_patterns(args.fields)
    if args.plot is not None:
        image_name(args.plot)
    if args.fail_above is not None and not math.isfinite(args.fail_above):
        raise ReportError("--fail-above takes a percentage: %s" % args.fail_above)
    options = dict(patterns=patterns, as_json=args.json, fail_above=args.fail_above,
                   plot_out=args.plot)
    if args.db is not None:
        if args.files or args.vs:
            raise ReportError("compare takes files (A... --vs B...) or --db, not both")
        if not args.a or not args.b:
            raise ReportError("compare --db needs the labels of both sides: --a KEY=VALUE... "
                              "--b KEY=VALUE...")
        from .store import labels_text, open_store, parse_labels
        a_labels, b_labels = parse_labels(args.a), parse_labels(args.b)
        with open_store(args.db, create=False) as store:
            a_runs, b_runs = store.runs_for_sides(a_labels, b_labels)
            return run(a_runs, b_runs, sides_named=(" with " + labels_text(a_labels),
                                                   " with " + labels_text(b_labels)), **options)
    if args.a or args.b:
        raise ReportError("--a and --b choose runs of a store: give --db too")
    if not args.files or not args.vs:
        raise ReportError("compare needs files on both sides: A... --vs B...")
    sides = []
    for paths in (args.files, args.vs):
        runs = []
        for path in paths:
            report = load_report(path)
            warn_about(report, display_name(path))
            runs.append(FileRun(report, display_name(path)))
        sides.append(runs)
    return run(sides[0], sides[1], sides_named=("", ""), **options)


def run_trace(args):
    from .trace import note_unplaced, write_trace
    report = load_report(args.file)
    name = display_name(args.file)
    warn_about(report, name)
    note_unplaced(write_trace(report, name, args.output), name)
    return 0


def run_store_add(args):
    from .store import add_files, parse_labels
    labels = parse_labels(args.label)
    refused = add_files(args.db, args.files, labels, sys.stdout, sys.stderr)
    return 2 if refused else 0


def run_store_list(args):
    from .store import list_text, open_store, parse_labels
    labels = parse_labels(args.label)
    with open_store(args.db, create=False) as store:
        runs = store.runs(store.matching(labels))
    print(json.dumps({"runs": runs}) if args.json else list_text(runs))
    return 0


FIELDS_HELP = ("comma-separated names or shell patterns, as the CSV header or the dotted JSON "
               "keys give them")


def parser():
    p = argparse.ArgumentParser(prog=PROG, description="Summaries, plots, comparisons "
                                "and Perfetto traces of emberline report files (CSV or JSON "
                                "lines), and a store of runs.")
    commands = p.add_subparsers(dest="command", required=True)
    s = commands.add_parser("summary", help="statistics and energy of every numeric field")
    s.add_argument("file", help="report file, or - for standard input")
    s.add_argument("--json", action="store_true", help="print one JSON object")
    s.set_defaults(run=run_summary)
    g = commands.add_parser("plot", help="chosen fields over time, one panel per unit")
    g.add_argument("file", help="report file, or - for standard input")
    g.add_argument("-o", "--output", required=True, help="image to write: .png or .svg")
    g.add_argument("--fields", action="append",
                   help=FIELDS_HELP + " (default: raw and smoothed power)")
    g.set_defaults(run=run_plot)
    c = commands.add_parser(
        "compare", help="does B differ from A? means, deltas and 95%% intervals of every field",
        usage="%(prog)s A... --vs B... [options]\n       %(prog)s --db DB --a KEY=VALUE... "
              "--b KEY=VALUE... [options]")
    c.add_argument("files", nargs="*", metavar="A", help="report files of side A, the baseline")
    c.add_argument("--vs", nargs="+", metavar="B", help="report files of side B")
    c.add_argument("--db", help="a store of runs: an SQLite file or a postgresql:// URL")
    c.add_argument("--a", nargs="+", action="extend", metavar="KEY=VALUE",
                   help="labels of side A's runs in the store")
    c.add_argument("--b", nargs="+", action="extend", metavar="KEY=VALUE",
                   help="labels of side B's runs in the store")
    c.add_argument("--fields", action="append",
                   help=FIELDS_HELP + " (default: every numeric field both sides have)")
    c.add_argument("--json", action="store_true", help="print one JSON object")
    c.add_argument("--fail-above", type=float, metavar="PCT",
                   help="exit 1 when a watched field is higher by more than PCT percent "
                        "(watched: the --fields, or raw and smoothed power)")
    c.add_argument("--plot", metavar="OUT", help="image of the watched fields: .png or .svg")
    c.set_defaults(run=run_compare)
    t = commands.add_parser("trace", help="every numeric field as a counter track of a Perfetto "
                            "trace, at each report's device_timestamp")
    t.add_argument("file", help="report file, or - for standard input")
    t.add_argument("-o", "--output", required=True, help="trace to write (.perfetto-trace)")
    t.set_defaults(run=run_trace)
    st = commands.add_parser("store", help="a store of runs: SQLite in a file, or PostgreSQL")
    store_commands = st.add_subparsers(dest="store_command", required=True)
    DB_HELP = "an SQLite file, made on first use, or a postgresql:// URL"
    sa = store_commands.add_parser("add", help="import report files, each as one run")
    sa.add_argument("db", metavar="DB", help=DB_HELP)
    sa.add_argument("files", nargs="+", metavar="FILE", help="report files")
    sa.add_argument("--label", action="append", metavar="KEY=VALUE",
                    help="a label of every run added, e.g. build=1234 (may be repeated)")
    sa.set_defaults(run=run_store_add)
    sl = store_commands.add_parser("list", help="the runs and their labels")
    sl.add_argument("db", metavar="DB", help=DB_HELP)
    sl.add_argument("--label", action="append", metavar="KEY=VALUE",
                    help="only runs with this label (may be repeated)")
    sl.add_argument("--json", action="store_true", help="print one JSON object")
    sl.set_defaults(run=run_store_list)
    return p


def main(argv):
    args = parser().parse_args(argv)
    try:
        return args.run(args)
    except ReportError as e:
        print("%s: error: %s" % (PROG, e), file=sys.stderr)
        return 2
    except BrokenPipeError:
        return 0
