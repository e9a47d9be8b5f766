"""tools/emberline-report store, and compare from a store, against real databases:
  store_test.py sqlite       SQLite in a temporary file
  store_test.py postgresql   a PostgreSQL server this test starts in a temporary directory with
                             Debian's initdb and pg_ctl; exit 77 (skipped), with the reason,
                             where it cannot be started"""

import contextlib
import glob
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

TOOL = str(Path(__file__).resolve().parents[2] / "tools" / "emberline-report")
WAIT_S = 30
TABLES = ("emberline_runs", "emberline_labels", "emberline_fields")


def report(power, start, reports=12):
    """A CSV run whose power wanders around `power`; its content differs with `start`."""
    lines = ["sequence,timestamp,device_timestamp,power.raw,power.smooth,stats.gpu.util"]
    for i in range(reports):
        p = power + 0.3 * ((i * 7) % 5 - 2)
        lines.append("%d,%.3f,%.3f,%.3f,%.3f,0.50000" % (i + 1, i + 1.0, start + i, p, p))
    return "\n".join(lines) + "\n"


def tool(*args):
    r = subprocess.run([TOOL] + list(args), capture_output=True, text=True, timeout=120)
    return r.returncode, r.stdout, r.stderr


def wait_for(condition, what):
    deadline = time.monotonic() + WAIT_S
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError("gave up waiting for " + what)
        time.sleep(0.01)


