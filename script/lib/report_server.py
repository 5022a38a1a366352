"""Plays the product's server for script/run --report: report_server.py PORT SECONDS

Prints a line when it listens, every request that comes within the time with its body, and how many there were.
"""
import http.server
import sys
import time


class Handler(http.server.BaseHTTPRequestHandler):
    count = 0

    def do_POST(self):
        body = self.rfile.read(int(self.headers.get("Content-Length", 0)))
        Handler.count += 1
        print(f"{self.command} {self.path}\n{body.decode(errors='replace')}", flush=True)
        answer = b'{"ReturnStatus": "1"}'
        self.send_response(200)
        self.send_header("Content-Type", "application/json")
        self.send_header("Content-Length", str(len(answer)))
        self.end_headers()
        self.wfile.write(answer)

    def log_message(self, *unused):
        pass


def main():
    server = http.server.HTTPServer(("127.0.0.1", int(sys.argv[1])), Handler)
    server.timeout = 0.1
    print(f"The server, on port {sys.argv[1]}, gets:", flush=True)
    end = time.monotonic() + float(sys.argv[2])
    while time.monotonic() < end:
        server.handle_request()
    print(f"requests: {Handler.count}", flush=True)


main()
