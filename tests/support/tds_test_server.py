#!/usr/bin/env python3
"""TDS test double: a scripted stand-in for a SQL Server, for tests only.

It speaks enough of TDS 7.4 (what the collector asks for) for the real ODBC driver and client
libraries to connect, log in, run batches and fetch typed rows, so that the
collector's row source can be exercised end to end on a machine where no
SQL Server can run. What it answers comes from a JSON script:

  {"login": {"user": "kzqmon", "password": "secret"},
   "results": [{"match": "-- table KZQDBD",
                "columns": [{"name": "DBNAME", "type": "nvarchar(128)"}, ...],
                "rows": [["master", 6], [null, 2147483648]],
                "error": {"number": 208, "severity": 16, "state": 1, "message": "..."},
                "close_after_rows": 1,
                "hang": true}],
   "default": "done"}

The first result whose "match" is a substring of a statement answers it; a
statement nothing matches gets a bare DONE. Statements come as SQL batches, as
the driver sends what a client executes directly; prepared statements are not
served. It is not a database: no encryption, no integrated logins, no MARS, no
procedures, and no semantics behind the answers.

Usage: tds_test_server.py --script FILE [--port N] [--port-file PATH] [--log PATH]
Standard library only. Each connection is served on its own thread; SIGTERM
or SIGINT ends the process.
"""

import argparse
import datetime
import decimal
import json
import os
import re
import signal
import socket
import socketserver
import struct
import sys
import threading
import uuid

# Packet types.
PKT_SQL_BATCH = 0x01
PKT_REPLY = 0x04
PKT_ATTENTION = 0x06
PKT_LOGIN7 = 0x10
PKT_PRELOGIN = 0x12
STATUS_EOM = 0x01
HEADER = struct.Struct(">BBHHBB")

# Tokens.
TOKEN_COLMETADATA = 0x81
TOKEN_ERROR = 0xAA
TOKEN_INFO = 0xAB
TOKEN_LOGINACK = 0xAD
TOKEN_ROW = 0xD1
TOKEN_ENVCHANGE = 0xE3
TOKEN_DONE = 0xFD
DONE_ERROR = 0x0002
DONE_COUNT = 0x0010
DONE_ATTN = 0x0020
CURCMD_SELECT = 0xC1

# Pre-login options and encryption answers.
PL_VERSION, PL_ENCRYPTION, PL_INSTOPT, PL_THREADID, PL_MARS = 0, 1, 2, 3, 4
PL_TERMINATOR = 0xFF
ENCRYPT_ON, ENCRYPT_NOT_SUP, ENCRYPT_REQ = 1, 2, 3

TDS_7_4 = 0x74000004  # the only version the collector asks for
SERVER_VERSION = bytes([16, 0, 0x03, 0xE8])  # 16.0.1000
SERVER_NAME = "KZQTDSDOUBLE"
PROGRAM_NAME = "kzq TDS test double"
# SQL_Latin1_General_CP1_CI_AS: LCID 0x409, case/kana/width insensitive,
# sort id 52, which clients map to code page 1252.
COLLATION = bytes([0x09, 0x04, 0xD0, 0x00, 0x34])
DEFAULT_PACKET_SIZE = 4096


class ProtocolError(Exception):
    """The client sent something that is not TDS as this double speaks it."""


class ScriptError(Exception):
    """The script cannot be served; the message says where and why."""


# ---------------------------------------------------------------- encoding

