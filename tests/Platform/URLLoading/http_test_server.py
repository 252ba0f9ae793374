#!/usr/bin/env python3
"""A small HTTP/1.1 server for the URL loading tests, on 127.0.0.1.

Given a certificate and a key file as arguments, it speaks https instead.
Prints its port on the first line of standard output, then serves until it is
terminated or its standard input ends (the test that started it is gone).
/echo answers with what it received, so a test sees what went over the wire;
the other paths each misbehave in one way.
"""
import base64
import gzip
import json
import os
import ssl
import sys
import threading
import time
import urllib.parse
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

connections = 0
connections_lock = threading.Lock()
# Clients of /held: how many came, and how many of them hung up.
held = {"came": 0, "hung up": 0}
held_changed = threading.Condition()


def wait_for_held(key, count):
    with held_changed:
        held_changed.wait_for(lambda: held[key] >= count, timeout=30)
        return held[key]


def note_held(key):
    with held_changed:
        held[key] += 1
        held_changed.notify_all()


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def setup(self):
        global connections
        super().setup()
        with connections_lock:
            connections += 1

    def log_message(self, *arguments):
        pass

    def reply(self, status, body=b"", headers=()):
        self.send_response(status)
        for name, value in headers:
            self.send_header(name, value)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        if self.command != "HEAD":
            self.wfile.write(body)

    def handle_any(self):
        url = urllib.parse.urlsplit(self.path)
        query = urllib.parse.parse_qs(url.query)
        length = int(self.headers.get("Content-Length", "0") or 0)
        body = self.rfile.read(length) if length else b""
        path = url.path
        if path == "/echo" or path.startswith("/echo/") or self.path.startswith("http://"):
            seen = {
                "method": self.command,
                "target": self.path,
                "headers": [[name, value] for name, value in self.headers.items()],
                "body": base64.b64encode(body).decode(),
            }
            self.reply(200, json.dumps(seen).encode(), [("Content-Type", "application/json")])
        elif path.startswith("/status/"):
            status = int(path.split("/")[2])
            self.reply(status, ("status %d" % status).encode())
        elif path == "/duplicate-fields":
            self.reply(200, b"ok", [("X-Twice", "one"), ("x-twice", "two")])
        elif path == "/chunked":
            self.send_response(200)
            self.send_header("Transfer-Encoding", "chunked")
            self.end_headers()
            for chunk in (b"alpha ", b"beta ", b"gamma"):
                self.wfile.write(b"%x\r\n%s\r\n" % (len(chunk), chunk))
                self.wfile.flush()
            self.wfile.write(b"0\r\n\r\n")
        elif path == "/gzip":
            self.reply(200, gzip.compress(b"compressed text " * 100), [("Content-Encoding", "gzip")])
        elif path == "/redirect":
            status = int(query.get("status", ["302"])[0])
            self.reply(status, b"moved", [("Location", query["to"][0])])
        elif path == "/loop":
            self.reply(302, b"", [("Location", "/loop")])
        elif path == "/slow":
            time.sleep(float(query["seconds"][0]))
            self.reply(200, b"late")
        elif path == "/close-mid-body":
            self.send_response(200)
            self.send_header("Content-Length", "1000")
            self.end_headers()
            self.wfile.write(b"x" * 10)
            self.wfile.flush()
            self.close_connection = True
        elif path == "/hang-up":
            # A whole answer that promises to keep the connection, then the
            # server closes it anyway, as an idle keep-alive time-out does.
            self.reply(200, b"bye")
            self.wfile.flush()
            self.close_connection = True
        elif path == "/big":
            size = int(query["bytes"][0])
            block = bytes(range(256)) * 4096
            self.send_response(200)
            self.send_header("Content-Length", str(size))
            self.end_headers()
            sent = 0
            while sent < size:
                piece = block[: min(len(block), size - sent)]
                self.wfile.write(piece)
                sent += len(piece)
        elif path == "/huge-header":
            # One field line of the given size, or that many bytes spread
            # over fields of 1 KiB ("lines") or of a dozen bytes ("tiny").
            size = int(query["bytes"][0])
            self.send_response(200)
            if query.get("lines"):
                for index in range(size // 1024):
                    self.send_header("X-Filler-%d" % index, "f" * 1000)
            elif query.get("tiny"):
                lines = b"".join(b"T%d: v\r\n" % index for index in range(size // 12))
                self._headers_buffer.append(lines)
            else:
                self.send_header("X-Huge", "h" * size)
            self.send_header("Content-Length", "2")
            self.end_headers()
            self.wfile.write(b"ok")
        elif path == "/garbage":
            self.wfile.write(b"this is not HTTP at all\r\n\r\n")
            self.wfile.flush()
            self.close_connection = True
        elif path == "/reply":
            # The body and content type the query names, as a given API would answer.
            body = query.get("body", [""])[0].encode()
            kind = query.get("type", ["application/json"])[0]
            self.reply(int(query.get("status", ["200"])[0]), body, [("Content-Type", kind)])
        elif path == "/held":
            # No answer, ever: the request is held until the client hangs up.
            note_held("came")
            while self.connection.recv(4096):
                pass
            note_held("hung up")
            self.close_connection = True
        elif path in ("/held/came", "/held/hung-up"):
            # Answers once that many clients of /held came (or hung up).
            key = "came" if path.endswith("came") else "hung up"
            self.reply(200, str(wait_for_held(key, int(query["count"][0]))).encode())
        elif path == "/connections":
            with connections_lock:
                count = connections
            self.reply(200, str(count).encode())
        else:
            self.reply(404, b"no such path")

    do_GET = do_POST = do_PUT = do_DELETE = do_HEAD = do_PATCH = handle_any

    # Any other method, whatever its letter case ("post", "get"), too.
    def __getattr__(self, name):
        if name.startswith("do_"):
            return self.handle_any
        raise AttributeError(name)


class Server(ThreadingHTTPServer):
    daemon_threads = True
    allow_reuse_address = True


def end_with_standard_input():
    sys.stdin.buffer.read()
    os._exit(0)


def main():
    server = Server(("127.0.0.1", 0), Handler)
    if len(sys.argv) == 3:
        # https, with the certificate and key named on the command line
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(sys.argv[1], sys.argv[2])
        server.socket = context.wrap_socket(server.socket, server_side=True)
    print(server.server_address[1], flush=True)
    threading.Thread(target=end_with_standard_input, daemon=True).start()
    server.serve_forever()


if __name__ == "__main__":
    main()
