"""An SMB client that keeps its handles: several users, each with a connection of his own, hold
files and folders open while something else happens, list a folder anew through the handle that they
have, create with a descriptor: what the usual clients hide behind commands of their own. It speaks
SMB 2.0.2 by itself and needs nothing but Python.

  handles.py PORT SHARE

A line is a word and its arguments with tabs between them; the answer is one line: "ok", what was
asked for, "gone" when the server has ended the connection, or the name of a status. Everybody's
password is "secret". A connection and a handle have the names that the line gives them:

  connect NAME USER
  open NAME HANDLE PATH ACCESS [DISPOSITION [OPTIONS]]
  open-full …, with a descriptor that allows everything to everybody
  list HANDLE, from the start; next HANDLE, one name; rest HANDLE, the names that are left
  read HANDLE, write HANDLE TEXT, delete HANDLE, close HANDLE
  quit
"""
import hashlib
import hmac
import os
import socket
import struct
import sys

# The MD4 digest of "secret" in UTF-16: what a server keeps of a password.
SECRET = bytes.fromhex("878d8014606cda29677a44efa1353fc7")
DOMAIN = "TEST"
NEGOTIATE, SESSION_SETUP, TREE_CONNECT, CREATE, CLOSE = 0, 1, 3, 5, 6
READ, WRITE, QUERY_DIRECTORY, SET_INFO = 8, 9, 14, 17
PENDING, MORE_NEEDED, NO_MORE_FILES = 0x103, 0xC0000016, 0x80000006
NAMES = {
    0: "ok",
    0x80000006: "NT_STATUS_NO_MORE_FILES",
    0xC0000008: "NT_STATUS_INVALID_HANDLE",
    0xC000000F: "NT_STATUS_NO_SUCH_FILE",
    0xC0000022: "NT_STATUS_ACCESS_DENIED",
    0xC0000034: "NT_STATUS_OBJECT_NAME_NOT_FOUND",
    0xC0000035: "NT_STATUS_OBJECT_NAME_COLLISION",
    0xC000003A: "NT_STATUS_OBJECT_PATH_NOT_FOUND",
    0xC0000043: "NT_STATUS_SHARING_VIOLATION",
    0xC0000056: "NT_STATUS_DELETE_PENDING",
    0xC0000001: "NT_STATUS_UNSUCCESSFUL",
    0xC0000101: "NT_STATUS_DIRECTORY_NOT_EMPTY",
    0xC0000121: "NT_STATUS_CANNOT_DELETE",
}
# One entry that allows everything to everybody, in a descriptor.
EVERYBODY = bytes.fromhex("010100000000000100000000")
FULL = (
    struct.pack("<BBHIIII", 1, 0, 0x8004, 0, 0, 0, 20)
    + struct.pack("<BBHHH", 2, 0, 28, 1, 0)
    + struct.pack("<BBHI", 0, 0, 20, 0x1F01FF)
    + EVERYBODY
)


class Refused(Exception):
    def __init__(self, status):
        self.status = status


def utf16(text):
    return text.encode("utf-16-le")