class StoreCases:
    """Cases for both back ends. A subclass gives `db`, `query` (SQL from outside the tool), and
    `holding_import` (a lock that stops an import midway, yielding a test that it is there)."""

    def setUp(self):
        self.dir = tempfile.TemporaryDirectory()
        self.addCleanup(self.dir.cleanup)

    def file(self, name, text):
        Path(self.dir.name, name).write_text(text)
        return str(Path(self.dir.name, name))

    def counts(self):
        return [self.query("SELECT count(*) FROM " + table)[0][0] for table in TABLES]

    def test_add_list_and_compare_by_label(self):
        a1, a2 = self.file("a1.csv", report(3.0, 1e9)), self.file("a2.csv", report(3.2, 2e9))
        b1, b2 = self.file("b1.csv", report(4.0, 3e9)), self.file("b2.csv", report(4.4, 4e9))
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
        code, out, _ = tool("store", "list", self.db, "--label", "build=2", "--json")
        self.assertEqual([(r["id"], r["file"], r["reports"], r["first_device_timestamp"],
                           r["last_device_timestamp"], r["labels"]) for r in
                          json.loads(out)["runs"]],
                         [(3, "b1.csv", 12, 3e9, 3e9 + 11, {"build": "2"}),
                          (4, "b2.csv", 12, 4e9, 4e9 + 11, {"build": "2"})])
        out = tool("store", "list", self.db, "--label", "build=1", "--label", "scenario=video")[1]
        self.assertEqual([line.split()[:3] for line in out.strip().split("\n")[1:]],
                         [["1", "a1.csv", "build=1"], ["2", "a2.csv", "build=1"]])
        # The store gives what the files give, for several runs a side and for one.
        self.assertEqual(tool("compare", "--db", self.db, "--a", "build=1", "scenario=video",
                              "--b", "build=2", "--json"),
                         tool("compare", a1, a2, "--vs", b1, b2, "--json"))
        c, d = self.file("c.csv", report(3.1, 5e9)), self.file("d.csv", report(3.3, 6e9))
        tool("store", "add", self.db, c, "--label", "build=3")
        tool("store", "add", self.db, d, "--label", "build=4")
        self.assertEqual(tool("compare", "--db", self.db, "--a", "build=3", "--b", "build=4",
                              "--json"), tool("compare", c, "--vs", d, "--json"))
        out = tool("compare", "--db", self.db, "--a", "build=1", "--b", "build=2")[1]
        self.assertEqual(out.split("\n")[0], "A: 2 runs with build=1, 24 reports: "
                                             "run 1 (a1.csv), run 2 (a2.csv)")
        for labels, message in ((["--a", "build=3", "--b", "build=2"], "one run with several"),
                                (["--a", "x=1", "--b", "build=2"], "has the labels of side A: "
                                                                   "x=1"),
                                (["--a", "build=1", "--b", "scenario=video"],
                                 "run 1 has the labels of both sides")):
            code, out, err = tool("compare", "--db", self.db, *labels)
            self.assertEqual((code, out, err.count("\n")), (2, "", 1), err)
            self.assertIn(message, err)

    def test_bad_input_is_one_line_and_leaves_the_store_unchanged(self):
        good = self.file("good.csv", report(3.0, 1e9))
        self.assertEqual(tool("store", "add", self.db, good)[0], 0)
        before = self.query("SELECT * FROM emberline_runs")
        new = self.file("new.csv", report(3.5, 2e9))
        damaged = self.file("damaged.csv", "sequence,timestamp,power.raw\n")
        for args, message in (
                (["store", "add", self.db, new, damaged],
                 "damaged.csv: the file holds a CSV header but no reports"),
                (["store", "add", self.db, new, "--label", "build"], "a label is KEY=VALUE"),
                (["store", "add", self.db, new, "--label", "a=1", "--label", "a=2"],
                 "the label 'a' is given twice"),
                (["store", "add", self.db, new, good + ".missing"], "cannot read "),
                (["schema 2", "store", "add", self.db, new], "is a store of schema version 2; "
                                                            "this emberline-report reads version 1"),
                (["schema 2", "store", "list", self.db], "is a store of schema version 2"),
                (["schema 2", "compare", "--db", self.db, "--a", "a=1", "--b", "b=1"],
                 "is a store of schema version 2")):
            with self.subTest(message=message, args=args[:2]):
                if args[0] == "schema 2":
                    self.query("UPDATE emberline_store SET value = '2'")
                    args = args[1:]
                code, out, err = tool(*args)
                self.assertEqual((code, out, err.count("\n")), (2, "", 1), err)
                self.assertIn(message, err)
                self.assertEqual(self.query("SELECT * FROM emberline_runs"), before)

    def test_concurrent_adds_lose_nothing(self):
        # Eight hosts at once on a store none has used yet, two of them with the same file.
        paths = [self.file("h%d.csv" % i, report(3.0 + i / 10, 1e9 * (i + 1))) for i in range(7)]
        adds = [subprocess.Popen([TOOL, "store", "add", self.db, path, "--label", "host=%d" % i],
                                 stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
                for i, path in enumerate(paths + paths[:1])]
        results = [(a.wait(timeout=120), a.stderr.read()) for a in adds]
        for a in adds:
            a.stderr.close()
        self.assertEqual(sorted(code for code, _ in results), [0] * 7 + [2], results)
        self.assertIn("already in the store as run", "".join(err for _, err in results))
        self.assertEqual(sorted(r[0] for r in self.query("SELECT file_name FROM emberline_runs")),
                         ["h%d.csv" % i for i in range(7)])
        self.assertEqual(self.counts(), [7, 7, 7 * 3])

    def test_an_import_killed_midway_leaves_no_half_run(self):
        self.assertEqual(tool("store", "add", self.db, self.file("first.csv", report(3, 1e9)))[0], 0)
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
        self.settle()
        self.assertEqual(self.counts(), before)
        code, out, err = tool("store", "list", self.db)
        self.assertEqual((code, len(out.strip().split("\n"))), (0, 2), err)


class Sqlite(StoreCases, unittest.TestCase):
    def setUp(self):
        super().setUp()
        self.db = str(Path(self.dir.name, "runs.db"))

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

    def settle(self):
        pass

    def test_a_missing_or_foreign_file_is_one_line(self):
        missing = str(Path(self.dir.name, "none.db"))
        foreign = self.file("foreign.db", "not a database, but long enough to be read as one\n" * 4)
        for args, message in ((["store", "list", missing], "no store at %s: no such file" % missing),
                              (["compare", "--db", missing, "--a", "a=1", "--b", "b=1"],
                               "no store at"),
                              (["store", "add", foreign, self.file("a.csv", report(3, 1e9))],
                               "file is not a database")):
            with self.subTest(message=message):
                code, out, err = tool(*args)
                self.assertEqual((code, out, err.count("\n")), (2, "", 1), err)
                self.assertIn(message, err)
        self.assertFalse(os.path.exists(missing))


class Postgres(StoreCases, unittest.TestCase):
    server = None  # the URL of a database on the test's server, with %s for its name
    databases = 0

    def setUp(self):
        import psycopg2
        super().setUp()
        Postgres.databases += 1
        admin = psycopg2.connect(self.server % "postgres")
        admin.autocommit = True
        admin.cursor().execute("CREATE DATABASE store%d" % Postgres.databases)
        admin.close()
        self.db = self.server % ("store%d" % Postgres.databases)

    def query(self, sql):
        import psycopg2
        with psycopg2.connect(self.db) as c:
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

    def settle(self):
        # The killed importer's server process ends its transaction when it finds the client gone.
        wait_for(lambda: not self.sessions(), "the killed import's session to end")

    def test_a_wrong_url_is_one_line_without_the_password(self):
        for url, message in ((self.server.replace("emberline@", "emberline:secret@") % "nodb",
                              'database "nodb" does not exist'),
                             ("postgresql://emberline:secret@[::1/x", "invalid dsn")):
            with self.subTest(message=message):
                code, out, err = tool("store", "list", url)
                self.assertEqual((code, out, err.count("\n")), (2, "", 1), err)
                self.assertIn(message, err)
                self.assertNotIn("secret", err)


def start_postgres(directory):
    """Starts a server with its socket in `directory`; returns the reason where it cannot."""
    try:
        import psycopg2  # noqa: F401
    except ImportError:
        return "psycopg2 is missing (Debian's python3-psycopg2, which scripts/setup.sh installs)"
    # Debian's own, not a copy elsewhere on the PATH that another machine may not have.
    initdbs = sorted(glob.glob("/usr/lib/postgresql/*/bin/initdb"),
                     key=lambda p: int(Path(p).parts[-3]) if Path(p).parts[-3].isdigit() else 0)
    if not initdbs:
        return "Debian's postgresql is not installed (scripts/setup.sh installs it)"
    bin_dir = Path(initdbs[-1]).parent
    as_user = []
    if os.geteuid() == 0:
        # The server refuses to run as root.
        user = "postgres"
        try:
            pwd.getpwnam(user)
        except KeyError:
            user = "nobody"
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
    Postgres.stop = as_user + [str(bin_dir / "pg_ctl"), "-D", data, "-m", "immediate", "stop"]
    return None


def main():
    if sys.argv[1:2] != ["postgresql"]:
        sys.argv[1:2] = []
        del globals()["Postgres"]
        unittest.main(verbosity=2)
    del sys.argv[1]
    directory = tempfile.mkdtemp(prefix="emberline-pg-")
    try:
        reason = start_postgres(directory)
        if reason:
            print("skipped: " + reason)
            sys.exit(77)
        import psycopg2
        with contextlib.closing(psycopg2.connect(Postgres.server % "postgres")) as c:
            print("PostgreSQL", c.server_version, file=sys.stderr)
        del globals()["Sqlite"]
        # Not exit=True: the server is stopped first, and the failures still decide the status.
        passed = unittest.main(verbosity=2, exit=False).result.wasSuccessful()
    finally:
        if Postgres.server:
            subprocess.run(Postgres.stop, capture_output=True, timeout=60)
        shutil.rmtree(directory, ignore_errors=True)
    sys.exit(0 if passed else 1)


if __name__ == "__main__":
    main()
