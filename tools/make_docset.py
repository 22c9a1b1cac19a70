#!/usr/bin/env python3
"""A set of varied KLN documents for the Python tests and benchmarks.

    make_docset.py MAKE_SAMPLES OUTDIR [COUNT]

writes COUNT (300 by default) descriptions in the format of samples/ — word
processing, spreadsheets, drawings with embedded objects and databases in
turn, each with its own seeded content — and builds them into OUTDIR/NAME.kln
with the given make_samples executable. The same seed gives the same set.
"""

from __future__ import annotations

import random
import subprocess
import sys
import tempfile
from pathlib import Path

KINDS = ("text", "sheet", "drawing", "database")

# Words representable in the documents' character set, Windows-31J.
WORDS = (
    "会議 予算 報告 東京 大阪 京都 名古屋 営業 経理 総務 資料 計画 売上 在庫 契約 請求 "
    "meeting budget report office sales invoice stock order delivery contract plan review "
    "quarter summary archive partner customer supplier schedule notice 平成 令和 第1四半期"
).split()
NAMES = ("山田 太郎", "鈴木 一郎", "佐藤 花子", "高橋 美咲", "John Brown", "Mary Smith", "田中 健", "Ann Lee")


def _words(rng: random.Random, n: int) -> str:
    return " ".join(rng.choice(WORDS) for _ in range(n))


def _properties(rng: random.Random, number: int, kind: str) -> list[str]:
    return [
        f"title       {kind} {number}: {_words(rng, 3)}",
        f"author      {rng.choice(NAMES)}",
        f"keywords    {_words(rng, 2)}, {number}",
        f"description {_words(rng, rng.randint(2, 8))}",
        f"class       {rng.choice(('finance', 'notice', 'letter', 'address book'))}",
        f"version     {rng.randint(1, 20)}",
    ]


def _text_lines(rng: random.Random) -> list[str]:
    lines = []
    for _ in range(rng.randint(1, 6)):  # blocks
        lines += [_words(rng, rng.randint(1, 14)) for _ in range(rng.randint(1, 8))]
        lines.append("")
    return lines[:-1]


def _date(rng: random.Random) -> str:
    return f"{rng.randint(1990, 2030)}-{rng.randint(1, 12):02d}-{rng.randint(1, 28):02d}"


def _text(rng: random.Random) -> list[str]:
    body = _text_lines(rng)
    body[0] = "{} " + body[0]
    return [f"inline      {rng.choice(('御中', 'Dear', '様', 'To:', 'Re:'))}", "text", *body]


def _drawing(rng: random.Random) -> list[str]:
    objects = [
        f"object note{i}.txt | {_words(rng, rng.randint(1, 6))}\\n{_words(rng, rng.randint(1, 6))}"
        for i in range(rng.randint(1, 3))
    ]
    return [*objects, "text", *_text_lines(rng)]


def _sheet(rng: random.Random) -> list[str]:
    lines = ["style yen currency decimals 0 thousands parens", "style rate percent decimals 1",
             "style day era", "style clock time"]
    cells = (
        lambda: _words(rng, rng.randint(1, 3)),
        lambda: f"{rng.randint(-50000, 500000)} @yen",
        lambda: f"={rng.random():.4f} @rate",
        lambda: f"{_date(rng)} @day",
        lambda: f"{rng.randint(0, 23):02d}:{rng.randint(0, 59):02d} @clock",
        lambda: str(rng.randint(0, 999)),
        lambda: rng.choice(("TRUE", "FALSE")),
        lambda: "",
    )
    for _ in range(rng.randint(1, 25)):
        # The first cell is never empty: a sheet needs at least one cell.
        row = [rng.choice(cells[:-1])()] + [rng.choice(cells)() for _ in range(rng.randint(0, 6))]
        lines.append("row " + " | ".join(row))
    return lines


def _database(rng: random.Random) -> list[str]:
    lines = ["style day date", "field 氏名 text", "field 金額 number", "field 日付 date @day",
             "field 区分 choice 取引先, 社員, 友人", "field 年賀状 yesno", "field 備考 text"]
    for _ in range(rng.randint(1, 30)):
        values = (rng.choice(NAMES), str(rng.randint(0, 99999)), rng.choice((_date(rng), "")),
                  rng.choice(("取引先", "社員", "友人")), rng.choice(("TRUE", "FALSE")), _words(rng, rng.randint(0, 4)))
        lines.append("record " + " | ".join(values))
    return lines


BODIES = {"text": _text, "sheet": _sheet, "drawing": _drawing, "database": _database}


def description(number: int, seed: int = 19) -> tuple[str, str]:
    """The name and description of document `number` of the set."""
    rng = random.Random(seed * 1_000_003 + number)
    kind = KINDS[number % len(KINDS)]
    lines = [f"kind        {kind}", *_properties(rng, number, kind), *BODIES[kind](rng)]
    return f"{kind}-{number:04d}", "\n".join(lines) + "\n"


def build(make_samples: str | Path, outdir: str | Path, count: int = 300) -> list[Path]:
    """Builds the set into outdir; answers the documents' paths in order."""
    outdir = Path(outdir)
    outdir.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory() as work:
        descriptions = []
        for number in range(count):
            name, text = description(number)
            path = Path(work) / f"{name}.desc"
            path.write_text(text, encoding="utf-8")
            descriptions.append(path)
        if subprocess.run([str(make_samples), str(outdir), *map(str, descriptions)]).returncode:
            raise RuntimeError(f"{make_samples} failed on the generated descriptions")
    return [outdir / f"{d.stem}.kln" for d in descriptions]


if __name__ == "__main__":
    if len(sys.argv) not in (3, 4):
        sys.exit(__doc__)
    build(sys.argv[1], sys.argv[2], int(sys.argv[3]) if len(sys.argv) == 4 else 300)
