#!/usr/bin/env python3
"""webhook_server.py PORT FOLDER [CERTIFICATE KEY]: a web server on 127.0.0.1 that takes alarms.

Each alarm becomes a line of FOLDER/received; each request one of FOLDER/requests: its headers, as JSON.
It asks for the token of FOLDER/token, and says in FOLDER/ready when it listens.
"""
import http.server
import json
import os
import ssl
import sys


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"  # connections are kept

    def do_POST(self):
        body = self.rfile.read(int(self.headers["Content-Length"]))
        with open(os.path.join(folder, "token")) as token:
            known = self.headers.get("Authorization") == "Bearer " + token.read().strip()
        if known:
            alarms = json.loads(body)
            write("received", "".join(json.dumps(alarm) + "\n" for alarm in alarms))
            write("requests", json.dumps(dict(self.headers)) + "\n")
        answer = b"" if known else b"unknown token " + str(self.headers.get("Authorization")).encode()
        self.send_response(202 if known else 401)
        self.send_header("Content-Length", str(len(answer)))
        self.end_headers()
        self.wfile.write(answer)

    def log_message(self, *unused):
        pass


def write(name, text):
    with open(os.path.join(folder, name), "a") as file:
        file.write(text)


port, folder = int(sys.argv[1]), sys.argv[2]
server = http.server.ThreadingHTTPServer(("127.0.0.1", port), Handler)
if len(sys.argv) > 3:
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(sys.argv[3], sys.argv[4])
    server.socket = context.wrap_socket(server.socket, server_side=True)
write("ready", "ready\n")
server.serve_forever()
