"""Segments a corpus of audio files on a Dask cluster into one table.

Each file is streamed and segmented on a worker exactly as ``ktfront vad`` does; the table
has one row per speech segment: ``file``, ``start``, ``end`` (seconds), with ``--volume``
the segment's ``peak_dbfs`` and ``mean_snr_volume_pct``, and ``error``. A file without
speech gives one row with empty start and end; a file that fails gives one row with its
error, and the run goes on. Each file's rows are appended as soon as it is done, so the
table is valid at any moment, and ``--resume`` skips the files already in it.

From Python::

    from dask.distributed import Client, LocalCluster
    from ktfront import corpus
    with LocalCluster(n_workers=4, threads_per_worker=1) as cluster, Client(cluster) as client:
        rows = corpus.run(paths, "segments.jsonl", client)

From the shell::

    python3 -m ktfront.corpus -o segments.csv --workers 4 recordings/*.wav
    python3 -m ktfront.corpus -o segments.jsonl --scheduler tcp://host:8786 --manifest list.txt

Exit status: 0 when every file was segmented, 1 when some failed (their rows say why), 2
for a usage error, a refused parameter string, an output that cannot be written or a
scheduler that cannot be reached (before any work) and for a write that fails during the
run, 130 when interrupted (the table holds every file finished).
"""
import argparse
import csv
import io
import json
import os
import shutil
import signal
import sys
import tempfile

from . import _read_records, check_params
from ._results import Event, Segment, Volume
from ._stream import LOOK_BACK_S

COLUMNS = ["file", "start", "end", "peak_dbfs", "mean_snr_volume_pct", "error"]


def segment_file(path, params="", block_ms=20, volume=False):
    """The table rows of one file, streamed in one pass; never raises for a bad file."""
    path = str(path)
    try:
        if not volume:
            rows = [{"file": path, "start": s.start, "end": s.end}
                    for s in _read_records(path, params, block_ms, False, warn=False)]
        else:
            rows = _with_volume(path, params, block_ms)
        return rows or [{"file": path, "start": None, "end": None}]
    except Exception as e:  # the table reports it; the corpus goes on
        return [{"file": path, "start": None, "end": None, "error": f"{type(e).__name__}: {e}"}]


def _with_volume(path, params, block_ms):
    """Rows with the peak dBFS and mean SNR volume of the readings inside each segment
    (start < time <= end); only the readings a segment may still reach back to are kept."""
    readings, rows, speaking = [], [], False
    reach_ms = 1000 * LOOK_BACK_S + 2 * block_ms
    for r in _read_records(path, params, block_ms, True, events=True, warn=False):
        if isinstance(r, Volume):
            readings.append((r.time_ms, r.volume_dbfs, r.snr_volume_pct))
            if not speaking and len(readings) > 256:  # trimmed now and then: each trim copies
                readings = [v for v in readings if v[0] >= readings[-1][0] - reach_ms]
        elif isinstance(r, Event) and r.tag == "SpeechStart":
            speaking = True
        elif isinstance(r, Segment):
            inside = [v for v in readings if r.start * 1000 < v[0] <= r.end * 1000]
            rows.append({"file": path, "start": r.start, "end": r.end,
                         "peak_dbfs": max((v[1] for v in inside), default=None),
                         "mean_snr_volume_pct": sum(v[2] for v in inside) / len(inside) if inside else None})
            readings = [v for v in readings if v[0] > r.end * 1000]
            speaking = False
    return rows


def segment_files(paths, params="", block_ms=20, volume=False):
    """The rows of a few files, one list per file: one task for several short files."""
    return [segment_file(path, params, block_ms, volume) for path in paths]


def serial(paths, params="", block_ms=20, volume=False):
    """The same table computed in this process, file after file, in input order."""
    return [row for path in paths for row in segment_file(path, params, block_ms, volume)]


class _WriteFailed(OSError):
    """The table could not be written to during the run (a full disk)."""


