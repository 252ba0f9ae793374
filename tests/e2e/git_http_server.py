#!/usr/bin/env python3
"""A git smart-HTTP server on 127.0.0.1 that insists on HTTP Basic authentication.

Every request must carry a user name and password listed in the credentials
file (one "user:password" per line); anything else gets 401 with a Basic
challenge, which is what makes git ask its askpass program. Authenticated
requests are handed to `git http-backend` as CGI.

The server binds a port the kernel picks, prints one line
"git server listening on 127.0.0.1 port N" on standard output as soon as it
accepts connections, and then logs one line per request on standard error.
Passwords are never logged; they stay out of argv by living in the file,
which is read again for every request.
"""

import argparse
import base64
import binascii
import http.server
import os
import subprocess
import sys
import urllib.parse


def read_credentials(path):
    credentials = {}
    with open(path, encoding="utf-8") as handle:
        for line in handle.read().splitlines():
            if ":" in line:
                user, password = line.split(":", 1)
                credentials[user] = password
    return credentials


class GitHandler(http.server.BaseHTTPRequestHandler):
    # HTTP/1.1 so that git keeps one connection for the whole clone; every
    # answer therefore carries a Content-Length.
    protocol_version = "HTTP/1.1"
    server_version = "zarvo-e2e-git/1"

    def do_GET(self):
        self.serve()

    def do_POST(self):
        self.serve()

    def log_message(self, format, *args):
        sys.stderr.write("git server: " + (format % args) + "\n")
        sys.stderr.flush()

    def note(self, text):
        sys.stderr.write("git server: " + text + "\n")
        sys.stderr.flush()

    def authenticated_user(self):
        header = self.headers.get("Authorization", "")
        scheme, _, encoded = header.partition(" ")
        if scheme.lower() != "basic":
            self.note("no credentials for " + self.path)
            return None
        try:
            decoded = base64.b64decode(encoded.strip(), validate=True).decode("utf-8")
        except (binascii.Error, UnicodeDecodeError):
            self.note("malformed credentials for " + self.path)
            return None
        user, _, password = decoded.partition(":")
        # Read at every request, so a test can change a password while the
        # server runs.
        expected = read_credentials(self.server.credentials_path).get(user)
        if expected is None or expected != password:
            self.note("authentication failed for user " + repr(user))
            return None
        self.note("authenticated user " + repr(user))
        return user

    def read_body(self):
        if self.headers.get("Transfer-Encoding", "").lower() == "chunked":
            chunks = []
            while True:
                size = int(self.rfile.readline().split(b";")[0].strip(), 16)
                if size == 0:
                    # Trailer lines up to the empty line end the body.
                    while self.rfile.readline().strip():
                        pass
                    return b"".join(chunks)
                chunks.append(self.rfile.read(size))
                self.rfile.readline()
        length = int(self.headers.get("Content-Length") or 0)
        return self.rfile.read(length) if length > 0 else b""

    def send_plain(self, status, text, extra_headers=()):
        body = text.encode("utf-8")
        self.send_response(status)
        for name, value in extra_headers:
            self.send_header(name, value)
        self.send_header("Content-Type", "text/plain; charset=utf-8")
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def serve(self):
        body = self.read_body()
        user = self.authenticated_user()
        if user is None:
            self.send_plain(401, "authentication required\n",
                            [("WWW-Authenticate", 'Basic realm="zarvo e2e"')])
            return

        parsed = urllib.parse.urlsplit(self.path)
        environment = dict(os.environ)
        environment.update({
            "GIT_PROJECT_ROOT": self.server.root,
            "GIT_HTTP_EXPORT_ALL": "1",
            "GATEWAY_INTERFACE": "CGI/1.1",
            "REQUEST_METHOD": self.command,
            "PATH_INFO": urllib.parse.unquote(parsed.path),
            "QUERY_STRING": parsed.query,
            "CONTENT_TYPE": self.headers.get("Content-Type", ""),
            "CONTENT_LENGTH": str(len(body)),
            "REMOTE_USER": user,
            "REMOTE_ADDR": self.client_address[0],
        })
        for header, variable in (("Content-Encoding", "HTTP_CONTENT_ENCODING"),
                                 ("Git-Protocol", "GIT_PROTOCOL")):
            value = self.headers.get(header)
            if value:
                environment[variable] = value

        result = subprocess.run(["git", "http-backend"], input=body, env=environment,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False)
        if result.stderr:
            self.note("http-backend: " + result.stderr.decode("utf-8", "replace").strip())
        head, separator, payload = result.stdout.partition(b"\r\n\r\n")
        if not separator:
            head, separator, payload = result.stdout.partition(b"\n\n")
        if not separator:
            self.send_plain(500, "git http-backend gave no CGI headers\n")
            return

        status = 200
        headers = []
        for line in head.decode("latin-1").splitlines():
            name, _, value = line.partition(":")
            if name.lower() == "status":
                status = int(value.strip().split(" ", 1)[0])
            elif name:
                headers.append((name.strip(), value.strip()))
        self.send_response(status)
        for name, value in headers:
            self.send_header(name, value)
        self.send_header("Content-Length", str(len(payload)))
        self.end_headers()
        self.wfile.write(payload)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--root", required=True, help="folder that holds the bare repositories")
    parser.add_argument("--credentials", required=True, help='file of "user:password" lines')
    options = parser.parse_args()

    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), GitHandler)
    server.daemon_threads = True
    server.root = os.path.abspath(options.root)
    server.credentials_path = options.credentials
    print("git server listening on 127.0.0.1 port %d" % server.server_address[1], flush=True)
    try:
        server.serve_forever()
    except KeyboardInterrupt:
        pass


if __name__ == "__main__":
    main()
