"""Builds the orqsdk wheel: the package's files, and the SDK libraries when given.

It is the package's build backend (pyproject.toml), so that ``pip install`` needs neither the
network nor setuptools and leaves nothing in the source folder; the SDK's build runs it as a
script to make the wheel that carries its own Linux libraries::

    python3 _orq_build.py OUT_DIR [LIBRARY...]

A library is put into the package under the name the loader looks for (liborqsdk.so,
liborqsdk_sim.so, orqsdk.dll, ...): a wheel with libraries is tagged for this platform, one
without is pure Python.
"""

from __future__ import annotations

import base64
import hashlib
import re
import sys
import sysconfig
import zipfile
from pathlib import Path
from typing import Dict, List, Optional, Tuple

HERE = Path(__file__).resolve().parent
PACKAGE = "orqsdk"


def _project() -> Dict[str, str]:
    """The [project] strings of pyproject.toml; the file is simple enough for a regex, and
    tomllib is missing before Python 3.11."""
    text = (HERE / "pyproject.toml").read_text(encoding="utf-8")
    section = text.split("[project]", 1)[1].split("\n[", 1)[0]
    return dict(re.findall(r'^([a-z-]+)\s*=\s*"([^"]*)"', section, re.M))


def _version() -> str:
    """The SDK's version, written once in project() of the top CMakeLists.txt; the SDK's build
    passes it as ORQSDK_VERSION."""
    import os

    given = os.environ.get("ORQSDK_VERSION")
    if given:
        return given
    text = (HERE.parent.parent / "CMakeLists.txt").read_text(encoding="utf-8")
    match = re.search(r"project\(\s*OrqSDK\s+VERSION\s+([0-9.]+)", text)
    if not match:
        raise RuntimeError("no project(OrqSDK VERSION ...) in the top CMakeLists.txt")
    return match.group(1)


def _library_name(path: Path) -> str:
    """liborqsdk.so.1.1.0 -> liborqsdk.so; orqsdk.dll stays."""
    name = path.name
    match = re.match(r"(.+?\.so)(\.\d+)*$", name)
    return match.group(1) if match else name


def _files(libraries: List[Path]) -> List[Tuple[str, bytes]]:
    files = []
    for path in sorted((HERE / PACKAGE).iterdir()):
        if path.name == "_version.py":
            continue
        if path.is_file() and (path.suffix in (".py", ".so", ".dll") or path.name == "py.typed"):
            files.append((f"{PACKAGE}/{path.name}", path.read_bytes()))
    files.append((f"{PACKAGE}/_version.py", f'version = "{_version()}"\n'.encode()))
    for library in libraries:
        files.append((f"{PACKAGE}/{_library_name(library)}", library.read_bytes()))
    return files


def _metadata(project: Dict[str, str]) -> str:
    readme = (HERE / "README.md").read_text(encoding="utf-8")
    return (
        "Metadata-Version: 2.1\n"
        f"Name: {project['name']}\n"
        f"Version: {project['version']}\n"
        f"Summary: {project['description']}\n"
        f"Requires-Python: {project['requires-python']}\n"
        "Provides-Extra: numpy\n"
        'Requires-Dist: numpy ; extra == "numpy"\n'
        "Description-Content-Type: text/markdown\n"
        "\n" + readme
    )


def _record_line(name: str, data: bytes) -> str:
    digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()
    return f"{name},sha256={digest},{len(data)}"


def make_wheel(out_dir: str, libraries: Optional[List[str]] = None) -> str:
    project = _project()
    project["version"] = _version()
    files = _files([Path(library) for library in libraries or []])
    native = any(name.endswith((".so", ".dll")) for name, _ in files)
    platform = re.sub(r"[-.]", "_", sysconfig.get_platform()) if native else "any"
    tag = f"py3-none-{platform}"
    name = f"{project['name']}-{project['version']}"
    info = f"{name}.dist-info"
    files += [
        (f"{info}/METADATA", _metadata(project).encode()),
        (
            f"{info}/WHEEL",
            (
                "Wheel-Version: 1.0\nGenerator: orqsdk _orq_build\n"
                f"Root-Is-Purelib: {'false' if native else 'true'}\nTag: {tag}\n"
            ).encode(),
        ),
    ]
    record = "\n".join(_record_line(n, d) for n, d in files) + f"\n{info}/RECORD,,\n"
    files.append((f"{info}/RECORD", record.encode()))
    Path(out_dir).mkdir(parents=True, exist_ok=True)
    wheel = f"{name}-{tag}.whl"
    with zipfile.ZipFile(Path(out_dir) / wheel, "w", zipfile.ZIP_DEFLATED) as archive:
        for file_name, data in files:
            entry = zipfile.ZipInfo(file_name, date_time=(2020, 1, 1, 0, 0, 0))
            entry.external_attr = (0o755 if file_name.endswith(".so") else 0o644) << 16
            entry.compress_type = zipfile.ZIP_DEFLATED
            archive.writestr(entry, data)
    return wheel


# PEP 517 hooks.
def get_requires_for_build_wheel(config_settings=None):
    return []


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    return make_wheel(wheel_directory)


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    print(Path(sys.argv[1]) / make_wheel(sys.argv[1], sys.argv[2:]))
