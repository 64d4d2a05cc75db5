#!/usr/bin/env python3
"""Checks the include graph of the library (sys/src) against its levels.

Every file of sys/src/vrk has a level in LEVELS below; a file may include
files of its own level or a lower one, never a higher one, and the headers
include each other without a cycle. Headers under an `impl/` folder are
internal: their first line says so. A file missing from the table is an
error, so the table stays complete.

usage: include_levels.py [--report] [SOURCE_ROOT]   (default: sys/src)
  --report  print the cycles and upward includes and exit 0
"""
import fnmatch
import pathlib
import re
import sys

# Lowest first. An implementation file sits where everything it includes is
# at hand, which may be above its header: string.cpp throws, so it sits above
# the exception class, while string.hpp sits below it. The README's "Where
# things are" section describes these levels.
LEVELS = [
    ("foundation", [
        "vrk/memory.hpp", "vrk/atomic.*", "vrk/auto_ptr.hpp", "vrk/iosfwd.hpp",
        "vrk/import.hpp", "vrk/error_registry.*", "vrk/throw_helpers.hpp",
        "vrk/ext/noncopyable.hpp", "vrk/ext/auto_object.hpp", "vrk/ext/heap_allocator.hpp",
        "vrk/ext/pointer_counter_combination.hpp", "vrk/impl/char_traits.hpp",
        "vrk/impl/postypes.hpp", "vrk/impl/ios_flags.hpp"]),
    ("integer text and strings", [
        "vrk/ext/itoa.*", "vrk/ext/dtoa.*", "vrk/string.hpp", "vrk/base/faultprot_cstring.hpp"]),
    ("exception class", [
        "vrk/ext/message_list.hpp", "vrk/base/impl/exception_data.hpp",
        "vrk/base/impl/exception_class.hpp", "vrk/string.cpp"]),
    ("streams", [
        "vrk/streambuf.*", "vrk/ios.*", "vrk/locale.*", "vrk/ostream.*", "vrk/istream.*",
        "vrk/sstream.*", "vrk/iomanip.hpp", "vrk/base/ios_base.*", "vrk/base/ios_failure.hpp",
        "vrk/base/ctype.*", "vrk/base/num_put.*", "vrk/base/num_get.*",
        "vrk/base/streambuf_iterator.hpp", "vrk/base/faultprot_cstring.cpp",
        "vrk/ext/buffer_stream.hpp", "vrk/impl/stream_region.*"]),
    ("messages", [
        "vrk/ext/message_list.cpp", "vrk/ext/message_args.*", "vrk/ext/message_exc_args.cpp"]),
    ("exception core", [
        "vrk/base/impl/exception.cpp", "vrk/base/impl/exception_data.cpp",
        "vrk/base/impl/exception_registration.cpp", "vrk/base/impl/exception_messages.cpp",
        "vrk/base/impl/exception_source.hpp", "vrk/throw.hpp", "vrk/throw_helpers.cpp",
        "vrk/exception.hpp"]),
    ("printing and wire format", [
        "vrk/base/impl/exception_print.cpp", "vrk/base/impl/bad_alloc_text.*",
        "vrk/base/impl/exception_serialize.cpp", "vrk/exception_types.*"]),
    # Beside the library: it may use any level, and no level uses it.
    ("default host", ["vrk/host/*"]),
]

INCLUDE = re.compile(r'^\s*#\s*include\s+"(vrk/[^"]+)"', re.M)


def level_of(path):
    for index, (_, patterns) in enumerate(LEVELS):
        if any(fnmatch.fnmatchcase(path, p) for p in patterns):
            return index
    return None


def find_cycles(graph):
    cycles, state, stack = [], {}, []

    def visit(node):
        state[node] = 1
        stack.append(node)
        for dep in sorted(graph.get(node, ())):
            if state.get(dep) == 1:
                cycles.append(stack[stack.index(dep):] + [dep])
            elif dep not in state:
                visit(dep)
        stack.pop()
        state[node] = 2

    for node in sorted(graph):
        if node not in state:
            visit(node)
    return cycles


def main(args):
    report = "--report" in args
    args = [a for a in args if a != "--report"]
    root = pathlib.Path(args[0] if args else "sys/src")
    files = sorted(str(p.relative_to(root)) for p in root.rglob("vrk/**/*.[ch]pp"))
    graph = {f: set(INCLUDE.findall((root / f).read_text())) for f in files}
    problems = []
    for f in files:
        if level_of(f) is None:
            problems.append(f"{f}: not in the level table")
        if f.endswith(".hpp") and "/impl/" in f:
            first = (root / f).read_text().split("\n", 1)[0]
            if not first.startswith("// Internal header"):
                problems.append(f"{f}: internal header whose first line does not say so")
        for dep in sorted(graph[f]):
            if dep not in graph:
                problems.append(f"{f}: includes {dep}, which does not exist")
                continue
            mine, theirs = level_of(f), level_of(dep)
            if mine is not None and theirs is not None and theirs > mine:
                problems.append(f"upward include: {f} ({LEVELS[mine][0]}) -> {dep} "
                                f"({LEVELS[theirs][0]})")
    for cycle in find_cycles(graph):
        problems.append("cycle: " + " -> ".join(cycle))
    for p in problems:
        print(p)
    edges = sum(len(d) for d in graph.values())
    print(f"include_levels: {len(files)} files, {edges} includes, {len(problems)} problems")
    return 0 if report or not problems else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
