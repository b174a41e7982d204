#!/usr/bin/env python3
"""Writes a minimal pure-Python wheel, for pip to install with no index and no network.

The package is one module whose VALUE is the given text. A wheel is a zip of the module
and its .dist-info (METADATA, WHEEL and a RECORD of every file's hash and size).

usage: make_wheel.py <folder> <name> <version> <value>
Prints the wheel's path.
"""

import base64
import hashlib
import pathlib
import sys
import zipfile


def record_line(path, data):
    digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()
    return f"{path},sha256={digest},{len(data)}"


def main():
    folder, name, version, value = sys.argv[1:5]
    info = f"{name}-{version}.dist-info"
    files = {
        f"{name}/__init__.py": f"VALUE = {value!r}\n".encode(),
        f"{info}/METADATA": f"Metadata-Version: 2.1\nName: {name}\nVersion: {version}\n".encode(),
        f"{info}/WHEEL": b"Wheel-Version: 1.0\nGenerator: make_wheel\nRoot-Is-Purelib: true\n"
        b"Tag: py3-none-any\n",
    }
    record = [record_line(path, data) for path, data in files.items()] + [f"{info}/RECORD,,"]
    files[f"{info}/RECORD"] = ("\n".join(record) + "\n").encode()
    wheel = pathlib.Path(folder) / f"{name}-{version}-py3-none-any.whl"
    wheel.parent.mkdir(parents=True, exist_ok=True)
    with zipfile.ZipFile(wheel, "w") as archive:
        for path, data in files.items():
            archive.writestr(path, data)
    print(wheel)


if __name__ == "__main__":
    main()