class _Table:
    """The output table, opened before any work and appended to file by file: CSV if the
    name ends in .csv, else JSON Lines. Each file's rows go out in one write."""

    def __init__(self, output, resume=False):
        self.path = os.fspath(output)
        self.csv = self.path.endswith(".csv")
        self.done = set()
        # Only a regular file is read back: a pipe or /dev/stdout has nothing to resume from,
        # and its header went out when it was first opened.
        regular = os.path.isfile(self.path)
        if resume and regular:
            self.done = self._read_done()
        self._fd = os.open(self.path, os.O_WRONLY | os.O_CREAT | (os.O_APPEND if resume else os.O_TRUNC), 0o666)
        if self.csv and (os.fstat(self._fd).st_size == 0 if regular else not resume):
            os.write(self._fd, self._text([]).encode())

    def _read_done(self):
        with open(self.path, "rb") as f:
            data = f.read()
        if data and not data.endswith(b"\n"):
            # A write cut short: drop its partial line, and the rows of its file before it,
            # so that the file is done again whole.
            cut = data.rfind(b"\n") + 1
            partial, data = data[cut:], data[:cut]
            rows = self._rows(data.decode())
            prefix = self._prefix(rows[-1]) if rows else b""
            if rows and (partial.startswith(prefix) or prefix.startswith(partial)):
                last = rows[-1]["file"]
                while rows and rows[-1]["file"] == last:
                    rows.pop()
                    data = data[:data.rstrip(b"\n").rfind(b"\n") + 1]
            with open(self.path, "r+b") as f:
                f.truncate(len(data))
        return {row["file"] for row in self._rows(data.decode())}

    def _rows(self, text):
        if self.csv:
            return [row for row in csv.DictReader(io.StringIO(text)) if row.get("file")]
        return [json.loads(line) for line in text.splitlines() if line.strip()]

    def _prefix(self, row):
        """How a row of the same file begins."""
        if self.csv:
            return self._text([{"file": row["file"]}]).split(",")[0].encode() + b","
        return json.dumps({"file": row["file"]})[:-1].encode()

    def _text(self, rows):
        if not self.csv:
            return "".join(json.dumps(row) + "\n" for row in rows)
        out = io.StringIO()
        writer = csv.DictWriter(out, fieldnames=COLUMNS)
        if not rows:
            writer.writeheader()
        writer.writerows(rows)
        return out.getvalue()

    def write(self, rows):
        data = self._text(rows).encode()
        try:
            while data:
                data = data[os.write(self._fd, data):]
        except OSError as e:
            raise _WriteFailed(e.errno, f"cannot write {self.path}: {e.strerror}") from e

    def close(self):
        os.close(self._fd)