def b_varchar(text):
    data = text.encode("utf-16-le")
    return bytes([len(data) // 2]) + data


def us_varchar(text):
    data = text.encode("utf-16-le")
    return struct.pack("<H", len(data) // 2) + data


def token_with_length(token, body):
    return bytes([token]) + struct.pack("<H", len(body)) + body


def message_token(token, number, state, severity, text):
    body = (struct.pack("<iBB", number, state, severity) + us_varchar(text) +
            b_varchar(SERVER_NAME) + b_varchar("") + struct.pack("<i", 1))
    return token_with_length(token, body)


def done_token(status, row_count=0, curcmd=0):
    return bytes([TOKEN_DONE]) + struct.pack("<HHQ", status, curcmd, row_count)


def envchange_text(kind, new, old):
    return token_with_length(TOKEN_ENVCHANGE, bytes([kind]) + b_varchar(new) + b_varchar(old))


def envchange_collation(collation):
    body = bytes([7, len(collation)]) + collation + bytes([0])
    return token_with_length(TOKEN_ENVCHANGE, body)


# ---------------------------------------------------------------- column types

TYPE_SYNTAX = re.compile(r"^\s*([a-z0-9]+)\s*(?:\(\s*(max|\d+)\s*(?:,\s*(\d+)\s*)?\))?\s*$")
INT_SIZES = {"tinyint": 1, "smallint": 2, "int": 4, "bigint": 8}
DATETIME_SYNTAX = re.compile(r"^(\d{4})-(\d{2})-(\d{2})[T ](\d{2}):(\d{2}):(\d{2})(?:\.(\d{1,7}))?$")
DECIMAL_CONTEXT = decimal.Context(prec=80)  # wider than any decimal(38,s), so nothing rounds
PLP_NULL = 0xFFFFFFFFFFFFFFFF
PLP_CHUNK = 4000


def is_number(value):
    return isinstance(value, (int, float)) and not isinstance(value, bool)


def parse_timestamp(value):
    """'YYYY-MM-DDTHH:MM:SS[.fffffff]' -> (date, seconds of day, 100 ns units)."""
    match = DATETIME_SYNTAX.match(value) if isinstance(value, str) else None
    if not match:
        raise ScriptError("expected a date and time 'YYYY-MM-DDTHH:MM:SS.fff', got %r" % (value,))
    year, month, day, hour, minute, second = (int(g) for g in match.groups()[:6])
    try:
        date = datetime.date(year, month, day)
    except ValueError as error:
        raise ScriptError("%r: %s" % (value, error)) from None
    if hour > 23 or minute > 59 or second > 59:
        raise ScriptError("%r: time of day out of range" % value)
    fraction = int((match.group(7) or "").ljust(7, "0"))
    return date, hour * 3600 + minute * 60 + second, fraction


class ColumnType:
    """One column's wire type: its TYPE_INFO and how a JSON value is sent."""

    def __init__(self, token, info, encode):
        self.token, self.info, self._encode = token, info, encode

    def type_info(self):
        return bytes([self.token]) + self.info

    def encode(self, value):
        return self._encode(value)


def int_type(size, signed):
    low, high = (-(1 << (8 * size - 1)), (1 << (8 * size - 1)) - 1) if signed else (0, (1 << 8 * size) - 1)

    def encode(value):
        if value is None:
            return b"\x00"
        if not isinstance(value, int) or isinstance(value, bool) or not low <= value <= high:
            raise ScriptError("expected an integer in [%d, %d], got %r" % (low, high, value))
        return bytes([size]) + value.to_bytes(size, "little", signed=signed)
    return ColumnType(0x26, bytes([size]), encode)


def bit_type():
    def encode(value):
        if value is None:
            return b"\x00"
        if value not in (0, 1) or isinstance(value, float):
            raise ScriptError("expected true, false, 0 or 1, got %r" % (value,))
        return bytes([1, int(value)])
    return ColumnType(0x68, b"\x01", encode)


def decimal_type(token, precision, scale):
    if not 1 <= precision <= 38 or scale > precision:
        raise ScriptError("precision must be 1..38 and scale at most the precision")
    size = 5 if precision <= 9 else 9 if precision <= 19 else 13 if precision <= 28 else 17

    def encode(value):
        if value is None:
            return b"\x00"
        if not (is_number(value) or isinstance(value, str)):
            raise ScriptError("expected a decimal as a number or a string, got %r" % (value,))
        try:
            number = decimal.Decimal(str(value))
            scaled = number.scaleb(scale, DECIMAL_CONTEXT)
        except decimal.InvalidOperation:
            raise ScriptError("%r is not a decimal number" % (value,)) from None
        if not scaled.is_finite() or scaled != scaled.to_integral_value():
            raise ScriptError("%r has more than %d decimals" % (value, scale))
        magnitude = abs(int(scaled))
        if magnitude >= 10 ** precision:
            raise ScriptError("%r does not fit decimal(%d,%d)" % (value, precision, scale))
        return bytes([size, 0 if number < 0 else 1]) + magnitude.to_bytes(size - 1, "little")
    return ColumnType(token, bytes([size, precision, scale]), encode)


def float_type(size):
    layout = "<d" if size == 8 else "<f"

    def encode(value):
        if value is None:
            return b"\x00"
        if not is_number(value):
            raise ScriptError("expected a number, got %r" % (value,))
        try:
            return bytes([size]) + struct.pack(layout, value)
        except OverflowError:
            raise ScriptError("%r does not fit a %d-byte float" % (value, size)) from None
    return ColumnType(0x6D, bytes([size]), encode)


def plp(data):
    """A max-length value: total length, chunks, zero terminator."""
    chunks = [data[i:i + PLP_CHUNK] for i in range(0, len(data), PLP_CHUNK)]
    return (struct.pack("<Q", len(data)) + b"".join(struct.pack("<I", len(c)) + c for c in chunks) +
            struct.pack("<I", 0))


def text_type(token, length, codec, unit):
    """nvarchar/varchar: `length` characters (None for max), sent in `codec`."""
    if length is not None and not 1 <= length * unit <= 8000:
        raise ScriptError("length must be 1..%d or max" % (8000 // unit))

    def encode(value):
        if value is None:
            return struct.pack("<Q", PLP_NULL) if length is None else b"\xff\xff"
        if not isinstance(value, str):
            raise ScriptError("expected a string, got %r" % (value,))
        try:
            data = value.encode(codec)
        except UnicodeEncodeError:
            raise ScriptError("%r cannot be written in %s" % (value, codec)) from None
        if length is None:
            return plp(data)
        if len(data) > length * unit:
            raise ScriptError("%r is longer than %d characters" % (value, length))
        return struct.pack("<H", len(data)) + data
    max_bytes = 0xFFFF if length is None else length * unit
    return ColumnType(token, struct.pack("<H", max_bytes) + COLLATION, encode)


def datetime_type():
    def encode(value):
        if value is None:
            return b"\x00"
        date, seconds, fraction = parse_timestamp(value)
        if date.year < 1753:
            raise ScriptError("%r is before 1753, the first datetime year" % value)
        # 1/300 s ticks, rounded as the server rounds milliseconds.
        ticks = ((seconds * 10_000_000 + fraction) * 3 + 50_000) // 100_000
        days = (date - datetime.date(1900, 1, 1)).days
        if ticks >= 300 * 86400:
            days, ticks = days + 1, ticks - 300 * 86400
        return bytes([8]) + struct.pack("<iI", days, ticks)
    return ColumnType(0x6F, b"\x08", encode)


def datetime2_type(scale):
    if scale > 7:
        raise ScriptError("datetime2 scale must be 0..7")
    time_size = 3 if scale <= 2 else 4 if scale <= 4 else 5

    def encode(value):
        if value is None:
            return b"\x00"
        date, seconds, fraction = parse_timestamp(value)
        step = 10 ** (7 - scale)
        if fraction % step:
            raise ScriptError("%r has more fractional digits than scale %d" % (value, scale))
        units = seconds * 10 ** scale + fraction // step
        days = date.toordinal() - 1
        return bytes([time_size + 3]) + units.to_bytes(time_size, "little") + days.to_bytes(3, "little")
    return ColumnType(0x2A, bytes([scale]), encode)


def guid_type():
    def encode(value):
        if value is None:
            return b"\x00"
        try:
            return b"\x10" + uuid.UUID(value).bytes_le
        except (ValueError, AttributeError, TypeError):
            raise ScriptError("expected a GUID string, got %r" % (value,)) from None
    return ColumnType(0x24, b"\x10", encode)


def parse_column_type(text):
    match = TYPE_SYNTAX.match(text.lower()) if isinstance(text, str) else None
    if not match:
        raise ScriptError("unreadable type %r" % (text,))
    name, size, scale = match.groups()
    is_max = size == "max"
    number = None if size is None or is_max else int(size)
    sizeless = number is None and not is_max and scale is None
    if name in INT_SIZES and sizeless:
        return int_type(INT_SIZES[name], name != "tinyint")
    if name in ("decimal", "numeric") and not is_max:
        token = 0x6A if name == "decimal" else 0x6C
        return decimal_type(token, 18 if number is None else number, int(scale or 0))
    if name == "bit" and sizeless:
        return bit_type()
    if name in ("float", "real") and sizeless:
        return float_type(8 if name == "float" else 4)
    if name in ("nvarchar", "varchar") and size is not None and scale is None:
        wide = name == "nvarchar"
        return text_type(0xE7 if wide else 0xA7, number, "utf-16-le" if wide else "cp1252", 2 if wide else 1)
    if name == "datetime" and sizeless:
        return datetime_type()
    if name == "datetime2" and not is_max and scale is None:
        return datetime2_type(7 if number is None else number)
    if name == "uniqueidentifier" and sizeless:
        return guid_type()
    raise ScriptError("unsupported type %r" % text)


# ---------------------------------------------------------------- script

RESULT_KEYS = {"match", "columns", "rows", "error", "close_after_rows", "hang"}


class Result:
    """One scripted answer, checked and with its types parsed at load."""

    def __init__(self, entry, where):
        unknown = set(entry) - RESULT_KEYS if isinstance(entry, dict) else None
        if unknown is None or unknown:
            raise ScriptError("%s: expected an object with keys among %s, got %s" %
                              (where, sorted(RESULT_KEYS), sorted(unknown or [])))
        self.match = entry.get("match")
        if not isinstance(self.match, str) or not self.match:
            raise ScriptError("%s.match: expected a non-empty string" % where)
        self.names, self.types = self._columns(entry.get("columns", []), where)
        self.rows = entry.get("rows", [])
        self.error = self._error(entry.get("error"), where)
        self.close_after_rows = entry.get("close_after_rows")
        self.hang = entry.get("hang", False)
        if not isinstance(self.hang, bool):
            raise ScriptError("%s.hang: expected true or false" % where)
        self._check(where)

    @staticmethod
    def _columns(columns, where):
        names, types = [], []
        if not isinstance(columns, list):
            raise ScriptError("%s.columns: expected a list" % where)
        for i, column in enumerate(columns):
            place = "%s.columns[%d]" % (where, i)
            if (not isinstance(column, dict) or not isinstance(column.get("name"), str)
                    or not 0 < len(column["name"]) <= 128):
                raise ScriptError("%s: expected {\"name\": 1 to 128 characters, \"type\": ...}" % place)
            try:
                types.append(parse_column_type(column.get("type")))
            except ScriptError as error:
                raise ScriptError("%s.type: %s" % (place, error)) from None
            names.append(column["name"])
        return names, types

    @staticmethod
    def _error(error, where):
        if error is None:
            return None
        fields = {"number": int, "severity": int, "state": int, "message": str}
        if not isinstance(error, dict) or any(not isinstance(error.get(k), t) for k, t in fields.items()):
            raise ScriptError("%s.error: expected number, severity, state and message" % where)
        if (not 11 <= error["severity"] <= 25 or not 0 <= error["state"] <= 255
                or not -2**31 <= error["number"] < 2**31 or len(error["message"]) > 4000):
            raise ScriptError("%s.error: severity must be 11..25, state 0..255, the message at most "
                              "4000 characters" % where)
        return error

    def _check(self, where):
        if not isinstance(self.rows, list):
            raise ScriptError("%s.rows: expected a list" % where)
        if self.rows and not self.types:
            raise ScriptError("%s.rows: rows need columns" % where)
        for r, row in enumerate(self.rows):
            if not isinstance(row, list) or len(row) != len(self.types):
                raise ScriptError("%s.rows[%d]: expected %d values" % (where, r, len(self.types)))
            for c, value in enumerate(row):
                try:
                    self.types[c].encode(value)
                except ScriptError as error:
                    raise ScriptError("%s.rows[%d][%d]: %s" % (where, r, c, error)) from None
        limit = self.close_after_rows
        if limit is not None and (not isinstance(limit, int) or not 0 <= limit <= len(self.rows)
                                  or not self.types):
            raise ScriptError("%s.close_after_rows: expected 0..%d with columns" % (where, len(self.rows)))
        if self.hang and (self.types or self.error or limit is not None):
            raise ScriptError("%s.hang: a hanging batch answers nothing else" % where)


class Script:
    """The whole script; read-only once loaded, so every connection thread reads it freely."""

    def __init__(self, document):
        if not isinstance(document, dict):
            raise ScriptError("expected a JSON object")
        login = document.get("login")
        if (not isinstance(login, dict) or not isinstance(login.get("user"), str)
                or not isinstance(login.get("password"), str)):
            raise ScriptError("login: expected {\"user\": ..., \"password\": ...}")
        self.user, self.password = login["user"], login["password"]
        results = document.get("results", [])
        if not isinstance(results, list):
            raise ScriptError("results: expected a list")
        self.results = [Result(entry, "results[%d]" % i) for i, entry in enumerate(results)]
        if document.get("default", "done") != "done":
            raise ScriptError("default: only \"done\" is served")

    @classmethod
    def load(cls, path):
        try:
            with open(path, encoding="utf-8") as source:
                document = json.load(source)
        except (OSError, ValueError) as error:
            raise ScriptError(str(error)) from None
        return cls(document)

    def answer_for(self, batch):
        return next((r for r in self.results if r.match in batch), None)


# ---------------------------------------------------------------- packets

class PacketStream:
    """Whole TDS messages over one socket, split at the negotiated packet size."""

    def __init__(self, sock, spid):
        self.sock, self.spid, self.packet_size = sock, spid, DEFAULT_PACKET_SIZE

    def _read_exactly(self, count):
        data = bytearray()
        while len(data) < count:
            chunk = self.sock.recv(count - len(data))
            if not chunk:
                if data:
                    raise ProtocolError("connection closed inside a packet")
                return None
            data += chunk
        return bytes(data)

    def read_message(self):
        """(type, payload), or None when the client closed between messages."""
        kind, payload = None, bytearray()
        while True:
            header = self._read_exactly(HEADER.size)
            if header is None:
                if kind is not None:
                    raise ProtocolError("connection closed inside a message")
                return None
            packet_type, status, length, _, _, _ = HEADER.unpack(header)
            if length < HEADER.size:
                raise ProtocolError("packet length %d is shorter than its header" % length)
            if kind is not None and packet_type != kind:
                raise ProtocolError("packet type changed from %d to %d inside a message" % (kind, packet_type))
            body = self._read_exactly(length - HEADER.size) if length > HEADER.size else b""
            if body is None:
                raise ProtocolError("connection closed inside a packet")
            kind = packet_type
            payload += body
            if status & STATUS_EOM:
                return kind, bytes(payload)

    def send_message(self, payload, final=True):
        """Sends a reply; with final False the last packet lacks end-of-message."""
        room = self.packet_size - HEADER.size
        pieces = [payload[i:i + room] for i in range(0, len(payload), room)] or [b""]
        packets = bytearray()
        for number, piece in enumerate(pieces, start=1):
            status = STATUS_EOM if final and number == len(pieces) else 0
            packets += HEADER.pack(PKT_REPLY, status, HEADER.size + len(piece), self.spid, number % 256, 0)
            packets += piece
        self.sock.sendall(packets)


# ---------------------------------------------------------------- requests

def parse_prelogin(payload):
    """Option token -> option data."""
    options, position = {}, 0
    while True:
        if position >= len(payload):
            raise ProtocolError("pre-login options have no terminator")
        token = payload[position]
        if token == PL_TERMINATOR:
            return options
        if position + 5 > len(payload):
            raise ProtocolError("pre-login option %d is cut short" % token)
        offset, length = struct.unpack_from(">HH", payload, position + 1)
        if offset + length > len(payload):
            raise ProtocolError("pre-login option %d points past the message" % token)
        options[token] = payload[offset:offset + length]
        position += 5


def prelogin_reply():
    options = [(PL_VERSION, SERVER_VERSION + b"\x00\x00"), (PL_ENCRYPTION, bytes([ENCRYPT_NOT_SUP])),
               (PL_INSTOPT, b"\x00"), (PL_THREADID, b""), (PL_MARS, b"\x00")]
    offset = len(options) * 5 + 1
    table, data = bytearray(), bytearray()
    for token, value in options:
        table += struct.pack(">BHH", token, offset + len(data), len(value))
        data += value
    return bytes(table) + bytes([PL_TERMINATOR]) + bytes(data)


def utf16(raw, what):
    """Client text; unpaired surrogates pass through as a server would keep them."""
    if len(raw) % 2:
        raise ProtocolError("%s has an odd number of bytes for UTF-16" % what)
    return raw.decode("utf-16-le", errors="surrogatepass")


def unscramble_password(data):
    return bytes((((b ^ 0xA5) & 0x0F) << 4) | ((b ^ 0xA5) >> 4) for b in data)


LOGIN7_FIXED = 94
LOGIN7_FIELDS = {"host": 36, "user": 40, "password": 44, "app": 48, "server": 52,
                 "library": 60, "language": 64, "database": 68}


class Login:
    def __init__(self, payload):
        if len(payload) < LOGIN7_FIXED:
            raise ProtocolError("LOGIN7 of %d bytes is shorter than its fixed part" % len(payload))
        length, self.version, self.packet_size = struct.unpack_from("<III", payload, 0)
        if length != len(payload):
            raise ProtocolError("LOGIN7 says %d bytes but holds %d" % (length, len(payload)))
        for name, at in LOGIN7_FIELDS.items():
            offset, chars = struct.unpack_from("<HH", payload, at)
            raw = payload[offset:offset + 2 * chars]
            if offset + 2 * chars > len(payload):
                raise ProtocolError("LOGIN7 %s points past the message" % name)
            if name == "password":
                raw = unscramble_password(raw)
            setattr(self, name, utf16(raw, "LOGIN7 " + name))


def batch_text(payload):
    """The SQL of a batch, after its ALL_HEADERS block."""
    if len(payload) < 4:
        raise ProtocolError("SQL batch lacks its headers")
    start = struct.unpack_from("<I", payload, 0)[0]
    if not 4 <= start <= len(payload):
        raise ProtocolError("SQL batch headers claim %d bytes" % start)
    return utf16(payload[start:], "SQL batch text")


# ---------------------------------------------------------------- answers

def login_reply(login, packet_size):
    database = login.database or "master"
    return b"".join([
        envchange_text(1, database, "master"),
        message_token(TOKEN_INFO, 5701, 2, 0, "Changed database context to '%s'." % database),
        envchange_collation(COLLATION),
        envchange_text(2, "us_english", ""),
        message_token(TOKEN_INFO, 5703, 1, 0, "Changed language setting to us_english."),
        token_with_length(TOKEN_LOGINACK, bytes([1]) + struct.pack(">I", TDS_7_4) +
                          b_varchar(PROGRAM_NAME) + SERVER_VERSION),
        envchange_text(4, str(packet_size), str(DEFAULT_PACKET_SIZE)),
        done_token(0),
    ])


def login_refusal(user):
    return (message_token(TOKEN_ERROR, 18456, 1, 14, "Login failed for user '%s'." % user) +
            done_token(DONE_ERROR))


def colmetadata(result):
    body = bytearray(struct.pack("<H", len(result.types)))
    for name, kind in zip(result.names, result.types):
        body += struct.pack("<IH", 0, 0x0009)  # no user type; nullable, updatability unknown
        body += kind.type_info() + b_varchar(name)
    return bytes([TOKEN_COLMETADATA]) + bytes(body)


def rows(result, count):
    return b"".join(bytes([TOKEN_ROW]) + b"".join(t.encode(v) for t, v in zip(result.types, row))
                    for row in result.rows[:count])


def statement_reply(result):
    """A statement's answer: its rows or error, closed by DONE."""
    if result is None:
        return done_token(0)
    payload, count, status = bytearray(), len(result.rows), 0
    if result.types:
        payload += colmetadata(result) + rows(result, count)
        status |= DONE_COUNT
    if result.error:
        e = result.error
        payload += message_token(TOKEN_ERROR, e["number"], e["state"], e["severity"], e["message"])
        status |= DONE_ERROR
    return bytes(payload + done_token(status, count, CURCMD_SELECT if result.types else 0))


# ---------------------------------------------------------------- connection

class Journal:
    """The --log file: one JSON value per line, written by every connection thread."""

    def __init__(self, path):
        self.path, self.lock = path, threading.Lock()

    def write(self, value):
        if not self.path:
            return
        with self.lock, open(self.path, "a", encoding="utf-8") as out:
            out.write(json.dumps(value) + "\n")


class Connection:
    """One client, served on its own thread from pre-login to close."""

    def __init__(self, sock, spid, script, journal):
        self.stream, self.script, self.journal = PacketStream(sock, spid), script, journal
        self.logged_in = False

    def serve(self):
        while True:
            message = self.stream.read_message()
            if message is None:
                return
            kind, payload = message
            if not self.logged_in:
                if not self._before_login(kind, payload):
                    return
            elif kind == PKT_SQL_BATCH:
                if not self._answer(batch_text(payload)):
                    return
            elif kind == PKT_ATTENTION:
                self.stream.send_message(done_token(DONE_ATTN))
            else:
                text = "request type %d is not served by the TDS test double" % kind
                self.stream.send_message(message_token(TOKEN_ERROR, 50000, 1, 16, text) + done_token(DONE_ERROR))

    def _before_login(self, kind, payload):
        if kind == PKT_PRELOGIN:
            encryption = parse_prelogin(payload).get(PL_ENCRYPTION, b"\x00")[:1]
            if encryption in (bytes([ENCRYPT_ON]), bytes([ENCRYPT_REQ])):
                log("client demands encryption; answering that it is not supported")
            self.stream.send_message(prelogin_reply())
            return True
        if kind != PKT_LOGIN7:
            raise ProtocolError("expected PRELOGIN or LOGIN7 before login, got packet type %d" % kind)
        login = Login(payload)
        if login.version != TDS_7_4:
            raise ProtocolError("TDS version 0x%08x is not served (7.4 is)" % login.version)
        accepted = login.user == self.script.user and login.password == self.script.password
        self.journal.write({"login": {"user": login.user, "database": login.database,
                                      "app": login.app, "accepted": accepted}})
        if not accepted:
            self.stream.send_message(login_refusal(login.user))
            return False
        packet_size = min(max(login.packet_size or DEFAULT_PACKET_SIZE, 512), 32767)
        self.stream.send_message(login_reply(login, packet_size))
        self.stream.packet_size, self.logged_in = packet_size, True
        return True

    def _answer(self, text):
        """Answers one statement; False when the script says to drop the connection."""
        self.journal.write(text)
        result = self.script.answer_for(text)
        if result is not None and result.hang:
            return True  # the client's attention packet or its disconnect ends the wait
        if result is not None and result.close_after_rows is not None:
            partial = colmetadata(result) + rows(result, result.close_after_rows)
            self.stream.send_message(partial, final=False)
            return False
        self.stream.send_message(statement_reply(result))
        return True


def log(text):
    sys.stderr.write("tds_test_server: %s\n" % text)
    sys.stderr.flush()


class Handler(socketserver.BaseRequestHandler):
    def handle(self):
        server = self.server
        with server.spid_lock:
            server.next_spid += 1
            spid = server.next_spid
        try:
            Connection(self.request, spid, server.script, server.journal).serve()
        except ProtocolError as error:
            log("connection %s: malformed request, closing it: %s" % (spid, error))
        except OSError as error:
            log("connection %s: %s" % (spid, error))


class Server(socketserver.ThreadingTCPServer):
    daemon_threads = True
    allow_reuse_address = True

    def __init__(self, port, script, journal):
        super().__init__(("127.0.0.1", port), Handler)
        self.script, self.journal = script, journal
        self.spid_lock, self.next_spid = threading.Lock(), 50


def write_port_file(path, port):
    temporary = path + ".tmp"
    with open(temporary, "w") as out:
        out.write("%d\n" % port)
    os.replace(temporary, path)


def main():
    parser = argparse.ArgumentParser(description="Scripted TDS test double of a SQL Server.")
    parser.add_argument("--script", required=True, help="JSON script of logins and answers")
    parser.add_argument("--port", type=int, default=0, help="port on 127.0.0.1 (0: any free one)")
    parser.add_argument("--port-file", help="file to write the chosen port to")
    parser.add_argument("--log", help="file to append logins and batch texts to, one JSON value a line")
    arguments = parser.parse_args()
    try:
        script = Script.load(arguments.script)
    except ScriptError as error:
        log("script %s: %s" % (arguments.script, error))
        return 2
    try:
        server = Server(arguments.port, script, Journal(arguments.log))
    except OSError as error:
        log("cannot listen on 127.0.0.1:%d: %s" % (arguments.port, error))
        return 2
    port = server.server_address[1]
    if arguments.port_file:
        write_port_file(arguments.port_file, port)
    print("listening on %d" % port, flush=True)
    stop = threading.Event()
    signal.signal(signal.SIGTERM, lambda *_: stop.set())
    signal.signal(signal.SIGINT, lambda *_: stop.set())
    threading.Thread(target=server.serve_forever, args=(0.1,), daemon=True).start()
    while not stop.wait(0.1):
        pass
    server.shutdown()
    server.server_close()
    return 0


if __name__ == "__main__":
    sys.exit(main())
