"""A store of runs in a database: SQLite in one file for one desk, or PostgreSQL that the hosts
of a lab share.

Each run is one row with its labels and, per numeric field, the figures `summary` gives and the
readings themselves, packed as little-endian float64 (NaN for a null), so that `compare` can
work from the store as it does from files. A run goes in as one transaction: a killed import
leaves nothing of it, and the content hash being unique keeps a file from going in twice, also
when two hosts add it at the same moment."""

import array
import contextlib
import math
import datetime
import hashlib
import os
import re
import sys


from . import PROG
from .reading import ReportError, decode, display_name, parse_report, read_bytes
from .summary import field_summary, fmt, table
from .units import scale_of

SCHEMA_VERSION = 1

# One schema for both back ends; only the two types they spell differently are filled in.
SCHEMA = (
    """CREATE TABLE emberline_store (
           key TEXT PRIMARY KEY,
           value TEXT NOT NULL)""",
    """CREATE TABLE emberline_runs (
           id {serial} PRIMARY KEY,
           sha256 TEXT NOT NULL UNIQUE,
           file_name TEXT NOT NULL,
           imported_at TEXT NOT NULL,
           format TEXT NOT NULL,
           reports INTEGER NOT NULL,
           first_device_timestamp DOUBLE PRECISION,
           last_device_timestamp DOUBLE PRECISION,
           timestamps {blob} NOT NULL)""",
    """CREATE TABLE emberline_labels (
           run_id INTEGER NOT NULL REFERENCES emberline_runs (id) ON DELETE CASCADE,
           key TEXT NOT NULL,
           value TEXT NOT NULL,
           PRIMARY KEY (run_id, key))""",
    "CREATE INDEX emberline_labels_by_value ON emberline_labels (key, value)",
    """CREATE TABLE emberline_fields (
           run_id INTEGER NOT NULL REFERENCES emberline_runs (id) ON DELETE CASCADE,
           position INTEGER NOT NULL,
           name TEXT NOT NULL,
           unit TEXT,
           count INTEGER NOT NULL,
           nulls INTEGER NOT NULL,
           mean DOUBLE PRECISION,
           min DOUBLE PRECISION,
           median DOUBLE PRECISION,
           p95 DOUBLE PRECISION,
           max DOUBLE PRECISION,
           energy_j DOUBLE PRECISION,
           report_indexes {blob},
           readings {blob} NOT NULL,
           PRIMARY KEY (run_id, position))""",
)
TYPES = {"sqlite": {"serial": "INTEGER", "blob": "BLOB"},
         "postgresql": {"serial": "SERIAL", "blob": "BYTEA"}}
# Serialises creating the schema among hosts that first use one PostgreSQL database at once.
SCHEMA_LOCK = 0x656D6265726C696E
# How long an SQLite writer waits for another to finish, in seconds.
SQLITE_WAIT_S = 60


def is_url(db):
    return db.startswith(("postgresql://", "postgres://"))


# A password in a URL's user part or in its query; libpq's messages may quote the URL back.
PASSWORDS = (re.compile(r"(://[^/@:]*:)[^/@]*@"), re.compile(r"(password=)[^&\s\"']*"))


def redact(text):
    for pattern in PASSWORDS:
        text = pattern.sub(r"\1***@" if pattern is PASSWORDS[0] else r"\1***", text)
    return text


def shown(db):
    """The store's name for messages: a URL without its password."""
    return redact(db) if is_url(db) else db


def parse_labels(arguments):
    labels = {}
    for argument in arguments or ():
        key, equals, value = argument.partition("=")
        if not equals or not key:
            raise ReportError("a label is KEY=VALUE: '%s'" % argument)
        if key in labels:
            raise ReportError("the label '%s' is given twice" % key)
        labels[key] = value
    return labels


def labels_text(labels):
    return " ".join("%s=%s" % item for item in labels.items())


def pack(values, kind="d"):
    """Little-endian float64 ("d", None as NaN) or uint32 ("I") of a list of values."""
    packed = array.array(kind, [math.nan if v is None else v for v in values] if kind == "d"
                         else values)
    if sys.byteorder == "big":
        packed.byteswap()
    return packed.tobytes()


def unpack(blob, kind="d"):
    packed = array.array(kind)
    packed.frombytes(bytes(blob))
    if sys.byteorder == "big":
        packed.byteswap()
    return packed


