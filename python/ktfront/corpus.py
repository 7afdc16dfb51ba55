"""Segments a corpus of audio files on a Dask cluster into one table.

Each file is read and segmented on a worker exactly as ``ktfront vad`` does; the table
has one row per speech segment: ``file``, ``start``, ``end`` (seconds), with ``--volume``
the segment's ``peak_dbfs`` and ``mean_snr_volume_pct``, and ``error``. A file without
speech gives one row with empty start and end; a file that fails gives one row with its
error, and the run goes on.

From Python::

    from dask.distributed import Client, LocalCluster
    from ktfront import corpus
    with LocalCluster(n_workers=4, threads_per_worker=1) as cluster, Client(cluster) as client:
        rows = corpus.run(paths, "segments.jsonl", client)

On many machines, connect the client to the scheduler instead (``Client("tcp://host:8786")``);
every worker must see the files at the same paths. From the shell::

    python3 -m ktfront.corpus -o segments.csv --workers 4 recordings/*.wav
    python3 -m ktfront.corpus -o segments.jsonl --scheduler tcp://host:8786 --manifest list.txt
"""
import argparse
import csv
import json
import sys

from ._ktfront import load, segments, segments_with_volume

COLUMNS = ["file", "start", "end", "peak_dbfs", "mean_snr_volume_pct", "error"]


def segment_file(path, params="", block_ms=20, volume=False):
    """The table rows of one file; never raises for a bad file."""
    path = str(path)
    try:
        samples, rate = load(path)
        if volume:
            rows = [{"file": path, "start": s, "end": e, "peak_dbfs": peak, "mean_snr_volume_pct": mean}
                    for s, e, peak, mean in segments_with_volume(samples, rate, params, block_ms)]
        else:
            rows = [{"file": path, "start": s, "end": e} for s, e in segments(samples, rate, params, block_ms)]
        return rows or [{"file": path, "start": None, "end": None}]
    except Exception as e:  # the table reports it; the corpus goes on
        return [{"file": path, "start": None, "end": None, "error": f"{type(e).__name__}: {e}"}]


def serial(paths, params="", block_ms=20, volume=False):
    """The same table computed in this process, file after file."""
    return [row for path in paths for row in segment_file(path, params, block_ms, volume)]


def write_table(rows, output):
    """Writes CSV if output ends in .csv, else JSON Lines."""
    with open(output, "w", newline="") as f:
        if str(output).endswith(".csv"):
            writer = csv.DictWriter(f, fieldnames=COLUMNS)
            writer.writeheader()
            writer.writerows(rows)
        else:
            for row in rows:
                f.write(json.dumps(row) + "\n")


def run(paths, output=None, client=None, params="", block_ms=20, volume=False, show_progress=True):
    """Segments every file on the client's workers, in input order; writes output if given.

    Without a client, a LocalCluster with one single-threaded worker per core is started.
    """
    from dask.distributed import Client, LocalCluster, progress

    own = None
    if client is None:
        own = LocalCluster(threads_per_worker=1, dashboard_address=None)
        client = Client(own)
    try:
        paths = [str(p) for p in paths]
        futures = client.map(segment_file, paths, params=params, block_ms=block_ms, volume=volume, pure=False)
        if show_progress:
            progress(futures)
        rows = []
        for path, future in zip(paths, futures):
            try:
                rows += future.result()
            except Exception as e:  # a lost worker, not a bad file
                rows.append({"file": path, "start": None, "end": None, "error": f"{type(e).__name__}: {e}"})
    finally:
        if own is not None:
            client.close()
            own.close()
    if output is not None:
        write_table(rows, output)
    return rows


def main(argv=None):
    parser = argparse.ArgumentParser(prog="python3 -m ktfront.corpus", description=__doc__.split("\n")[0])
    parser.add_argument("files", nargs="*", help="audio files")
    parser.add_argument("--manifest", help="a file listing audio files, one per line")
    parser.add_argument("-o", "--output", required=True, help="table to write: .csv or JSON Lines")
    parser.add_argument("--scheduler", help="address of a running Dask scheduler (default: a local cluster)")
    parser.add_argument("--workers", type=int, help="workers of the local cluster (default: one per core)")
    parser.add_argument("--params", default="", help="analyzer parameter string \"Key=Value;...\"")
    parser.add_argument("--block-ms", type=int, default=20)
    parser.add_argument("--volume", action="store_true", help="add each segment's volume statistics")
    args = parser.parse_args(argv)
    paths = list(args.files)
    if args.manifest:
        with open(args.manifest) as f:
            paths += [line.strip() for line in f if line.strip()]
    if not paths:
        parser.error("no files given")
    from dask.distributed import Client, LocalCluster

    cluster = None if args.scheduler else LocalCluster(n_workers=args.workers, threads_per_worker=1,
                                                         dashboard_address=None)
    with Client(args.scheduler or cluster) as client:
        rows = run(paths, args.output, client, args.params, args.block_ms, args.volume)
    if cluster is not None:
        cluster.close()
    failed = sum(1 for r in rows if r.get("error"))
    print(f"\n{len(paths)} files, {len(rows) - failed} rows, {failed} failed", file=sys.stderr)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
