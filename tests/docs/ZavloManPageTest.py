#!/usr/bin/env python3
"""The manual page and `zavlo-auth --help` name the same commands and the same options.

Usage: ZavloManPageTest.py ZAVLO_AUTH MAN_PAGE

Each command's --help is read, from the top down through every subcommand CLI11 lists,
and its options are compared with those the manual page's section of that command names.
"""
import re
import subprocess
import sys


def help_of(binary, path):
    result = subprocess.run([binary, *path, "--help"], capture_output=True, text=True, timeout=30)
    if result.returncode != 0:
        sys.exit(f"{' '.join(path)} --help: exit {result.returncode}: {result.stderr}")
    return result.stdout


def options_in_help(text):
    options, subcommands, section = set(), [], None
    for line in text.splitlines():
        if re.match(r"^[A-Z][a-z]+:$", line):
            section = line[:-1]
            continue
        if section == "Options":
            found = re.match(r"^\s+((?:-\w,)?--[\w-]+)", line)
            if found:
                options.update(found.group(1).split(","))
        elif section == "Subcommands":
            found = re.match(r"^\s+([\w-]+)\s", line)
            if found:
                subcommands.append(found.group(1))
    return options, subcommands


def walk(binary):
    """{command path: options} for the program and every subcommand."""
    commands, queue = {}, [()]
    while queue:
        path = queue.pop(0)
        options, subcommands = options_in_help(help_of(binary, list(path)))
        commands[path] = options
        queue.extend(path + (sub,) for sub in subcommands)
    return commands


def man_sections(source):
    """The roff source as text, split into GLOBAL OPTIONS and one part per command entry."""
    text = source.replace("\\-", "-").replace("\\fB", "").replace("\\fR", "").replace("\\fI", "")
    sections = re.split(r"^\.SH ", text, flags=re.M)
    named = {part.split("\n", 1)[0].strip(): part for part in sections}
    return named


def man_options(text):
    return set(re.findall(r"(?<![\w-])(--[a-z][\w-]*|-[a-z])(?![\w-])", text))


def main():
    binary, page = sys.argv[1], sys.argv[2]
    with open(page, encoding="utf-8") as handle:
        source = handle.read()
    sections = man_sections(source)
    failures = []
    for required in ("NAME", "SYNOPSIS", "DESCRIPTION", "GLOBAL OPTIONS", "COMMANDS", "EXIT STATUS", "ENVIRONMENT",
                     "FILES", "EXAMPLES"):
        if required not in sections:
            failures.append(f"the manual page has no {required} section")

    commands = walk(binary)
    # A command's entry in COMMANDS starts at a ".TP" whose next line is ".B <path>"; it ends
    # at the next entry of the same level (nested .RS blocks belong to it).
    entries = {}
    current = None
    for line in sections.get("COMMANDS", "").splitlines():
        found = re.match(r"^\.B ([a-z][a-z ]*?)(?: --| [A-Z]|$| \S*\[)", line)
        if found and found.group(1).strip():
            current = tuple(found.group(1).split())
            entries.setdefault(current, "")
        if current:
            entries[current] += line + "\n"

    for path, options in commands.items():
        if not path:
            expected, documented = options, man_options(sections.get("GLOBAL OPTIONS", ""))
            where = "the global options"
        elif path not in entries:
            if any(other[: len(path)] == path and other != path for other in commands):
                continue  # a group such as "binding": its leaves are documented
            failures.append(f"the manual page has no entry for the command '{' '.join(path)}'")
            continue
        else:
            expected = options - {"-h", "--help"}
            documented = man_options(entries[path])
            where = f"'{' '.join(path)}'"
        if expected - documented:
            failures.append(f"{where}: --help lists {sorted(expected - documented)}, the manual page does not")
        if documented - expected:
            failures.append(f"{where}: the manual page names {sorted(documented - expected)}, --help does not")
    for path in entries:
        if path not in commands:
            failures.append(f"the manual page documents '{' '.join(path)}', which --help does not list")

    # Rendering: groff's warnings (unknown macros, bad escapes) are the page's faults too.
    try:
        rendered = subprocess.run(["groff", "-man", "-ww", "-z", page], capture_output=True, text=True, timeout=30)
        if rendered.returncode != 0 or rendered.stderr.strip():
            failures.append(f"groff: {rendered.stderr.strip() or 'exit ' + str(rendered.returncode)}")
    except FileNotFoundError:
        print("groff not found (Debian package groff-base): the page's rendering is not checked")

    for failure in failures:
        print(failure)
    print(f"{len(commands)} commands compared, {len(failures)} differences")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