class Prepared:
    """Everything of one report file that goes into the store, worked out before the
    transaction, so that the transaction is short."""

    def __init__(self, path, content):
        self.file_name = os.path.basename(display_name(path))
        self.sha256 = hashlib.sha256(content).hexdigest()
        try:
            report = parse_report(decode(content))
        except ReportError as e:
            raise ReportError("%s: %s" % (display_name(path), e))
        self.report = report
        self.format = report.kind
        self.reports = len(report.times)
        stamps = [r for r in report.columns.get("device_timestamp", ((), ()))[1]
                  if type(r) is float]
        self.first = stamps[0] if stamps else None
        self.last = stamps[-1] if stamps else None
        self.timestamps = pack(report.times)
        self.fields = []
        for position, name in enumerate(report.numeric_fields()):
            f = field_summary(report, name)
            indexes, readings = report.columns[name]
            scale = scale_of(name)
            if scale != 1.0:
                readings = [None if r is None else r * scale for r in readings]
            self.fields.append((
                position, name, f["unit"], f["count"], f["nulls"], f["mean"], f["min"],
                f["median"], f["p95"], f["max"], f.get("energy_j"),
                None if len(indexes) == self.reports else pack(indexes, "I"),
                pack(readings)))


class Duplicate(Exception):
    def __init__(self, run_id, file_name):
        super().__init__(run_id, file_name)
        self.run_id = run_id
        self.file_name = file_name


