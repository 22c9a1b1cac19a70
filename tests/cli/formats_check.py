"""Checks kln2txt's structured formats of each document against each other.

Usage: formats_check.py KLN2TXT DOCUMENT...

Every output is strict UTF-8; the HTML parses as XML; every JSON line
parses; the cell texts of the delimited text, of the JSON lines, of the
HTML tables and of the Markdown tables are the same, in the same order
(the delimited text's where no cell holds a tab or a line end).
"""
import html
import json
import re
import subprocess
import sys
import xml.dom.minidom


def run(tool, fmt, doc):
    out = subprocess.run([tool, "--format", fmt, doc], stdout=subprocess.PIPE, check=False).stdout
    return out.decode("utf-8")  # strict: a byte that is not UTF-8 fails the check


def delimited_cells(tool, doc, database):
    """The cells of the text output; a database's first line holds its field names."""
    out = subprocess.run([tool, "--tab", "--no-quote", doc], stdout=subprocess.PIPE, check=False).stdout
    return [line.split("\t") for line in out.decode("utf-8").split("\n")[1 if database else 0:]]


def jsonl_cells(text):
    cells = []
    for line in text.splitlines():
        obj = json.loads(line)
        if "cells" in obj:
            row = obj["cells"]
            cells.append(list(row.values()) if isinstance(row, dict) else row)
    return cells


def html_cells(text):
    dom = xml.dom.minidom.parseString(text.encode("utf-8"))

    def content(node):
        if node.nodeType == node.TEXT_NODE:
            return node.data
        return "\n" if node.tagName == "br" else "".join(content(c) for c in node.childNodes)

    return [[content(td) for td in tr.getElementsByTagName("td")] for tr in dom.getElementsByTagName("tr")
            if tr.getElementsByTagName("td")]


def markdown_cells(text):
    rows, lines = [], text.split("\n")
    for i, line in enumerate(lines):
        if not line.startswith("|") or re.fullmatch(r"(\| --- )+\|", line):
            continue
        if i + 1 < len(lines) and re.fullmatch(r"(\| --- )+\|", lines[i + 1]):
            continue  # a header row
        parts = re.split(r"(?<!\\)((?:\\\\)*)\|", line)
        cells = ["".join(parts[k:k + 2]) for k in range(2, len(parts) - 2, 2)]
        rows.append([html.unescape(re.sub(r"\\(.)", r"\1", c.strip()).replace("<br>", "\n")) for c in cells])
    return rows


def comparable(rows, markdown=False):
    """Non-empty cells in order; Markdown shows control characters as spaces."""
    out = []
    for row in rows:
        for cell in row:
            if markdown:
                cell = re.sub(r"[\x00-\x09\x0b-\x1f\x7f]", " ", cell)
            cell = cell.strip()
            if cell:
                out.append(cell)
    return out


def main():
    tool, docs = sys.argv[1], sys.argv[2:]
    failed = False
    for doc in docs:
        expected = jsonl_cells(run(tool, "jsonl", doc))
        checks = [("html", comparable(html_cells(run(tool, "html", doc)))),
                  ("markdown", comparable(markdown_cells(run(tool, "markdown", doc)), True))]
        if expected and not any("\t" in c or "\n" in c for row in expected for c in row):
            database = '"cells":{' in run(tool, "jsonl", doc)
            checks.append(("delimited", comparable(delimited_cells(tool, doc, database))))
        for name, got in checks:
            want = comparable(expected, name == "markdown")
            if got != want:
                print(f"{doc} {name}: {got!r} != {want!r}")
                failed = True
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
