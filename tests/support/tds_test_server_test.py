#!/usr/bin/env python3
"""Checks the TDS test double against the real ODBC driver, through the ODBC
API (ctypes) and executing statements directly, as the collector does: typed
rows, a value longer than one packet, the login logged. Text and wide integers, NULLs, the
batches logged, a refused login, a scripted error, a query that never
answers and a result cut off midway are met, through the same driver, by
the collector's own tests (tests/e2e/sql_server_test.cc)."""

import ctypes
import json
import pathlib
import select
import signal
import socket
import subprocess
import sys
import tempfile
import unittest

SERVER = pathlib.Path(__file__).with_name("tds_test_server.py")
TYPES = [("I", "int"), ("BI", "bigint"), ("SI", "smallint"), ("TI", "tinyint"), ("B", "bit"),
         ("D", "decimal(38,4)"), ("N", "numeric(5,2)"), ("F", "float"), ("R", "real"),
         ("NV", "nvarchar(20)"), ("NM", "nvarchar(max)"), ("V", "varchar(20)"), ("DT", "datetime"),
         ("DT2", "datetime2(7)"), ("G", "uniqueidentifier")]
LONG_TEXT = "é" * 50000 + "😀"
SCRIPT = {
    "login": {"user": "kzqmon", "password": "secret"},
    "results": [
        {"match": "-- types", "columns": [{"name": n, "type": t} for n, t in TYPES],
         "rows": [[-2147483648, 9223372036854775807, -32768, 255, True,
                   "-1234567890123456789012345678901234.5678", 123.45, 1.5e300, 0.25, "Zürich", "big",
                   "Café", "2024-02-29T23:59:59.997", "2024-02-29T23:59:59.1234567",
                   "6F9619FF-8B86-D011-B42D-00C04FC964FF"],
                  [None] * len(TYPES)]},
        {"match": "-- long", "columns": [{"name": "M", "type": "nvarchar(max)"}], "rows": [[LONG_TEXT]]},
    ],
    "default": "done",
}


def connection_string(port):
    return ("Driver=FreeTDS;Server=127.0.0.1;Port=%d;Database=master;UID=kzqmon;PWD=secret;"
            "TDS_Version=7.4;ClientCharset=UTF-8" % port)


