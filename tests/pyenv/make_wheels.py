"""Writes the small wheels the environment tests install, laid out as a simple package index.

Usage: make_wheels.py <index-root> <name>=<version>[:<module>[:<kind>]] ...
A wheel provides one module (the distribution name with dashes as underscores unless given). Kind "flaky" makes the
module's import fail until the file named by QUORIX_CV2_MARKER exists, as a module still being written would.
"""
import base64
import hashlib
import os
import re
import sys
import zipfile

FLAKY = (
    "import os\n"
    "if not os.path.exists(os.environ.get('QUORIX_CV2_MARKER', '')):\n"
    "    raise ImportError('module not ready yet')\n"
)


def record_line(path, data):
    digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()
    return f"{path},sha256={digest},{len(data)}"


def write_wheel(root, name, version, module, kind):
    normalized = re.sub(r"[-_.]+", "-", name).lower()
    stem = normalized.replace("-", "_")
    folder = os.path.join(root, "simple", normalized)
    os.makedirs(folder, exist_ok=True)
    dist_info = f"{stem}-{version}.dist-info"
    body = FLAKY if kind == "flaky" else f"VERSION = '{version}'\n"
    files = {
        f"{module}.py": body.encode(),
        f"{dist_info}/METADATA": f"Metadata-Version: 2.1\nName: {name}\nVersion: {version}\n".encode(),
        f"{dist_info}/WHEEL": b"Wheel-Version: 1.0\nGenerator: quorix-tests\nRoot-Is-Purelib: true\nTag: py3-none-any\n",
    }
    record = [record_line(path, data) for path, data in files.items()] + [f"{dist_info}/RECORD,,"]
    files[f"{dist_info}/RECORD"] = ("\n".join(record) + "\n").encode()
    with zipfile.ZipFile(os.path.join(folder, f"{stem}-{version}-py3-none-any.whl"), "w") as wheel:
        for path, data in files.items():
            wheel.writestr(zipfile.ZipInfo(path, (2024, 1, 1, 0, 0, 0)), data)


def main():
    root = sys.argv[1]
    for spec in sys.argv[2:]:
        name, rest = spec.split("=", 1)
        parts = rest.split(":")
        version = parts[0]
        module = parts[1] if len(parts) > 1 and parts[1] else name.replace("-", "_")
        kind = parts[2] if len(parts) > 2 else ""
        write_wheel(root, name, version, module, kind)


if __name__ == "__main__":
    main()
