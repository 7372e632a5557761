"""A router's web server for one view: serves the stand-in page and answers commands as rpcd would.

A command runs only if the access list permits it: by its path alone (any arguments), or by path and arguments.
"""

import fnmatch
import http.server
import json
import pathlib
import threading

HERE = pathlib.Path(__file__).parent
APPLICATION = HERE.parents[1] / "packaging" / "openwrt" / "luci-app-tarnwick"
VIEWS = APPLICATION / "htdocs" / "luci-static" / "resources" / "view"
ACCESS_LIST = APPLICATION / "root" / "usr" / "share" / "rpcd" / "acl.d" / "luci-app-tarnwick.json"
TYPES = {".html": "text/html", ".js": "text/javascript"}


def permitted_commands():
    rules = json.loads(ACCESS_LIST.read_text())["luci-app-tarnwick"]
    return [pattern for kind in ("read", "write") for pattern, rights in rules[kind].get("file", {}).items()
            if "exec" in rights]


class WebRouter(http.server.ThreadingHTTPServer):
    """`answers` maps a command line to its (status, output); `asked` lists the command lines that ran."""
    daemon_threads = True

    def __init__(self):
        super().__init__(("127.0.0.1", 0), Handler)
        self.answers = {}
        self.asked = []
        self.is_session_over = False
        self.thread = threading.Thread(target=self.serve_forever, daemon=True)
        self.thread.start()

    @property
    def url(self):
        return f"http://127.0.0.1:{self.server_address[1]}/stand_in.html"

    def is_permitted(self, words):
        line = " ".join(words)
        return not self.is_session_over and any(
            words[0] == pattern or fnmatch.fnmatchcase(line, pattern) for pattern in permitted_commands())


class Handler(http.server.BaseHTTPRequestHandler):
    def log_message(self, *_):
        pass

    def answer(self, status, content_type, content):
        self.send_response(status)
        self.send_header("Content-Type", content_type)
        self.send_header("Content-Length", str(len(content)))
        self.end_headers()
        self.wfile.write(content)

    def do_GET(self):
        path = VIEWS / self.path[len("/view/"):] if self.path.startswith("/view/") else HERE / self.path[1:]
        if path.suffix in TYPES and path.is_file():
            self.answer(200, TYPES[path.suffix], path.read_bytes())
        else:
            self.answer(404, "text/plain", b"")

    def do_POST(self):
        words = json.loads(self.rfile.read(int(self.headers["Content-Length"])))
        if not self.server.is_permitted(words):
            self.answer(403, "text/plain", b"")
            return
        line = " ".join(words)
        self.server.asked.append(line)
        status, output = self.server.answers.get(line, (127, ""))
        self.answer(200, "application/json", json.dumps({"code": status, "stdout": output, "stderr": ""}).encode())