class Double:
    """The test double run as its own process on a free port."""

    def __init__(self, script):
        self.directory = tempfile.TemporaryDirectory()
        folder = pathlib.Path(self.directory.name)
        self.log_path, script_path = folder / "batches.jsonl", folder / "script.json"
        script_path.write_text(json.dumps(script), encoding="utf-8")
        self.process = subprocess.Popen(
            [sys.executable, str(SERVER), "--script", str(script_path), "--log", str(self.log_path)],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        ready, _, _ = select.select([self.process.stdout], [], [], 10)
        line = self.process.stdout.readline() if ready else ""
        if not line.startswith("listening on "):
            self.process.kill()
            raise RuntimeError("the double did not start: %r %s" % (line, self.process.stderr.read()))
        self.port = int(line.split()[-1])

    def stop(self):
        """Ends it as a test harness would; returns its exit code and stderr."""
        self.process.send_signal(signal.SIGTERM)
        _, errors = self.process.communicate(timeout=10)
        self.directory.cleanup()
        return self.process.returncode, errors

    def journal(self):
        return [json.loads(line) for line in self.log_path.read_text(encoding="utf-8").splitlines()]


class Odbc:
    """Just enough of the ODBC API to execute, fetch rows as text and say why a connection failed."""
    lib = ctypes.CDLL("libodbc.so.2")
    HANDLE_ENV, HANDLE_DBC, HANDLE_STMT, NTS = 1, 2, 3, -3

    def __init__(self, port):
        self.env, self.dbc, self.stmt = ctypes.c_void_p(), ctypes.c_void_p(), ctypes.c_void_p()
        self.lib.SQLAllocHandle(self.HANDLE_ENV, None, ctypes.byref(self.env))
        self.lib.SQLSetEnvAttr(self.env, 200, ctypes.c_void_p(3), 0)  # ODBC 3
        self.lib.SQLAllocHandle(self.HANDLE_DBC, self.env, ctypes.byref(self.dbc))
        text = connection_string(port).encode()
        rc = self.lib.SQLDriverConnect(self.dbc, None, text, self.NTS, None, 0, None, 0)
        if rc not in (0, 1):
            raise RuntimeError("connect failed: %s" % self.diagnostics(self.HANDLE_DBC, self.dbc))
        self.lib.SQLAllocHandle(self.HANDLE_STMT, self.dbc, ctypes.byref(self.stmt))

    def execute(self, sql):
        return self.lib.SQLExecDirect(self.stmt, sql.encode(), self.NTS)

    def fetch_row(self, columns=1):
        """The next row's columns as text, None for NULL; or the fetch's return code."""
        rc = self.lib.SQLFetch(self.stmt)
        if rc not in (0, 1):
            return rc
        row = []
        for column in range(1, columns + 1):
            buffer, length = ctypes.create_string_buffer(1 << 20), ctypes.c_ssize_t()
            self.lib.SQLGetData(self.stmt, column, 1, buffer, ctypes.c_ssize_t(len(buffer)), ctypes.byref(length))
            row.append(None if length.value == -1 else buffer.raw[:length.value].decode())
        return row

    def diagnostics(self, kind, handle):
        found, state, text = [], ctypes.create_string_buffer(6), ctypes.create_string_buffer(1024)
        native, size = ctypes.c_int(), ctypes.c_short()
        while self.lib.SQLGetDiagRec(kind, handle, len(found) + 1, state, ctypes.byref(native),
                                     text, len(text), ctypes.byref(size)) == 0:
            found.append((state.value.decode(), text.value.decode()))
        return found

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self.lib.SQLFreeHandle(self.HANDLE_STMT, self.stmt)
        self.lib.SQLDisconnect(self.dbc)
        self.lib.SQLFreeHandle(self.HANDLE_DBC, self.dbc)
        self.lib.SQLFreeHandle(self.HANDLE_ENV, self.env)


class TdsTestServerTest(unittest.TestCase):
    def setUp(self):
        self.double = Double(SCRIPT)

    def tearDown(self):
        if self.double.process.poll() is None:
            self.double.stop()

    def test_every_type_and_its_null_reach_the_client(self):
        with Odbc(self.double.port) as client:
            self.assertEqual(client.execute("-- types"), 0)
            self.assertEqual(client.fetch_row(len(TYPES)), [
                "-2147483648", "9223372036854775807", "-32768", "255", "1",
                "-1234567890123456789012345678901234.5678", "123.45", "1.5000000000000001e+300", "0.25", "Zürich",
                "big", "Café", "2024-02-29 23:59:59.997", "2024-02-29 23:59:59.1234567",
                "6F9619FF-8B86-D011-B42D-00C04FC964FF"])
            self.assertEqual(client.fetch_row(len(TYPES)), [None] * len(TYPES))

    def test_long_value_and_the_login_logged(self):
        with Odbc(self.double.port) as client:
            self.assertEqual(client.execute("-- long"), 0)
            self.assertEqual(client.fetch_row(), [LONG_TEXT])  # many packets and PLP chunks
            self.assertEqual(client.fetch_row(), 100)  # no more rows
        self.assertEqual(self.double.journal()[0], {"login": {"user": "kzqmon", "database": "master", "app": "",
                                                "accepted": True}})

    def test_malformed_packet_closes_only_that_connection(self):
        with socket.create_connection(("127.0.0.1", self.double.port)) as raw:
            raw.sendall(bytes([0x12, 1, 0, 4, 0, 0, 0, 0]))  # length shorter than the header
            raw.settimeout(10)
            self.assertEqual(raw.recv(100), b"")
        with Odbc(self.double.port) as client:
            self.assertEqual(client.execute("-- types"), 0)
        code, errors = self.double.stop()
        self.assertEqual(code, 0)
        self.assertIn("packet length 4 is shorter than its header", errors)


class ScriptCheckTest(unittest.TestCase):
    def refusal(self, script):
        with tempfile.NamedTemporaryFile("w", suffix=".json") as file:
            json.dump(script, file)
            file.flush()
            run = subprocess.run([sys.executable, str(SERVER), "--script", file.name],
                                 capture_output=True, text=True, timeout=30)
        self.assertEqual(run.returncode, 2)
        return run.stderr

    def test_bad_scripts_are_refused_saying_where(self):
        def result(**entry):
            return {"login": {"user": "u", "password": "p"}, "results": [dict(match="x", **entry)]}
        int_column = [{"name": "A", "type": "int"}]
        self.assertIn("results[0].rows[1][0]: expected an integer",
                      self.refusal(result(columns=int_column, rows=[[1], [2147483648]])))
        self.assertIn("results[0].columns[0].type: unsupported type 'money'",
                      self.refusal(result(columns=[{"name": "A", "type": "money"}])))
        self.assertIn("has more than 2 decimals", self.refusal(
            result(columns=[{"name": "A", "type": "decimal(5,2)"}], rows=[["1.234"]])))
        self.assertIn("cannot be written in cp1252", self.refusal(
            result(columns=[{"name": "A", "type": "varchar(5)"}], rows=[["中"]])))
        self.assertIn("'close_after_row'", self.refusal(result(close_after_row=1)))


if __name__ == "__main__":
    unittest.main()
