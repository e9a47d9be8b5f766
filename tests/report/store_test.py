"""tools/emberline-report store, and compare from a store, against real databases:
  store_test.py sqlite       SQLite in a temporary file
  store_test.py postgresql   a PostgreSQL server this test starts in a temporary directory with
                             Debian's initdb and pg_ctl; exit 77 (skipped), with the reason,
                             where it cannot be started"""

import atexit
import contextlib
import glob
import itertools
import json
import os
import pwd
import shutil
import signal
import sqlite3
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

from common import TOOL, Case, run_text, skip_if, tool

WAIT_S = 30


def report(power, start):
    """Twelve reports whose power wanders around `power`; the content differs with `start`."""
    return run_text([power + 0.3 * ((i * 7) % 5 - 2) for i in range(12)], start=start)


def wait_for(condition, what):
    deadline = time.monotonic() + WAIT_S
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError("gave up waiting for " + what)
        time.sleep(0.01)


class StoreCases:
    """Cases for both back ends. A subclass gives `db`, `query` (SQL from outside the tool),
    `holding_import` (a lock that stops an import midway, yielding a test that it is there; once
    it is left, the held import is gone) and `wrong_stores` (stores its back end cannot open,
    with the message each gives)."""

    def counts(self):
        return [self.query("SELECT count(*) FROM emberline_" + table)[0][0]
                for table in ("runs", "labels", "fields")]

    def test_add_list_and_compare_by_label(self):
        a1, a2, b1, b2, c, d = (self.file(name + ".csv", report(power, i * 1e9)) for i, name, power
                                in zip(range(1, 7), ("a1", "a2", "b1", "b2", "c", "d"),
                                       (3.0, 3.2, 4.0, 4.4, 3.1, 3.3)))
        self.assertEqual(tool("store", "add", self.db, a1, a2, "--label", "build=1", "--label",
                              "scenario=video"),
                         (0, "run 1: %s, 12 reports, build=1 scenario=video\n"
                             "run 2: %s, 12 reports, build=1 scenario=video\n" % (a1, a2), ""))
        # A file already stored, under another name, is refused; the others go in.
        copy = self.file("copy.csv", report(3.0, 1e9))
        self.assertEqual(tool("store", "add", self.db, copy, b1, b2, "--label", "build=2"),
                         (2, "run 3: %s, 12 reports, build=2\nrun 4: %s, 12 reports, build=2\n"
                          % (b1, b2), "emberline-report: error: %s: already in the store as run "
                                      "1 (a1.csv)\n" % copy))
        self.assertEqual(self.counts(), [4, 4 + 2, 4 * 3])
        for path, build in ((c, "build=3"), (d, "build=4")):
            self.assertEqual(tool("store", "add", self.db, path, "--label", build)[0], 0)
        runs = json.loads(tool("store", "list", self.db, "--label", "build=2", "--json")[1])["runs"]
        self.assertEqual([(r["id"], r["file"], r["reports"], r["first_device_timestamp"],
                           r["last_device_timestamp"], r["labels"]) for r in runs],
                         [(3, "b1.csv", 12, 3e9, 3e9 + 11, {"build": "2"}),
                          (4, "b2.csv", 12, 4e9, 4e9 + 11, {"build": "2"})])
        out = tool("store", "list", self.db, "--label", "build=1", "--label", "scenario=video")[1]
        self.assertEqual([line.split()[:3] for line in out.strip().split("\n")[1:]],
                         [["1", "a1.csv", "build=1"], ["2", "a2.csv", "build=1"]])
        # The store gives what the files give, for several runs a side and for one.
        for a, b, files in ((["build=1", "scenario=video"], ["build=2"], [a1, a2, "--vs", b1, b2]),
                            (["build=3"], ["build=4"], [c, "--vs", d])):
            self.assertEqual(tool("compare", "--db", self.db, "--a", *a, "--b", *b, "--json"),
                             tool("compare", *files, "--json"))
        out = tool("compare", "--db", self.db, "--a", "build=1", "--b", "build=2")[1]
        self.assertEqual(out.split("\n")[0], "A: 2 runs with build=1, 24 reports: "
                                             "run 1 (a1.csv), run 2 (a2.csv)")
        for labels, message in ((["--a", "build=3", "--b", "build=2"], "one run with several"),
                                # Labels are all required, not any one of them.
                                (["--a", "build=2", "scenario=video", "--b", "build=1"],
                                 "has the labels of side A: build=2 scenario=video"),
                                (["--a", "build=1", "--b", "scenario=video"],
                                 "run 1 has the labels of both sides")):
            self.fails(["compare", "--db", self.db] + labels, message)

    def test_bad_input_is_one_line_and_leaves_the_store_unchanged(self):
        good, new = self.file("good.csv", report(3.0, 1e9)), self.file("new.csv", report(3.5, 2e9))
        self.assertEqual(tool("store", "add", self.db, good)[0], 0)
        before = self.query("SELECT * FROM emberline_runs")
        damaged = self.file("damaged.csv", "sequence,timestamp,power.raw\n")
        version = "is a store of schema version 2; this emberline-report reads version 1"
        for schema, cases in (
                (1, [(["store", "add", self.db, new, damaged],
                      "damaged.csv: the file holds a CSV header but no reports"),
                     (["store", "add", self.db, new, "--label", "build"], "a label is KEY=VALUE"),
                     (["store", "add", self.db, new, "--label", "a=1", "--label", "a=2"],
                      "the label 'a' is given twice"),
                     (["store", "add", self.db, new, good + ".missing"], "cannot read ")]
                 + self.wrong_stores()),
                (2, [(["store", "add", self.db, new], version),
                     (["store", "list", self.db], version),
                     (["compare", "--db", self.db, "--a", "a=1", "--b", "b=1"], version)])):
            self.query("UPDATE emberline_store SET value = '%d'" % schema)
            for args, message in cases:
                with self.subTest(message=message, args=args[:2]):
                    # A URL's password is never shown.
                    self.assertNotIn("secret", self.fails(args, message))
                    self.assertEqual(self.query("SELECT * FROM emberline_runs"), before)
        self.assertFalse((self.dir / "none.db").exists())

    def test_concurrent_adds_lose_nothing(self):
        # Eight hosts at once on a store none has used yet, two of them with the same file.
        paths = [self.file("h%d.csv" % i, report(3.0 + i / 10, 1e9 * (i + 1))) for i in range(7)]
        adds = [subprocess.Popen([TOOL, "store", "add", self.db, path, "--label", "host=%d" % i],
                                 stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
                for i, path in enumerate(paths + paths[:1])]
        results = [a.communicate(timeout=120)[1] for a in adds]
        self.assertEqual(sorted(a.returncode for a in adds), [0] * 7 + [2], results)
        self.assertIn("already in the store as run", "".join(results))
        self.assertEqual(sorted(r[0] for r in self.query("SELECT file_name FROM emberline_runs")),
                         ["h%d.csv" % i for i in range(7)])
        self.assertEqual(self.counts(), [7, 7, 7 * 3])

    def test_an_import_killed_midway_leaves_no_half_run(self):
        first = self.file("first.csv", report(3.0, 1e9))
        self.assertEqual(tool("store", "add", self.db, first)[0], 0)
        before = self.counts()
        with self.holding_import() as there:
            importer = subprocess.Popen([TOOL, "store", "add", self.db,
                                         self.file("second.csv", report(4.0, 2e9)),
                                         "--label", "build=2"], stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL)
            try:
                wait_for(lambda: there() or importer.poll() is not None, "the import midway")
                self.assertIsNone(importer.poll(), "the import ended before it was held")
            finally:
                importer.send_signal(signal.SIGKILL)
                importer.wait()
        self.assertEqual(self.counts(), before)
        code, out, err = tool("store", "list", self.db)
        self.assertEqual((code, len(out.strip().split("\n"))), (0, 2), err)


class Sqlite(StoreCases, Case):
    def setUp(self):
        super().setUp()
        self.db = str(self.dir / "runs.db")

    def query(self, sql):
        with sqlite3.connect(self.db) as c:
            return c.execute(sql).fetchall()

    @contextlib.contextmanager
    def holding_import(self):
        # A reader keeps the importer from committing; its journal shows it has begun writing.
        reader = sqlite3.connect(self.db, isolation_level=None)
        reader.execute("BEGIN")
        reader.execute("SELECT count(*) FROM emberline_runs").fetchall()
        yield lambda: os.path.exists(self.db + "-journal")
        reader.execute("COMMIT")
        reader.close()

    def wrong_stores(self):
        missing = str(self.dir / "none.db")
        foreign = self.file("foreign.db", "not a database, but long enough to be read as one\n" * 4)
        return [(["store", "list", missing], "no store at %s: no such file" % missing),
                (["compare", "--db", missing, "--a", "a=1", "--b", "b=1"], "no store at"),
                (["store", "add", foreign, self.file("a.csv", report(3, 1e9))],
                 "file is not a database")]


class Postgres(StoreCases, Case):
    server = None  # the URL of a database on the test's server, with %s for its name
    databases = itertools.count(1)

    def setUp(self):
        super().setUp()
        name = "store%d" % next(Postgres.databases)
        self.query("CREATE DATABASE " + name, self.server % "postgres")
        self.db = self.server % name

    def query(self, sql, db=None):
        import psycopg2
        with contextlib.closing(psycopg2.connect(db or self.db)) as c:
            c.autocommit = True
            cursor = c.cursor()
            cursor.execute(sql)
            return cursor.fetchall() if cursor.description else None

    def sessions(self, waiting=False):
        return self.query("SELECT count(*) FROM pg_stat_activity WHERE application_name = "
                          "'emberline-report'" + (" AND wait_event_type = 'Lock'" if waiting
                                                  else ""))[0][0]

    @contextlib.contextmanager
    def holding_import(self):
        # The importer waits for the fields table with its run already inserted.
        import psycopg2
        holder = psycopg2.connect(self.db)
        holder.cursor().execute("LOCK TABLE emberline_fields IN SHARE MODE")
        yield lambda: self.sessions(waiting=True)
        holder.rollback()
        holder.close()
        # The killed importer's server process ends its transaction when it finds the client gone.
        wait_for(lambda: not self.sessions(), "the killed import's session to end")

    def wrong_stores(self):
        return [(["store", "list", self.server.replace("emberline@", "emberline:secret@") % "nodb"],
                 'database "nodb" does not exist'),
                (["store", "list", "postgresql://emberline:secret@[::1/x"], "invalid dsn")]


def start_postgres(directory):
    """Starts a server with its socket in `directory`; returns the reason where it cannot."""
    try:
        import psycopg2  # noqa: F401
    except ImportError:
        return "psycopg2 is missing (Debian's python3-psycopg2, which scripts/setup.sh installs)"
    # Debian's own, not a copy elsewhere on the PATH that another machine may not have.
    initdbs = glob.glob("/usr/lib/postgresql/[0-9]*/bin/initdb")
    if not initdbs:
        return "Debian's postgresql is not installed (scripts/setup.sh installs it)"
    bin_dir = Path(max(initdbs, key=lambda p: float(Path(p).parts[-3]))).parent
    as_user = []
    if os.geteuid() == 0:
        # The server refuses to run as root.
        user = "postgres" if "postgres" in [p.pw_name for p in pwd.getpwall()] else "nobody"
        as_user = ["runuser", "-u", user, "--"]
        shutil.chown(directory, user)
    data = os.path.join(directory, "data")
    for step in ([str(bin_dir / "initdb"), "-D", data, "-A", "trust", "-U", "emberline", "-E",
                  "UTF8", "--locale=C", "--no-sync"],
                 [str(bin_dir / "pg_ctl"), "-D", data, "-l", os.path.join(directory, "log"), "-w",
                  "-t", str(WAIT_S), "-o", "-k %s -c listen_addresses='' -F" % directory,
                  "start"]):
        r = subprocess.run(as_user + step, capture_output=True, text=True, timeout=120)
        if r.returncode != 0:
            lines = (r.stderr or r.stdout).strip().splitlines() or [str(r.returncode)]
            return "%s failed: %s" % (Path(step[0]).name, lines[-1])
    Postgres.server = "postgresql://emberline@/%%s?host=%s" % directory
    # Stopped when the tests end, before the directory goes (exit handlers run last first).
    stop = [str(bin_dir / "pg_ctl"), "-D", data, "-m", "immediate", "stop"]
    atexit.register(subprocess.run, as_user + stop, capture_output=True, timeout=60)
    return None


def main():
    if sys.argv[1:2] != ["postgresql"]:
        del sys.argv[1:2], globals()["Postgres"]
        unittest.main(verbosity=2)
    del sys.argv[1], globals()["Sqlite"]
    directory = tempfile.mkdtemp(prefix="emberline-pg-")
    atexit.register(shutil.rmtree, directory, ignore_errors=True)
    skip_if(start_postgres(directory))
    import psycopg2
    with contextlib.closing(psycopg2.connect(Postgres.server % "postgres")) as c:
        print("PostgreSQL", c.server_version, file=sys.stderr)
    unittest.main(verbosity=2)


if __name__ == "__main__":
    main()
