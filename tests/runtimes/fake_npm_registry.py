#!/usr/bin/env python3
"""A minimal npm registry on 127.0.0.1 for one package, so npm installs with no network.

GET /<name> answers the package's document (its versions, each with the tarball's address
and integrity), GET /<name>/-/<name>-<version>.tgz the tarball, built at start; anything
else is a 404. The tarball's index.js exports { value: "<version>" }.

usage: fake_npm_registry.py <name> <version>[,<version>...]
Prints the port on stdout, logs each request path on stderr, serves until killed.
"""

import base64
import hashlib
import http.server
import io
import json
import sys
import tarfile


def tarball(name, version):
    manifest = json.dumps({"name": name, "version": version, "main": "index.js"})
    members = {
        "package/package.json": manifest,
        "package/index.js": f"module.exports = {{ value: {json.dumps(version)} }};\n",
    }
    data = io.BytesIO()
    with tarfile.open(fileobj=data, mode="w:gz") as archive:
        for path, text in members.items():
            raw = text.encode()
            member = tarfile.TarInfo(path)
            member.size = len(raw)
            member.mode = 0o644
            archive.addfile(member, io.BytesIO(raw))
    return data.getvalue()


def main():
    name = sys.argv[1]
    tarballs = {version: tarball(name, version) for version in sys.argv[2].split(",")}

    class Registry(http.server.BaseHTTPRequestHandler):
        def do_GET(self):
            base = f"http://127.0.0.1:{self.server.server_address[1]}"
            body = None
            if self.path.rstrip("/") == "/" + name:
                versions = {
                    version: {
                        "name": name,
                        "version": version,
                        "main": "index.js",
                        "dist": {
                            "tarball": f"{base}/{name}/-/{name}-{version}.tgz",
                            "shasum": hashlib.sha1(data).hexdigest(),
                            "integrity": "sha512-"
                            + base64.b64encode(hashlib.sha512(data).digest()).decode(),
                        },
                    }
                    for version, data in tarballs.items()
                }
                latest = list(tarballs)[-1]
                document = {"name": name, "dist-tags": {"latest": latest}, "versions": versions}
                body, kind = json.dumps(document).encode(), "application/json"
            for version, data in tarballs.items():
                if self.path == f"/{name}/-/{name}-{version}.tgz":
                    body, kind = data, "application/octet-stream"
            if body is None:
                self.send_response(404)
                self.send_header("Content-Length", "0")
                self.end_headers()
                return
            self.send_response(200)
            self.send_header("Content-Type", kind)
            self.send_header("Content-Length", str(len(body)))
            self.end_headers()
            self.wfile.write(body)

        def log_message(self, format, *args):
            sys.stderr.write(f"{self.command} {self.path}\n")
            sys.stderr.flush()

    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Registry)
    print(server.server_address[1], flush=True)
    server.serve_forever()


if __name__ == "__main__":
    main()
