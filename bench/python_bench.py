"""Documents per second through the Python package: kln.extract in this process,
kln.Pool's serve workers, and kln2txt started once per document, on the sample
documents repeated (1,000 times by default).

    python bench/python_bench.py build/samples [--repeat 1000] [--workers 2]
"""

import argparse
import subprocess
import time
from pathlib import Path

import kln


def per_second(label: str, count: int, run) -> None:
    start = time.perf_counter()
    run()
    seconds = time.perf_counter() - start
    print(f"{label:<36} {count / seconds:10.0f} documents/s  ({count} in {seconds:.1f} s)")


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("samples", type=Path)
    parser.add_argument("--repeat", type=int, default=1000)
    parser.add_argument("--workers", type=int, default=2)
    args = parser.parse_args()
    paths = sorted(args.samples.glob("*.kln")) * args.repeat
    count = len(paths)

    per_second("kln.extract, one thread", count, lambda: [kln.extract(p, tables=False) for p in paths])
    with kln.Pool(workers=args.workers) as pool:
        def pooled() -> None:
            assert all(r.ok for r in pool.imap_unordered(paths))

        per_second(f"kln.Pool, {args.workers} workers", count, pooled)
    exe = kln.kln2txt_path()

    def one_process_each() -> None:
        for p in paths:
            subprocess.run([exe, str(p)], stdout=subprocess.DEVNULL, check=True)

    per_second("kln2txt once per document", count, one_process_each)


if __name__ == "__main__":
    main()
