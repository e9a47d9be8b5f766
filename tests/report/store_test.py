"""tools/emberline-report store, and compare from a store, against real databases:
  store_test.py sqlite       SQLite in a temporary file
  store_test.py postgresql   a PostgreSQL server this test starts in a temporary directory with
                             Debian's initdb and pg_ctl; exit 77 (skipped), with the reason,
                             where it cannot be started"""

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

ROOT = Path(__file__).resolve().parents[2]
TOOL = str(ROOT / "tools" / "emberline-report")
WAIT_S = 30


def report(power, start, reports=12, gpu=0.5):
    """A CSV run whose power wanders around `power`; its content differs with `start`."""
    lines = ["sequence,timestamp,device_timestamp,power.raw,power.smooth,stats.gpu.util"]
    for i in range(reports):
        p = power + 0.3 * ((i * 7) % 5 - 2)
        lines.append("%d,%.3f,%.3f,%.3f,%.3f,%.5f" % (i + 1, i + 1.0, start + i, p, p, gpu))
    return "\n".join(lines) + "\n"


def tool(*args):
    r = subprocess.run([TOOL] + list(args), capture_output=True, text=True, timeout=120)
    return r.returncode, r.stdout, r.stderr


class StoreCases:
    """Cases for both back ends; a subclass gives `db` (its store for each test), `query` (SQL
    on it from outside the tool) and `block_import` (a lock that holds an import mid-way)."""

    def setUp(self):
        self.dir = tempfile.TemporaryDirectory()
        self.addCleanup(self.dir.cleanup)
        self.files = {}

    def file(self, name, text):
        path = Path(self.dir.name, name)
        path.write_text(text)
        self.files[name] = str(path)
        return str(path)

    def add(self, *args):
        return tool("store", "add", self.db, *args)

    def count(self, table="emberline_runs"):
        return self.query("SELECT count(*) FROM %s" % table)[0][0]

    def test_add_list_and_compare_by_label(self):
        a1, a2 = self.file("a1.csv", report(3.0, 1e9)), self.file("a2.csv", report(3.2, 2e9))
        b1, b2 = self.file("b1.csv", report(4.0, 3e9)), self.file("b2.csv", report(4.4, 4e9))
        code, out, err = self.add(a1, a2, "--label", "build=1", "--label", "scenario=video")
        self.assertEqual((code, err), (0, ""))
        self.assertEqual(out, "run 1: %s, 12 reports, build=1 scenario=video\n"
                              "run 2: %s, 12 reports, build=1 scenario=video\n" % (a1, a2))
        self.assertEqual(self.add(b1, b2, "--label", "build=2", "--label", "scenario=video")[0], 0)
        code, out, err = tool("store", "list", self.db, "--label", "build=2", "--json")
        self.assertEqual((code, err), (0, ""))
        runs = json.loads(out)["runs"]
        self.assertEqual([(r["id"], r["file"], r["reports"], r["first_device_timestamp"],
                           r["last_device_timestamp"], r["labels"]) for r in runs],
                         [(3, "b1.csv", 12, 3e9, 3e9 + 11, {"build": "2", "scenario": "video"}),
                          (4, "b2.csv", 12, 4e9, 4e9 + 11, {"build": "2", "scenario": "video"})])
        code, out, _ = tool("store", "list", self.db)
        self.assertEqual(out.split("\n")[0].split()[:4], ["run", "file", "labels", "reports"])
        self.assertEqual(out.split("\n")[4].split()[:5],
                         ["4", "b2.csv", "build=2", "scenario=video", "12"])
        # The store gives what the files give, for several runs a side and for one.
        for labels, files in ((["build=1"], [a1, a2]), (["build=1", "scenario=video"], [a1, a2])):
            stored = tool("compare", "--db", self.db, "--a", *labels, "--b", "build=2", "--json")
            direct = tool("compare", *files, "--vs", b1, b2, "--json")
            self.assertEqual(stored, direct)
        self.add(self.file("c.csv", report(3.1, 5e9)), "--label", "build=3")
        stored = tool("compare", "--db", self.db, "--a", "build=3", "--b", "build=2")
        self.assertEqual(stored[0], 2, "one run against several")
        self.add(self.file("d.csv", report(3.3, 6e9)), "--label", "build=4")
        stored = tool("compare", "--db", self.db, "--a", "build=3", "--b", "build=4", "--json")
        direct = tool("compare", self.files["c.csv"], "--vs", self.files["d.csv"], "--json")
        self.assertEqual(stored, direct)
        code, out, _ = tool("compare", "--db", self.db, "--a", "build=1", "--b", "build=2")
        self.assertEqual(out.split("\n")[0], "A: 2 runs with build=1, 24 reports: "
                                             "run 1 (a1.csv), run 2 (a2.csv)")

    def test_a_file_already_stored_is_refused_and_nothing_goes_in_twice(self):
        a = self.file("a.csv", report(3.0, 1e9))
        copy = self.file("copy.csv", report(3.0, 1e9))
        b = self.file("b.csv", report(4.0, 2e9))
        self.assertEqual(self.add(a)[0], 0)
        code, out, err = self.add(copy, b, "--label", "k=v")
        self.assertEqual((code, out, err), (2, "run 2: %s, 12 reports, k=v\n" % b,
                                            "emberline-report: error: %s: already in the store "
                                            "as run 1 (a.csv)\n" % copy))
        self.assertEqual((self.count(), self.count("emberline_fields"),
                          self.count("emberline_labels")), (2, 6, 1))

    def test_bad_input_is_one_line_and_leaves_the_store_unchanged(self):
        good = self.file("good.csv", report(3.0, 1e9))
        self.assertEqual(self.add(good)[0], 0)
        before = self.query("SELECT * FROM emberline_runs")
        new = self.file("new.csv", report(3.5, 2e9))
        damaged = self.file("damaged.csv", "sequence,timestamp,power.raw\n")
        for args, message in (([new, damaged], "damaged.csv: the file holds a CSV header but "
                                               "no reports"),
                              ([new, "--label", "build"], "a label is KEY=VALUE: 'build'"),
                              ([new, "--label", "a=1", "--label", "a=2"],
                               "the label 'a' is given twice"),
                              ([new, good + ".missing"], "cannot read ")):
            with self.subTest(message=message):
                code, out, err = self.add(*args)
                self.assertEqual((code, out, err.count("\n")), (2, "", 1), err)
                self.assertIn(message, err)
                self.assertEqual(self.query("SELECT * FROM emberline_runs"), before)
        self.query("UPDATE emberline_store SET value = '2' WHERE key = 'schema_version'")
        for args in (["store", "add", self.db, new], ["store", "list", self.db],
                     ["compare", "--db", self.db, "--a", "a=1", "--b", "b=1"]):
            with self.subTest(args=args[:2]):
                code, out, err = tool(*args)
                self.assertEqual((code, out, err.count("\n")), (2, "", 1), err)
                self.assertIn("is a store of schema version 2; this emberline-report reads "
                              "version 1", err)
        self.assertEqual(self.query("SELECT * FROM emberline_runs"), before)
        for labels, message in ((["--a", "x=1", "--b", "y=1"], "has the labels of side A: x=1"),
                                (["--a", "", "--b", "y=1"], "a label is KEY=VALUE: ''")):
            with self.subTest(message=message):
                self.query("UPDATE emberline_store SET value = '1'")
                code, out, err = tool("compare", "--db", self.db, *labels)
                self.assertEqual((code, err.count("\n")), (2, 1), err)
                self.assertIn(message, err)

    def test_concurrent_adds_lose_nothing(self):
        # Eight hosts at once on a store none has used yet, two of them with the same file.
        paths = [self.file("h%d.csv" % i, report(3.0 + i / 10, 1e9 * (i + 1))) for i in range(7)]
        paths.append(paths[0])
        adds = [subprocess.Popen([TOOL, "store", "add", self.db, path, "--label", "host=%d" % i],
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
                for i, path in enumerate(paths)]
        results = [(a.wait(timeout=120), a.stderr.read()) for a in adds]
        for a in adds:
            a.stdout.close()
            a.stderr.close()
        self.assertEqual(sorted(code for code, _ in results), [0] * 7 + [2], results)
        self.assertIn("already in the store as run", "".join(err for _, err in results))
        self.assertEqual(sorted(r[0] for r in self.query("SELECT file_name FROM emberline_runs")),
                         ["h%d.csv" % i for i in range(7)])
        self.assertEqual(self.count("emberline_fields"), 7 * 3)

    def test_an_import_killed_midway_leaves_no_half_run(self):
        self.assertEqual(self.add(self.file("first.csv", report(3.0, 1e9)))[0], 0)
        before = [self.count(t) for t in ("emberline_runs", "emberline_labels", "emberline_fields")]
        with self.block_import() as held:
            importer = subprocess.Popen([TOOL, "store", "add", self.db,
                                         self.file("second.csv", report(4.0, 2e9)),
                                         "--label", "build=2"], stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL)
            try:
                held(importer)
            finally:
                importer.send_signal(signal.SIGKILL)
                importer.wait()
        self.settle()
        self.assertEqual([self.count(t) for t in ("emberline_runs", "emberline_labels",
                                                   "emberline_fields")], before)
        code, out, err = tool("store", "list", self.db)
        self.assertEqual((code, len(out.strip().split("\n"))), (0, 2), err)


def wait_for(condition, what):
    deadline = time.monotonic() + WAIT_S
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError("gave up waiting for " + what)
        time.sleep(0.01)


class Sqlite(StoreCases, unittest.TestCase):
    def setUp(self):
        super().setUp()
        self.db = str(Path(self.dir.name, "runs.db"))

    def query(self, sql):
        with sqlite3.connect(self.db) as c:
            return c.execute(sql).fetchall()

    def block_import(self):
        test = self

        class Held:
            # A reader keeps the importer from committing; its journal shows it is mid-way.
            def __enter__(self):
                self.reader = sqlite3.connect(test.db, isolation_level=None)
                self.reader.execute("BEGIN")
                self.reader.execute("SELECT count(*) FROM emberline_runs").fetchall()
                return lambda importer: wait_for(
                    lambda: os.path.exists(test.db + "-journal") or importer.poll() is not None,
                    "the import to begin writing")

            def __exit__(self, *exc):
                self.reader.execute("COMMIT")
                self.reader.close()

        return Held()

    def settle(self):
        pass

    def test_a_missing_or_foreign_file_is_one_line(self):
        missing = str(Path(self.dir.name, "none.db"))
        self.file("foreign.db", "not a database, but long enough to be read as a header\n" * 4)
        for args, message in ((["store", "list", missing], "no store at %s: no such file" % missing),
                              (["compare", "--db", missing, "--a", "a=1", "--b", "b=1"],
                               "no store at"),
                              (["store", "add", self.files["foreign.db"],
                                self.file("a.csv", report(3.0, 1e9))],
                               "file is not a database")):
            with self.subTest(message=message):
                code, out, err = tool(*args)
                self.assertEqual((code, out, err.count("\n")), (2, "", 1), err)
                self.assertIn(message, err)
        self.assertFalse(os.path.exists(missing))


class Postgres(StoreCases, unittest.TestCase):
    server = None  # the URL of the server's socket directory, set by main
    databases = 0

    def setUp(self):
        import psycopg2
        super().setUp()
        Postgres.databases += 1
        name = "store%d" % Postgres.databases
        admin = psycopg2.connect(self.server % "postgres")
        admin.autocommit = True
        admin.cursor().execute("CREATE DATABASE " + name)
        admin.close()
        self.db = self.server % name

    def query(self, sql):
        import psycopg2
        with psycopg2.connect(self.db) as c:
            cursor = c.cursor()
            cursor.execute(sql)
            return cursor.fetchall() if cursor.description else None

    def block_import(self):
        import psycopg2
        test = self

        class Held:
            # The importer waits for the fields table with its run already inserted.
            def __enter__(self):
                self.holder = psycopg2.connect(test.db)
                self.holder.cursor().execute("LOCK TABLE emberline_fields IN SHARE MODE")
                return lambda importer: wait_for(
                    lambda: test.waiting_importers() or importer.poll() is not None,
                    "the import to wait for its lock")

            def __exit__(self, *exc):
                self.holder.rollback()
                self.holder.close()

        return Held()

    def waiting_importers(self):
        return self.query("SELECT count(*) FROM pg_stat_activity WHERE application_name = "
                          "'emberline-report' AND wait_event_type = 'Lock'")[0][0]

    def settle(self):
        # The killed importer's server process ends its transaction when it finds the client gone.
        wait_for(lambda: not self.query("SELECT count(*) FROM pg_stat_activity WHERE "
                                        "application_name = 'emberline-report'")[0][0],
                 "the killed import's session to end")

    def test_a_wrong_url_is_one_line_without_the_password(self):
        for url, message in (("postgresql://emberline:secret@/nodb?host=%s" % self.socket_dir,
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
    steps = ([str(bin_dir / "initdb"), "-D", data, "-A", "trust", "-U", "emberline", "-E",
              "UTF8", "--locale=C", "--no-sync"],
             [str(bin_dir / "pg_ctl"), "-D", data, "-l", os.path.join(directory, "log"), "-w",
              "-t", str(WAIT_S), "-o", "-k %s -c listen_addresses='' -F" % directory, "start"])
    for step in steps:
        r = subprocess.run(as_user + step, capture_output=True, text=True, timeout=120)
        if r.returncode != 0:
            lines = (r.stderr or r.stdout).strip().splitlines()
            return "%s failed: %s" % (Path(step[0]).name, lines[-1] if lines else r.returncode)
    Postgres.server = "postgresql://emberline@/%%s?host=%s" % directory
    Postgres.socket_dir = directory
    Postgres.stop = as_user + [str(bin_dir / "pg_ctl"), "-D", data, "-m", "immediate", "stop"]
    return None


def main():
    back_end = sys.argv.pop(1) if len(sys.argv) > 1 else "sqlite"
    if back_end == "sqlite":
        del globals()["Postgres"]
        unittest.main(verbosity=2)
    directory = tempfile.mkdtemp(prefix="emberline-pg-")
    try:
        reason = start_postgres(directory)
        if reason:
            print("skipped: " + reason)
            sys.exit(77)
        version = subprocess.run(["psql", "-At", "-c", "SHOW server_version",
                                  Postgres.server % "postgres"], capture_output=True, text=True)
        print("PostgreSQL", version.stdout.strip() or "(version unknown)", file=sys.stderr)
        del globals()["Sqlite"]
        unittest.main(verbosity=2, exit=False)
    finally:
        if Postgres.server:
            subprocess.run(Postgres.stop, capture_output=True, timeout=60)
        shutil.rmtree(directory, ignore_errors=True)


if __name__ == "__main__":
    main()