def run(paths, output=None, client=None, params="", block_ms=20, volume=False, show_progress=True,
        resume=False):
    """Segments every file on the client's workers and returns the rows in input order; with
    output, appends each file's rows to it as soon as the file is done (completion order).

    Without a client, a LocalCluster with one single-threaded worker process per core is
    started. With resume, files already in output are skipped (and not returned).
    """
    from dask.distributed import Client, LocalCluster, as_completed

    table = _Table(output, resume) if output is not None else None
    paths = [str(p) for p in paths]
    todo = [p for p in paths if table is None or p not in table.done]
    own = None
    if client is None:
        own = LocalCluster(threads_per_worker=1, dashboard_address=":0")
        client = Client(own)
    results, failed, shown = {}, 0, [0]
    try:
        # Files go in batches of up to 16, a few batches per worker: a task costs the
        # scheduler some milliseconds, as much as segmenting a short file.
        workers = max(1, len(client.scheduler_info().get("workers", {})))
        size = max(1, min(16, len(todo) // (4 * workers)))
        batches = [list(range(at, min(at + size, len(todo)))) for at in range(0, len(todo), size)]
        futures = client.map(segment_files, [[todo[i] for i in b] for b in batches], params=params,
                             block_ms=block_ms, volume=volume, pure=False)
        batch_of = {f.key: b for f, b in zip(futures, batches)}
        for future in as_completed(futures):
            batch = batch_of[future.key]
            try:
                done = future.result()
            except Exception as e:  # a lost worker, not a bad file
                done = [[{"file": todo[i], "start": None, "end": None, "error": f"{type(e).__name__}: {e}"}]
                        for i in batch]
            for i, rows in zip(batch, done):
                results[i] = rows
                failed += any(r.get("error") for r in rows)
            if table is not None:
                table.write([row for rows in done for row in rows])
            if show_progress:
                _progress(len(results), len(todo), failed, shown)
    finally:
        if table is not None:
            table.close()
        if own is not None:
            client.close()
            own.close()
    return [row for i in range(len(todo)) for row in results[i]]


def _progress(done, total, failed, shown):
    """One line on standard error; in place on a terminal, else at each tenth (shown: the last)."""
    line = f"ktfront.corpus: {done}/{total} files, {failed} failed"
    if sys.stderr.isatty():
        print("\r" + line, end="\n" if done == total else "", file=sys.stderr, flush=True)
    elif done == total or done * 10 // total != shown[0]:
        shown[0] = done * 10 // total
        print(line, file=sys.stderr, flush=True)


def main(argv=None):
    parser = argparse.ArgumentParser(prog="python3 -m ktfront.corpus", description=__doc__.split("\n")[0])
    parser.add_argument("files", nargs="*", help="audio files")
    parser.add_argument("--manifest", help="a file listing audio files, one per line")
    parser.add_argument("-o", "--output", required=True, help="table to write: .csv or JSON Lines")
    parser.add_argument("--resume", action="store_true", help="append to the table, skipping the files in it")
    parser.add_argument("--scheduler", help="address of a running Dask scheduler (default: a local cluster)")
    parser.add_argument("--workers", type=int, help="worker processes of the local cluster (default: one per core)")
    parser.add_argument("--params", default="", help="analyzer parameter string \"Key=Value;...\"")
    parser.add_argument("--block-ms", type=int, default=20, help="host block length in ms, as for ktfront vad (default: 20)")
    parser.add_argument("--volume", action="store_true", help="add each segment's volume statistics")
    args = parser.parse_args(argv)

    def fail(message):
        print(f"ktfront.corpus: error: {message}", file=sys.stderr)
        return 2

    paths = list(args.files)
    try:
        if args.manifest:
            with open(args.manifest) as f:
                paths += [line.strip() for line in f if line.strip()]
        for warning in check_params(args.params, "analyzer", 16000):
            print(f"ktfront.corpus: warning: {warning}", file=sys.stderr)
        if args.block_ms < 1:
            raise ValueError(f"--block-ms {args.block_ms} is below 1")
        if args.workers is not None and args.workers < 1:
            raise ValueError(f"--workers {args.workers} is below 1")
        if args.workers is not None and args.scheduler:
            raise ValueError("--workers is for the local cluster: a scheduler's workers are its own")
        if not paths:
            raise ValueError("no files given")
        table = _Table(args.output, args.resume)
    except (OSError, ValueError) as e:
        return fail(e)
    skipped = sum(1 for p in paths if p in table.done)
    table.close()

    import logging

    # Ctrl-C at the terminal reaches the whole process group: the worker processes start
    # with SIGINT ignored, so that only this process acts on it (a Ctrl-C while the cluster
    # starts is not seen).
    cluster = client = scratch = None
    try:
        handler = signal.signal(signal.SIGINT, signal.SIG_IGN)
        try:
            from dask.distributed import Client, LocalCluster
            if not args.scheduler:
                # Its HTTP server on a free port (8787 may be another cluster's), and its
                # workers' files in a directory of its own, not beside other runs' leftovers.
                scratch = tempfile.mkdtemp(prefix="ktfront-corpus-")
                cluster = LocalCluster(n_workers=args.workers, threads_per_worker=1, dashboard_address=":0",
                                       local_directory=scratch, silence_logs=logging.CRITICAL)
            client = Client(args.scheduler or cluster)
        finally:
            signal.signal(signal.SIGINT, handler)
        rows = run(paths, args.output, client, args.params, args.block_ms, args.volume, resume=True)
    except _WriteFailed as e:  # what the table holds stays valid
        _close(client, cluster, scratch)
        return fail(f"{e.strerror}; it holds every file finished before (--resume goes on from there)")
    except OSError as e:  # no scheduler at that address
        _close(client, cluster, scratch)
        return fail(e)
    except KeyboardInterrupt:
        print(("\n" if sys.stderr.isatty() else "") + f"ktfront.corpus: interrupted; {args.output} holds every file finished "
              "(--resume goes on from there)", file=sys.stderr, flush=True)
        # The cluster's shutdown chatter (and distributed's own exit hooks) stay unprinted.
        logging.disable(logging.CRITICAL)
        sys.stderr = open(os.devnull, "w")
        _close(client, cluster, scratch)
        return 130
    _close(client, cluster, scratch)
    failed = len({r["file"] for r in rows if r.get("error")})
    print(f"ktfront.corpus: {len(paths) - skipped} files, {len(rows)} rows, {failed} failed"
          + (f", {skipped} already in {args.output}" if skipped else ""), file=sys.stderr)
    return 1 if failed else 0


def _close(client, cluster, scratch):
    try:
        if client is not None:
            client.close()
        if cluster is not None:
            cluster.close()
    except (Exception, KeyboardInterrupt):
        pass
    if scratch is not None:
        shutil.rmtree(scratch, ignore_errors=True)


if __name__ == "__main__":
    # Run the importable module's main, so that the functions Dask ships are
    # ktfront.corpus's, which workers import, not this __main__'s.
    from ktfront.corpus import main as _main
    sys.exit(_main())
