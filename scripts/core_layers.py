#!/usr/bin/python3
"""The core's include graph, by layer: files, include arrows, arrows that run up
a layer (wire < platform < cache < ask < engine), cycles between modules (a
module is a .h with its .cpp) and the longest function.

  python3 scripts/core_layers.py [mdns/src]
"""
import collections
import os
import re
import sys

ORDER = {"wire": 0, "platform": 1, "cache": 2, "ask": 3, "engine": 4}


def sources(root):
    for folder, _, names in os.walk(root):
        for name in names:
            if name.endswith((".h", ".cpp")):
                path = os.path.join(folder, name)
                yield os.path.relpath(path, root), path


def includes(files):
    arrows = set()
    for rel, path in files.items():
        for line in open(path, encoding="utf-8"):
            m = re.match(r'\s*#\s*include\s+"([^"]+)"', line)
            if m and m.group(1) in files and m.group(1) != rel:
                arrows.add((rel, m.group(1)))
    return arrows


def layer(rel):
    return ORDER.get(rel.split("/")[0])


def cycles(arrows):
    graph = collections.defaultdict(set)
    for a, b in arrows:
        ma, mb = os.path.splitext(a)[0], os.path.splitext(b)[0]
        if ma != mb:
            graph[ma].add(mb)
    index, low, stack, on, found = {}, {}, [], set(), []

    def visit(v):
        index[v] = low[v] = len(index)
        stack.append(v)
        on.add(v)
        for w in graph[v]:
            if w not in index:
                visit(w)
                low[v] = min(low[v], low[w])
            elif w in on:
                low[v] = min(low[v], index[w])
        if low[v] == index[v]:
            scc = []
            while True:
                w = stack.pop()
                on.discard(w)
                scc.append(w)
                if w == v:
                    break
            if len(scc) > 1:
                found.append(sorted(scc))

    for v in list(graph):
        if v not in index:
            visit(v)
    return found


def longest_function(files):
    best = (0, "")
    for rel, path in files.items():
        if not rel.endswith(".cpp"):
            continue
        depth, start, name, base = 0, None, "", 0
        for n, line in enumerate(open(path, encoding="utf-8")):
            code = re.sub(r"//.*", "", line)
            if depth <= 1 and re.match(r"^[A-Za-z].*\)\s*(const\s*)?\{\s*$", code) and not code.startswith(
                    ("namespace", "extern", "class", "struct")):
                start, name, base = n, code.strip(), depth
            depth += code.count("{") - code.count("}")
            if start is not None and depth == base:
                if n - start + 1 > best[0]:
                    best = (n - start + 1, f"{rel}: {name[:70]}")
                start = None
    return best


def main():
    root = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "..", "mdns", "src")
    files = dict(sources(root))
    arrows = includes(files)
    up = sorted((a, b) for a, b in arrows if None not in (layer(a), layer(b)) and layer(b) > layer(a))
    found = cycles(arrows)
    print(f"files {len(files)}, include arrows {len(arrows)}, arrows up a layer {len(up)}, cycles {len(found)}")
    for a, b in up:
        print(f"  up: {a} -> {b}")
    for c in found:
        print("  cycle: " + " ".join(c))
    size, where = longest_function(files)
    print(f"longest function: {size} lines, {where}")


if __name__ == "__main__":
    main()
