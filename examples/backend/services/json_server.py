"""A small HTTP server on 127.0.0.1 that answers JSON."""

import json
import sys
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from socketserver import TCPServer

from common import log


class JsonHandler(BaseHTTPRequestHandler):
    """Answers with JSON. In a subclass, `answer` returns the status and the document for a GET."""

    # Seconds after which a silent connection is closed, to free its thread.
    timeout = 10

    def answer(self, path):
        raise NotImplementedError

    def do_GET(self):
        self.reply(*self.answer(self.path.partition("?")[0]))

    def do_other(self):
        self.reply(404, {"error": "not found"})

    do_HEAD = do_POST = do_PUT = do_PATCH = do_DELETE = do_OPTIONS = do_other

    def reply(self, status, document):
        body = json.dumps(document, ensure_ascii=False).encode()
        self.send_response(status)
        self.send_header("Content-Type", "application/json; charset=utf-8")
        self.send_header("Content-Length", str(len(body)))
        if status == 401:
            self.send_header("WWW-Authenticate", "Bearer")
        self.end_headers()
        if self.command != "HEAD":
            self.wfile.write(body)

    def log_request(self, code="-", size="-"):
        # The client asks again and again, so log only requests that are refused or fail.
        if code != 200:
            super().log_request(code, size)

    def log_message(self, form, *arguments):
        log(form % arguments)


class JsonServer(ThreadingHTTPServer):
    def server_bind(self):
        # Skip HTTPServer.server_bind: it looks up a host name, which can stall without a network.
        TCPServer.server_bind(self)

    def handle_error(self, request, client_address):
        # Do not log that a client closed the connection before it got the answer.
        if not isinstance(sys.exc_info()[1], ConnectionError):
            super().handle_error(request, client_address)


def serve(port, handler):
    with JsonServer(("127.0.0.1", port), handler) as server:
        log(f"listening on 127.0.0.1:{port}")
        server.serve_forever()