class Connection:
    def __init__(self, port, share, user):
        self.socket = socket.create_connection(("127.0.0.1", port), timeout=10)
        self.message = self.session = self.tree = 0
        self.ask(NEGOTIATE, struct.pack("<HHHHI16sQH", 36, 1, 1, 0, 0, os.urandom(16), 0, 0x0202))
        self.log_in(user)
        path = utf16(f"\\\\127.0.0.1\\{share}")
        header, _ = self.ask(TREE_CONNECT, struct.pack("<HHHH", 9, 0, 72, len(path)) + path)
        self.tree = struct.unpack_from("<I", header, 36)[0]

    def receive(self):
        def exactly(size):
            data = b""
            while len(data) < size:
                part = self.socket.recv(size - len(data))
                if not part:
                    raise ConnectionError("the server has ended it")
                data += part
            return data

        message = exactly(struct.unpack(">I", exactly(4))[0])
        return message[:64], message[64:]

    def ask(self, command, body, also=()):
        header = struct.pack(
            "<4sHHIHHIIQIIQ16s", b"\xfeSMB", 64, 0, 0, command, 64, 0, 0,
            self.message, 0, self.tree, self.session, b"",
        )
        self.message += 1
        self.socket.sendall(struct.pack(">I", len(header + body)) + header + body)
        while True:
            header, body = self.receive()
            status, kind = struct.unpack_from("<IH", header, 8)
            if kind == command and status != PENDING:
                break
        if status != 0 and status not in also:
            raise Refused(status)
        return header, body

    def log_in(self, user):
        def setup(token, also=()):
            fixed = struct.pack("<HBBIIHHQ", 25, 0, 1, 0, 0, 88, len(token), 0)
            header, body = self.ask(SESSION_SETUP, fixed + token, also)
            self.session = struct.unpack_from("<Q", header, 40)[0]
            start, size = struct.unpack_from("<HH", body, 4)
            return body[start - 64 : start - 64 + size]

        def md5(key, data):
            return hmac.new(key, data, hashlib.md5).digest()

        flags = 0xA0880205
        challenge = setup(b"NTLMSSP\0" + struct.pack("<II16x", 1, flags), (MORE_NEEDED,))
        challenge = challenge[challenge.index(b"NTLMSSP\0") :]
        size, start = struct.unpack_from("<HxxI", challenge, 40)
        target, nonce = challenge[start : start + size], challenge[24:32]
        blob = b"\1\1" + bytes(6) + b"\0\x80\x3e\xd5\xde\xb1\x9d\1" + os.urandom(8) + bytes(4)
        blob += target + bytes(4)
        key = md5(SECRET, utf16(user.upper() + DOMAIN))
        fields = [bytes(24), md5(key, nonce + blob) + blob, utf16(DOMAIN), utf16(user), b"", b""]
        token, content = b"NTLMSSP\0" + struct.pack("<I", 3), b""
        for field in fields:
            token += struct.pack("<HHI", len(field), len(field), 64 + len(content))
            content += field
        setup(token + struct.pack("<I", flags) + content)

    def open(self, path, access, disposition, options, descriptor):
        name = utf16(path)
        content = name + bytes(-len(name) % 8)
        contexts, size = 0, 0
        if descriptor:
            contexts = 120 + len(content)
            context = struct.pack("<IHHHHI", 0, 16, 4, 0, 24, len(descriptor)) + b"SecD" + bytes(4)
            content += context + descriptor
            size = len(context + descriptor)
        _, body = self.ask(CREATE, struct.pack(
            "<HBBIQQIIIIIHHII", 57, 0, 0, 2, 0, 0, access, 0, 7, disposition, options,
            120, len(name), contexts, size,
        ) + (content or b"\0"))
        return body[64:80]

    def close(self, file):
        self.ask(CLOSE, struct.pack("<HHI", 24, 0, 0) + file)

    def write(self, file, text):
        data = text.encode()
        fixed = struct.pack("<HHIQ16sIIHHI", 49, 112, len(data), 0, file, 0, 0, 0, 0, 0)
        self.ask(WRITE, fixed + data)

    def read(self, file):
        fixed = struct.pack("<HBBIQ16sIIIHHB", 49, 80, 0, 4096, 0, file, 0, 0, 0, 0, 0, 0)
        _, body = self.ask(READ, fixed)
        start, size = struct.unpack_from("<BxI", body, 2)
        return body[start - 64 : start - 64 + size].decode().strip()

    def set_file(self, file, kind, data):
        fixed = struct.pack("<HBBIHHI16s", 33, 1, kind, len(data), 96, 0, 0, file)
        self.ask(SET_INFO, fixed + data)

    # What the server sends of a listing at once: all that fits, or (flag 2) one name; from the start
    # (flag 1) whatever was listed through this handle before.
    def some_names(self, file, flags):
        header, body = self.ask(
            QUERY_DIRECTORY,
            struct.pack("<HBBI16sHHI", 33, 12, flags, 0, file, 96, 2, 65536) + utf16("*"),
            (NO_MORE_FILES,),
        )
        names = []
        if struct.unpack_from("<I", header, 8)[0] != 0:
            return names
        start, size = struct.unpack_from("<HI", body, 2)
        data = body[start - 64 : start - 64 + size]
        while data:
            following, _, length = struct.unpack_from("<III", data)
            names.append(data[12 : 12 + length].decode("utf-16-le"))
            data = data[following:] if following else b""
        return names

    def list(self, file, flags):
        names = []
        while some := self.some_names(file, flags):
            names += some
            flags = 0
        return " ".join(sorted(set(names) - {".", ".."})) or "nothing"

    def next(self, file):
        while some := self.some_names(file, 2):
            if some[0] not in (".", ".."):
                return some[0]
        return "nothing"


def main():
    port, share = int(sys.argv[1]), sys.argv[2]
    connections, handles = {}, {}

    def done(word, name, *arguments):
        if word == "connect":
            connections[name] = Connection(port, share, *arguments)
        elif word in ("open", "open-full"):
            given = arguments + ("1", "0")[len(arguments) - 3 :]
            handle, path, access, disposition, options = given
            descriptor = FULL if word == "open-full" else b""
            connection = connections[name]
            handles[handle] = connection, connection.open(
                path, int(access, 16), int(disposition), int(options, 16), descriptor)
        else:
            connection, file = handles[name]
            if word == "close":
                connection.close(file)
            elif word == "write":
                connection.write(file, *arguments)
            elif word == "read":
                return connection.read(file)
            elif word == "list":
                return connection.list(file, 1)
            elif word == "rest":
                return connection.list(file, 0)
            elif word == "next":
                return connection.next(file)
            elif word == "delete":
                connection.set_file(file, 13, b"\1")
            else:
                return f"there is no word {word}"
        return "ok"

    for line in sys.stdin:
        words = line.rstrip("\n").split("\t")
        if words == ["quit"]:
            break
        try:
            answer = done(*words)
        except Refused as refusal:
            answer = NAMES.get(refusal.status, f"status {refusal.status:08x}")
        except OSError:
            answer = "gone"
        except KeyError as missing:
            answer = f"no {missing}"
        print(answer, flush=True)


main()