class Store:
    def __init__(self, connection, kind, where):
        self.connection = connection
        self.kind = kind
        self.where = where

    def execute(self, sql, parameters=(), many=False):
        if self.kind == "postgresql":
            sql = sql.replace("?", "%s")
            if many:
                parameters = [tuple(self.binary(p) for p in row) for row in parameters]
            else:
                parameters = tuple(self.binary(p) for p in parameters)
        cursor = self.connection.cursor()
        if many:
            cursor.executemany(sql, parameters)
        else:
            cursor.execute(sql, parameters)
        return cursor

    def binary(self, value):
        if isinstance(value, bytes):
            import psycopg2
            return psycopg2.Binary(value)
        return value

    @contextlib.contextmanager
    def transaction(self, writing=True):
        if self.kind == "sqlite":
            # IMMEDIATE takes the write lock at the start, so two writers queue rather than
            # deadlock on upgrading their locks.
            self.execute("BEGIN IMMEDIATE" if writing else "BEGIN")
        try:
            yield
        except BaseException:
            self.connection.rollback()
            raise
        self.connection.commit()

    def schema_version(self):
        if self.kind == "sqlite":
            exists = self.execute("SELECT 1 FROM sqlite_master WHERE type = 'table' AND "
                                  "name = 'emberline_store'").fetchone()
        else:
            # A query of pg_tables, not to_regclass: the catalog cache that to_regclass reads
            # may not yet show a table another host made while this one waited for the lock.
            exists = self.execute("SELECT 1 FROM pg_catalog.pg_tables WHERE schemaname = "
                                  "current_schema() AND tablename = 'emberline_store'").fetchone()
        if not exists:
            return None
        row = self.execute("SELECT value FROM emberline_store WHERE key = 'schema_version'"
                           ).fetchone()
        return row[0] if row else ""

    def ensure_schema(self, create):
        with self.transaction(writing=False):
            version = self.schema_version()
        if version is None and create:
            # Only making the schema takes the write lock; an SQLite writer's commit waits for
            # every reader, even with nothing written.
            with self.transaction():
                if self.kind == "postgresql":
                    self.execute("SELECT pg_advisory_xact_lock(?)", (SCHEMA_LOCK,))
                version = self.schema_version()
                if version is None:
                    for statement in SCHEMA:
                        self.execute(statement.format(**TYPES[self.kind]))
                    self.execute("INSERT INTO emberline_store (key, value) VALUES "
                                 "('schema_version', ?)", (str(SCHEMA_VERSION),))
                    version = str(SCHEMA_VERSION)
        if version is None:
            raise ReportError("%s holds no store of runs: add runs to it first" % self.where)
        if version != str(SCHEMA_VERSION):
            raise ReportError("%s is a store of schema version %s; this emberline-report reads "
                              "version %d" % (self.where, version or "(none)", SCHEMA_VERSION))

    def add(self, prepared, labels):
        """Adds one run in one transaction and returns its id; raises Duplicate if a run of the
        same content is there."""
        imported_at = datetime.datetime.now(datetime.timezone.utc).strftime(
            "%Y-%m-%dT%H:%M:%SZ")
        try:
            with self.transaction():
                self.refuse_duplicate(prepared.sha256)
                run_id = self.execute(
                    "INSERT INTO emberline_runs (sha256, file_name, imported_at, format, reports, "
                    "first_device_timestamp, last_device_timestamp, timestamps) "
                    "VALUES (?, ?, ?, ?, ?, ?, ?, ?) RETURNING id",
                    (prepared.sha256, prepared.file_name, imported_at, prepared.format,
                     prepared.reports, prepared.first, prepared.last, prepared.timestamps)
                ).fetchone()[0]
                self.execute("INSERT INTO emberline_labels (run_id, key, value) "
                             "VALUES (?, ?, ?)",
                             [(run_id, key, value) for key, value in labels.items()], many=True)
                self.execute("INSERT INTO emberline_fields (run_id, position, name, unit, count, "
                             "nulls, mean, min, median, p95, max, energy_j, report_indexes, "
                             "readings) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
                             [(run_id,) + field for field in prepared.fields], many=True)
        except Exception as e:
            if self.is_unique_violation(e):
                # Another host added the same file meanwhile and committed first.
                with self.transaction(writing=False):
                    self.refuse_duplicate(prepared.sha256)
            raise
        return run_id

    def refuse_duplicate(self, sha256):
        row = self.execute("SELECT id, file_name FROM emberline_runs WHERE sha256 = ?",
                           (sha256,)).fetchone()
        if row:
            raise Duplicate(row[0], row[1])

    def is_unique_violation(self, error):
        if self.kind == "sqlite":
            import sqlite3
            return isinstance(error, sqlite3.IntegrityError)
        import psycopg2.errors
        return isinstance(error, psycopg2.errors.UniqueViolation)

    def matching(self, labels):
        """Ids of the runs that have every one of the labels, oldest first."""
        sql = "SELECT id FROM emberline_runs r"
        parameters = []
        for number, (key, value) in enumerate(labels.items()):
            sql += (" WHERE" if number == 0 else " AND") + (
                " EXISTS (SELECT 1 FROM emberline_labels l WHERE l.run_id = r.id AND "
                "l.key = ? AND l.value = ?)")
            parameters += [key, value]
        return [row[0] for row in self.execute(sql + " ORDER BY id", parameters).fetchall()]

    def runs(self, ids):
        """Run rows and their labels, by id, in the order of `ids`."""
        if not ids:
            return []
        marks = ", ".join("?" * len(ids))
        rows = self.execute("SELECT id, file_name, imported_at, format, reports, "
                            "first_device_timestamp, last_device_timestamp, sha256 "
                            "FROM emberline_runs WHERE id IN (%s)" % marks, ids).fetchall()
        labels = {run_id: {} for run_id in ids}
        for run_id, key, value in self.execute(
                "SELECT run_id, key, value FROM emberline_labels WHERE run_id IN (%s) "
                "ORDER BY run_id, key" % marks, ids).fetchall():
            labels[run_id][key] = value
        by_id = {row[0]: row for row in rows}
        keys = ("id", "file", "imported_at", "format", "reports", "first_device_timestamp",
                "last_device_timestamp", "sha256")
        return [dict(zip(keys, by_id[run_id]), labels=labels[run_id]) for run_id in ids]

    def runs_for_sides(self, a_labels, b_labels):
        sides = []
        for letter, labels in (("A", a_labels), ("B", b_labels)):
            ids = self.matching(labels)
            if not ids:
                raise ReportError("no run in %s has the labels of side %s: %s" % (
                    self.where, letter, labels_text(labels)))
            sides.append(ids)
        both = sorted(set(sides[0]) & set(sides[1]))
        if both:
            raise ReportError("run %d has the labels of both sides; give labels that part them"
                              % both[0])
        return [self.load_runs(ids) for ids in sides]

    def load_runs(self, ids):
        runs = {row["id"]: StoredRun(self, row) for row in self.runs(ids)}
        marks = ", ".join("?" * len(ids))
        for run_id, name, mean, energy in self.execute(
                "SELECT run_id, name, mean, energy_j FROM emberline_fields WHERE run_id IN (%s) "
                "ORDER BY run_id, position" % marks, ids).fetchall():
            runs[run_id].figures[name] = (mean, energy)
        return [runs[run_id] for run_id in ids]


