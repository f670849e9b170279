"""The package's shape: modules that import each other in a circle, and the virtual camera's
fault kinds against the public header they come from."""

import ast
import re
from pathlib import Path

import pytest

import orqsdk
from orqsdk import sim

ROOT = Path(__file__).resolve().parents[2]
PACKAGE = ROOT / "bindings" / "python" / "orqsdk"


def package_imports(folder):
    """Module name -> the package's modules it imports, wherever the import stands (at the top,
    under ``if TYPE_CHECKING:``, inside a function): every one of them can close a circle."""
    modules = {path.stem for path in folder.glob("*.py")}
    graph = {}
    for module in sorted(modules):
        edges = set()
        for node in ast.walk(ast.parse((folder / f"{module}.py").read_text(encoding="utf-8"))):
            if isinstance(node, ast.Import):
                for alias in node.names:
                    parts = alias.name.split(".")
                    if parts[0] == folder.name:
                        edges.add(parts[1] if len(parts) > 1 else "__init__")
            elif isinstance(node, ast.ImportFrom):
                parts = (node.module or "").split(".")
                if node.level == 0 and parts[0] != folder.name:
                    continue
                inner = parts[1:] if node.level == 0 else [part for part in parts if part]
                if inner:
                    edges.add(inner[0])
                else:  # from . import a, b: modules, or names that __init__ defines
                    edges.update(a.name if a.name in modules else "__init__" for a in node.names)
        graph[module] = edges
    return graph


def cycles(graph):
    """The circles as "a -> b -> a": the shortest from each module not on one found before."""
    found, seen = [], set()
    for start in sorted(graph):
        if start in seen:
            continue
        # The shortest way from start back to itself, if any.
        paths, visited = [[start]], set()
        while paths:
            path = paths.pop(0)
            for following in sorted(graph.get(path[-1], ())):
                if following == start:
                    found.append(" -> ".join(path + [start]))
                    seen.update(path)
                    paths = []
                    break
                if following not in visited:
                    visited.add(following)
                    paths.append(path + [following])
    return found


def test_cycle_finder_reads_every_form_of_import(tmp_path):
    folder = tmp_path / "orqsdk"
    folder.mkdir()
    sources = {
        "__init__": "from ._a import A\nfrom ._generated import version\n",
        "_a": "from typing import TYPE_CHECKING\nif TYPE_CHECKING:\n    from ._b import B\n",
        "_b": "def late():\n    from . import _c\n",
        "_c": "import orqsdk._a\n",
        "_d": "import orqsdk\n",
        "_e": "from orqsdk._a import A\nfrom . import _e\n",
    }
    for name, text in sources.items():
        (folder / f"{name}.py").write_text(text)
    graph = package_imports(folder)
    assert graph == {
        "__init__": {"_a", "_generated"},
        "_a": {"_b"},
        "_b": {"_c"},
        "_c": {"_a"},
        "_d": {"__init__"},
        "_e": {"_a", "_e"},
    }
    assert cycles(graph) == ["_a -> _b -> _c -> _a", "_e -> _e"]


def test_package_has_no_import_cycle():
    graph = package_imports(PACKAGE)
    assert {"_sdk", "_session", "_settings", "_lib", "_events"} <= set(graph)
    found = cycles(graph)
    assert not found, "import cycles: " + "; ".join(found)


def header_fault_kinds():
    header = (ROOT / "include" / "orqsdk_sim.h").read_text(encoding="utf-8")
    block = re.search(r"typedef enum OrqSimFaultKind \{(.*?)\} OrqSimFaultKind;", header, re.S)
    assert block, "no OrqSimFaultKind in orqsdk_sim.h"
    body = re.sub(r"/\*.*?\*/", "", block.group(1), flags=re.S)
    return {name: int(value) for name, value in re.findall(r"ORQSIM_(\w+)\s*=\s*(\d+)", body)}


def test_fault_kinds_are_the_headers_and_the_camera_takes_each():
    kinds = header_fault_kinds()
    ours = {name: value for name, value in vars(sim.Fault).items() if name.isupper()}
    assert ours == kinds
    sim.remove_all()
    camera = sim.VirtualCamera("SX160")
    try:
        for name, kind in sorted(kinds.items(), key=lambda item: item[1]):
            # An operation no camera knows and a transfer far ahead: nothing is hit.
            camera.inject_fault(sim.Fault(kind=kind, opcode=0x9FFF, transfer=1 << 30))
        camera.clear_faults()
        for kind in (-1, max(kinds.values()) + 1):
            with pytest.raises(orqsdk.OrqError):
                camera.inject_fault(sim.Fault(kind=kind))
    finally:
        sim.remove_all()
