#!/usr/bin/env python3
"""A stand-in for the `ollama` executable, for tests that must not need the real one.

  ollama --version   prints a version line
  ollama serve       an HTTP server on $OLLAMA_HOST (host:port) that keeps its models in
                     $OLLAMA_MODELS: GET /api/tags lists the models pulled so far, POST
                     /api/pull streams progress lines as Ollama does, then records the
                     model. SIGTERM ends it cleanly.

Knobs for tests, all optional:
  FAKE_OLLAMA_PULL_DELAY     seconds between progress lines (default 0.02)
  FAKE_OLLAMA_IGNORE_SIGTERM when "1", SIGTERM is ignored, as a hung server would
A model whose name starts with "missing" is refused the way Ollama refuses an unknown one.
"""
import http.server
import json
import os
import signal
import sys
import threading
import time

VERSION = "0.0.0-fake"
LAYER_BYTES = 3_000_000


def models_folder():
    return os.environ.get("OLLAMA_MODELS") or os.path.expanduser("~/.ollama/models")


def pulled_file():
    return os.path.join(models_folder(), "fake-pulled.json")


def pulled_models():
    try:
        with open(pulled_file(), encoding="utf-8") as file:
            return json.load(file)
    except (OSError, ValueError):
        return []


def record_model(name):
    models = pulled_models()
    if name not in models:
        models.append(name)
    os.makedirs(models_folder(), exist_ok=True)
    temporary = pulled_file() + ".tmp"
    with open(temporary, "w", encoding="utf-8") as file:
        json.dump(models, file)
    os.replace(temporary, pulled_file())


def full_name(model):
    return model if ":" in model else model + ":latest"


class Handler(http.server.BaseHTTPRequestHandler):
    # HTTP/1.0: a streamed body ends when the connection closes, as curl expects then.
    protocol_version = "HTTP/1.0"

    def log_message(self, format, *args):
        sys.stderr.write("[fake ollama] " + (format % args) + "\n")
        sys.stderr.flush()

    def send_json(self, status, value):
        body = json.dumps(value).encode()
        self.send_response(status)
        self.send_header("Content-Type", "application/json")
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def do_GET(self):
        if self.path == "/api/tags":
            self.send_json(200, {"models": [{"name": name, "model": name, "size": LAYER_BYTES}
                                            for name in pulled_models()]})
        elif self.path == "/":
            self.send_response(200)
            self.end_headers()
            self.wfile.write(b"Ollama is running")
        else:
            self.send_json(404, {"error": "not found"})

    def do_POST(self):
        if self.path != "/api/pull":
            self.send_json(404, {"error": "not found"})
            return
        length = int(self.headers.get("Content-Length") or 0)
        try:
            request = json.loads(self.rfile.read(length) or b"{}")
            model = request["model"]
        except (ValueError, KeyError, TypeError):
            self.send_json(400, {"error": "invalid request body"})
            return
        if not request.get("stream", True):
            self.pull_silently(model)
            return
        self.send_response(200)
        self.send_header("Content-Type", "application/x-ndjson")
        self.end_headers()
        delay = float(os.environ.get("FAKE_OLLAMA_PULL_DELAY", "0.02"))
        for line in self.progress(model):
            self.wfile.write((json.dumps(line) + "\n").encode())
            self.wfile.flush()
            time.sleep(delay)
        if not model.startswith("missing"):
            record_model(full_name(model))

    def pull_silently(self, model):
        if model.startswith("missing"):
            self.send_json(500, {"error": "pull model manifest: file does not exist"})
            return
        record_model(full_name(model))
        self.send_json(200, {"status": "success"})

    @staticmethod
    def progress(model):
        yield {"status": "pulling manifest"}
        if model.startswith("missing"):
            yield {"error": "pull model manifest: file does not exist"}
            return
        digest = "sha256:2bada8a7450677000f678be90653b85d364de7db25eb5ea54136ada5f3933730"
        for completed in range(0, LAYER_BYTES + 1, LAYER_BYTES // 3):
            yield {"status": "pulling 2bada8a74506", "digest": digest,
                   "total": LAYER_BYTES, "completed": completed}
        yield {"status": "verifying sha256 digest"}
        yield {"status": "writing manifest"}
        yield {"status": "success"}


def address():
    host = os.environ.get("OLLAMA_HOST") or "127.0.0.1:11434"
    host = host.split("://", 1)[-1]
    name, _, port = host.rpartition(":")
    if not name:
        name, port = port, "11434"
    return name.strip("[]"), int(port)


def serve():
    server = http.server.ThreadingHTTPServer(address(), Handler)
    server.daemon_threads = True

    def stop(signum, frame):
        sys.stderr.write("[fake ollama] stopping on signal %d\n" % signum)
        sys.stderr.flush()
        threading.Thread(target=server.shutdown, daemon=True).start()

    if os.environ.get("FAKE_OLLAMA_IGNORE_SIGTERM") == "1":
        signal.signal(signal.SIGTERM, signal.SIG_IGN)
    else:
        signal.signal(signal.SIGTERM, stop)
    sys.stderr.write("[fake ollama] Listening on %s:%d (models in %s)\n"
                     % (*server.server_address[:2], models_folder()))
    sys.stderr.flush()
    server.serve_forever()
    server.server_close()
    return 0


def main(arguments):
    if arguments[:1] == ["--version"] or arguments[:1] == ["-v"]:
        print("ollama version is " + VERSION)
        return 0
    if arguments[:1] == ["serve"]:
        try:
            return serve()
        except OSError as error:
            sys.stderr.write("Error: listen tcp %s:%d: %s\n" % (*address(), error.strerror))
            return 1
    sys.stderr.write("usage: ollama serve | ollama --version\n")
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