class StoredRun:
    """A run in the store, as `compare` reads it: the figures at once, the readings only when
    a comparison or a plot needs them."""

    def __init__(self, store, row):
        self.store = store
        self.id = row["id"]
        self.name = "run %d (%s)" % (row["id"], row["file"])
        self.reports = row["reports"]
        self.figures = {}
        self._times = None

    def fields(self):
        return list(self.figures)

    def mean(self, name):
        return self.figures[name][0] if name in self.figures else None

    def energy(self, name):
        return self.figures[name][1] if name in self.figures else None

    def stored(self, name):
        return self.store.execute("SELECT report_indexes, readings FROM emberline_fields "
                                  "WHERE run_id = ? AND name = ?", (self.id, name)).fetchone()

    def readings(self, name):
        if name not in self.figures:
            return []
        return [r for r in unpack(self.stored(name)[1]) if r == r]

    def series(self, name):
        if name not in self.figures:
            return []
        if self._times is None:
            self._times = unpack(self.store.execute(
                "SELECT timestamps FROM emberline_runs WHERE id = ?", (self.id,)).fetchone()[0])
        indexes, readings = self.stored(name)
        times = self._times if indexes is None else [self._times[i] for i in unpack(indexes, "I")]
        return [(t, None if r != r else r) for t, r in zip(times, unpack(readings))]


def connect(db, create):
    if is_url(db):
        try:
            import psycopg2
        except ImportError:
            raise ReportError("a PostgreSQL store needs Debian's python3-psycopg2")
        connection = psycopg2.connect(db, application_name="emberline-report")
        return Store(connection, "postgresql", shown(db))
    import sqlite3
    if not create and not os.path.exists(db):
        raise ReportError("no store at %s: no such file" % db)
    connection = sqlite3.connect(db, timeout=SQLITE_WAIT_S, isolation_level=None)
    # With isolation_level None the module leaves transactions to us; commit and rollback
    # still end the one BEGIN started.
    return Store(SqliteConnection(connection), "sqlite", db)


class SqliteConnection:
    """sqlite3 in autocommit mode, with commit and rollback of the transaction we began."""

    def __init__(self, connection):
        self.connection = connection

    def cursor(self):
        return self.connection.cursor()

    def commit(self):
        if self.connection.in_transaction:
            self.connection.execute("COMMIT")

    def rollback(self):
        if self.connection.in_transaction:
            self.connection.execute("ROLLBACK")

    def close(self):
        self.connection.close()


def database_errors(db):
    if is_url(db):
        try:
            import psycopg2
            return (psycopg2.Error,)
        except ImportError:
            return ()
    import sqlite3
    return (sqlite3.Error,)


def first_line(error):
    text = str(error).strip()
    return text.splitlines()[0] if text else type(error).__name__


@contextlib.contextmanager
def open_store(db, create):
    """The store at `db`, its schema made if `create`; database errors become one line."""
    errors = database_errors(db)
    store = None
    try:
        store = connect(db, create)
        store.ensure_schema(create)
        yield store
    except errors as e:
        raise ReportError("%s: %s" % (shown(db), redact(first_line(e))))
    finally:
        if store is not None:
            try:
                store.connection.close()
            except errors:
                pass


def add_files(db, paths, labels, out, err):
    """`store add`: every file is read and checked before the store is touched; then each run
    goes in on its own. Returns the number of files refused as already stored."""
    prepared = []
    for path in paths:
        prepared.append(Prepared(path, read_bytes(path)))
    refused = 0
    with open_store(db, create=True) as store:
        for path, run in zip(paths, prepared):
            try:
                run_id = store.add(run, labels)
            except Duplicate as d:
                print("%s: error: %s: already in the store as run %d (%s)" % (
                    PROG, display_name(path), d.run_id, d.file_name), file=err)
                refused += 1
                continue
            print("run %d: %s, %d report%s%s" % (
                run_id, display_name(path), run.reports, "" if run.reports == 1 else "s",
                (", " + labels_text(labels)) if labels else ""), file=out)
    return refused


def utc(seconds):
    if seconds is None:
        return "-"
    return datetime.datetime.fromtimestamp(seconds, datetime.timezone.utc).strftime(
        "%Y-%m-%d %H:%M:%S")


def list_text(runs):
    rows = [["run", "file", "labels", "reports", "length s", "first report (UTC)",
             "imported (UTC)"]]
    for run in runs:
        first, last = run["first_device_timestamp"], run["last_device_timestamp"]
        rows.append([str(run["id"]), run["file"], labels_text(run["labels"]), str(run["reports"]),
                     fmt(None if first is None else last - first), utc(first),
                     run["imported_at"].replace("T", " ").rstrip("Z")])
    return "\n".join(table(rows, 3))
