#!/usr/bin/python3
"""The token benchmark suite (bench/run.sh builds and calls it).

For each size N it builds (or reuses) two SoftHSM2 token stores of N RSA 2048
and N EC P-256 certificate and key pairs, one whose keys share CKA_ID with
their certificates and one without CKA_ID, and runs every job with every tool
on the same token: the library (bench/library/LibraryJobs.cpp), the floor
program (bench/floor/FloorProgram.cpp), pkcs11-tool and a PyKCS11 script.
Each command runs once through the counting module (the Cryptoki calls, per
function) and then REPS times against SoftHSM2 itself, the tools of a job
taking turns (median wall time of the whole process, peak resident memory). Then the signing benchmark, the
ATR lookup benchmark, and one table.
"""
import argparse
import json
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

PIN = "1234"
SOFTHSM_PATHS = ["/usr/lib/softhsm/libsofthsm2.so", "/usr/lib/x86_64-linux-gnu/softhsm/libsofthsm2.so",
                 "/usr/local/lib/softhsm/libsofthsm2.so"]
# Jobs per token variant; the certificate and key listings and Discover read
# the same objects on both variants, so they run on the first only.
JOBS = {"id": ["discover", "certs", "keys", "findcert", "pair"], "noid": ["findcert", "pair"]}


class Suite:
    def __init__(self, args):
        self.args = args
        self.build = os.path.abspath(args.build)
        self.bench = os.path.join(self.build, "bench")
        self.cache = os.path.join(self.build, "bench-cache")
        self.softhsm = next((p for p in SOFTHSM_PATHS if os.path.exists(p)), None)
        self.counting = os.path.join(self.bench, "countingp11", "libcountingp11.so")
        self.script = os.path.join(os.path.dirname(os.path.abspath(__file__)), "pykcs11_jobs.py")
        self.rows = []
        self.details = []
        self.shares = []
        self.work = tempfile.mkdtemp(prefix="p11bench-")

    def check_tools(self):
        missing = []
        if self.softhsm is None:
            missing.append("softhsm2 (libsofthsm2.so)")
        for tool, package in (("pkcs11-tool", "opensc"), ("softhsm2-util", "softhsm2")):
            if shutil.which(tool) is None:
                missing.append(f"{tool} ({package})")
        if subprocess.run([sys.executable, "-c", "import PyKCS11"], capture_output=True).returncode != 0:
            missing.append("PyKCS11 for " + sys.executable + " (python3-pykcs11)")
        if missing:
            sys.exit("bench: missing " + ", ".join(missing))

    # --- tokens -----------------------------------------------------------

    def token(self, variant, pairs):
        store = os.path.join(self.cache, "tokens", f"{variant}-{pairs}")
        stamp = f"pairs={pairs} variant={variant}\n"
        ready = os.path.join(store, "READY")
        if not (os.path.exists(ready) and open(ready).read() == stamp):
            print(f"bench: building the {variant} token of {pairs} pairs in {store}", flush=True)
            started = time.perf_counter()
            subprocess.run([os.path.join(self.bench, "p11bench_mktoken"), "--store", store, "--pairs", str(pairs),
                            "--variant", variant, "--keys", os.path.join(self.cache, "keys"), "--module",
                            self.softhsm], check=True)
            print(f"bench: built in {time.perf_counter() - started:.1f} s", flush=True)
        return os.path.join(store, "softhsm2.conf")

    # --- running ----------------------------------------------------------

    def run_once(self, command, env):
        """Wall seconds, peak resident KiB and stdout of one process."""
        out_path = os.path.join(self.work, "out")
        err_path = os.path.join(self.work, "err")
        with open(out_path, "wb") as out, open(err_path, "wb") as err:
            started = time.perf_counter()
            proc = subprocess.Popen(command, env=env, stdout=out, stderr=err, stdin=subprocess.DEVNULL)
            _pid, status, usage = os.wait4(proc.pid, 0)
            wall = time.perf_counter() - started
        proc.returncode = os.waitstatus_to_exitcode(status)
        if proc.returncode != 0:
            sys.exit(f"bench: {' '.join(command)} failed:\n{open(err_path).read()}")
        return wall, usage.ru_maxrss, open(out_path).read().strip()

    def count_calls(self, command, env):
        counts_file = os.path.join(self.work, "counts")
        if os.path.exists(counts_file):
            os.remove(counts_file)
        counted = dict(env, COUNTING_P11_MODULE=self.softhsm, COUNTING_P11_OUT=counts_file)
        _wall, _rss, result = self.run_once(command(self.counting), counted)
        counts = dict(line.split() for line in open(counts_file).read().splitlines())
        return {k: int(v) for k, v in counts.items()}, result

    def measure(self, pairs, variant, job, env):
        """Every tool of the job: its calls, then REPS rounds in which each
        tool runs once in turn, so that all see the same machine load. The
        job alone (after the login) is what the floor and the library time in
        the process; for the other tools, their wall time less that of the
        same tool's login-only run."""
        tools = list(self.commands(variant, job))
        logins = dict(self.login_commands()) if job != "discover" else {}
        counted = {tool: self.count_calls(command, env) for tool, command in tools}
        walls = {tool: [] for tool, _ in tools + list(logins.items())}
        alone = {tool: [] for tool, _ in tools}
        peaks = {tool: [] for tool, _ in tools}
        for _ in range(self.args.reps):
            for tool, command in tools + list(logins.items()):
                wall, rss, out = self.run_once(command(self.softhsm), env)
                walls[tool].append(wall)
                if tool in peaks:
                    peaks[tool].append(rss)
                    alone[tool] += [float(f.split("=")[1]) for f in out.split() if f.startswith("jobAloneSeconds=")]
        for tool, _ in tools:
            counts, result = counted[tool]
            if tool == "pkcs11-tool":
                result = str(result.count("Object;") or result.count("Slot "))
            result = result.split()[0] if result else result
            wall = statistics.median(walls[tool])
            # Discover has no login to start the job from: the whole process is the job.
            job_alone = (None if job == "discover" else statistics.median(alone[tool]) if alone[tool] else
                         wall - statistics.median(walls[tool + " login"]) if tool + " login" in walls else None)
            row = {"N": pairs, "variant": variant, "job": job, "tool": tool, "calls": counts["total"], "wall": wall,
                   "jobAlone": job_alone, "peakKiB": max(peaks[tool]), "result": result}
            self.rows.append(row)
            self.details.append(dict(row, perFunction=counts))
            alone_text = f"{job_alone:8.3f} s alone" if job_alone is not None else " " * 14
            print(f"  {pairs:>5} {variant:<4} {job:<9} {tool:<12} {row['calls']:>7} calls "
                  f"{row['wall']:8.3f} s {alone_text} {row['peakKiB'] / 1024:7.1f} MiB  result {result}", flush=True)

    def login_commands(self):
        """The login-only runs of the tools that cannot time their job themselves."""
        yield "pkcs11-tool login", lambda m: ["pkcs11-tool", "--module", m, "--login", "--pin", PIN, "-O", "--type", "data"]
        yield "PyKCS11 login", lambda m: [sys.executable, self.script, m, PIN, "login", "id"]

    def commands(self, variant, job):
        """(tool, command builder taking the module path) for the job."""
        lib = os.path.join(self.bench, "p11bench_lib")
        floor = os.path.join(self.bench, "p11floor")
        yield "floor", lambda m: [floor, "--module", m, "--pin", PIN, "--job", job, "--variant", variant]
        yield "library", lambda m: [lib, "--module", m, "--pin", PIN, "--job", job]
        tool_args = {"discover": ["-L"], "certs": ["-O", "--type", "cert"],
                     "keys": ["--login", "--pin", PIN, "-O", "--type", "privkey"],
                     "pair": ["--login", "--pin", PIN, "-O"]}
        if job in tool_args:
            yield "pkcs11-tool", lambda m: ["pkcs11-tool", "--module", m] + tool_args[job]
        if job in ("certs", "keys", "pair"):
            yield "PyKCS11", lambda m: [sys.executable, self.script, m, PIN, job, variant]

    def run_jobs(self):
        for pairs in self.args.pairs:
            for variant in ("id", "noid"):
                env = dict(os.environ, SOFTHSM2_CONF=self.token(variant, pairs))
                for job in JOBS[variant]:
                    self.measure(pairs, variant, job, env)
                if variant == "id":
                    self.parse_share(pairs, env)

    def parse_share(self, pairs, env):
        command = [os.path.join(self.bench, "p11bench_lib"), "--module", self.softhsm, "--pin", PIN, "--job", "pair",
                   "--parse-share", "1"]
        _wall, _rss, out = self.run_once(command, env)
        fields = {k: float(v) for k, v in (item.split("=") for item in out.split()[1:])}
        job, work, parse = fields["jobSeconds"], fields["certWorkSeconds"], fields["fullParseSeconds"]
        self.details.append({"N": pairs, "job": "pair", "jobSeconds": job, "certWorkSeconds": work,
                             "fullParseSeconds": parse})
        self.shares.append((pairs, job, work, parse))
        print(f"  {pairs:>5} id   pair      certificate work {work:.3f} s of the job's {job:.3f} s in the process "
              f"({100 * work / job:.0f} %); d2i_X509 of every certificate would add {parse:.3f} s", flush=True)

    # --- signing and ATR ----------------------------------------------------

    def signing(self):
        pairs = min(self.args.pairs)
        env = dict(os.environ, SOFTHSM2_CONF=self.token("id", pairs))
        sign = os.path.join(self.bench, "p11bench_sign")
        self.signatures = []
        for key, mechanism in (("rsa", "RSA-PKCS"), ("ec", "ECDSA")):
            _w, _r, out = self.run_once([sign, "--module", self.softhsm, "--pin", PIN, "--key", key,
                                         "--signatures", str(self.args.signatures)], env)
            figures = dict(item.split("=") for item in out.split())
            tool = self.tool_signature(key, mechanism, env)
            self.signatures.append(dict(figures, key=key, **tool))
            print(f"  sign {key}: library {figures['libraryMedianUs']} us, bare loop {figures['bareMedianUs']} us "
                  f"per signature (overhead {figures['overheadPercent']} %); pkcs11-tool --sign "
                  f"{tool['toolMedianMs']:.1f} ms a process ({tool['toolCalls']} calls)", flush=True)

    def tool_signature(self, key, mechanism, env):
        data = os.path.join(self.work, "tbs")
        # What the token signs for a SHA-256 digest: a DigestInfo for RSA, the digest for ECDSA.
        digest = bytes(range(32))
        prefix = bytes.fromhex("3031300d060960864801650304020105000420") if key == "rsa" else b""
        open(data, "wb").write(prefix + digest)
        key_id = self.key_id(f"bench {key} 0000", env)

        def command(m):
            return ["pkcs11-tool", "--module", m, "--login", "--pin", PIN, "--sign", "--mechanism", mechanism,
                    "--id", key_id, "-i", data, "-o", os.path.join(self.work, "sig")]
        counts, _ = self.count_calls(command, env)
        walls = [self.run_once(command(self.softhsm), env)[0] for _ in range(self.args.tool_signatures)]
        return {"toolMedianMs": 1000 * statistics.median(walls), "toolCalls": counts["total"]}

    def key_id(self, label, env):
        """The CKA_ID of the private key with the label, as pkcs11-tool lists it."""
        _w, _r, listing = self.run_once(["pkcs11-tool", "--module", self.softhsm, "--login", "--pin", PIN, "-O",
                                         "--type", "privkey"], env)
        lines = listing.splitlines()
        for i, line in enumerate(lines):
            if line.strip() == f"label:      {label}":
                return next(l.split()[1] for l in lines[i:] if l.strip().startswith("ID:"))
        sys.exit(f"bench: no private key labelled {label}")

    def atr(self):
        bench = os.path.join(self.bench, "carddb_bench")
        _w, _r, out = self.run_once([bench, "--benchmark_format=json", "--benchmark_filter=BM_CardDataLookupAtr2"],
                                    dict(os.environ))
        runs = json.loads(out)["benchmarks"]
        median = next(b for b in runs if b["name"].endswith("_median"))
        self.atr_us = median["real_time"]
        print(f"  ATR lookup (CardDataLookupAtr2): {self.atr_us:.0f} us a call (median)", flush=True)

    # --- report -------------------------------------------------------------

    def table(self):
        floors = {(r["N"], r["variant"], r["job"]): r for r in self.rows if r["tool"] == "floor"}
        lines = ["| N | variant | job | tool | calls | calls / floor | median wall | wall / floor | job alone | "
                 "alone / floor | peak memory |",
                 "|---:|---|---|---|---:|---:|---:|---:|---:|---:|---:|"]
        for r in self.rows:
            f = floors[(r["N"], r["variant"], r["job"])]
            alone = (f"{r['jobAlone']:.3f} s | {r['jobAlone'] / f['jobAlone']:.2f}" if r["jobAlone"] is not None
                     else " | ")
            lines.append(f"| {r['N']} | {r['variant']} | {r['job']} | {r['tool']} | {r['calls']} | "
                         f"{r['calls'] / f['calls']:.2f} | {r['wall']:.3f} s | {r['wall'] / f['wall']:.2f} | {alone} | "
                         f"{r['peakKiB'] / 1024:.1f} MiB |")
        for s in self.signatures:
            lines.append(f"| {min(self.args.pairs)} | id | sign {s['key']} (per signature) | library / bare loop | "
                         f"2 / 2 | 1.00 | {float(s['libraryMedianUs']):.1f} us / {float(s['bareMedianUs']):.1f} us | "
                         f"{1 + float(s['overheadPercent']) / 100:.3f} | |")
            lines.append(f"| {min(self.args.pairs)} | id | sign {s['key']} (a process) | pkcs11-tool | "
                         f"{s['toolCalls']} | | {s['toolMedianMs']:.1f} ms | | |")
        lines.append(f"| | | atr | library | | | {self.atr_us:.0f} us | | |")
        lines.append("")
        lines.append("| N | pair job in the process | certificate work (outline, key type, EC point) | "
                     "d2i_X509 of every certificate, not spent |")
        lines.append("|---:|---:|---:|---:|")
        for pairs, job, work, parse in self.shares:
            lines.append(f"| {pairs} | {job:.3f} s | {work:.3f} s ({100 * work / job:.0f} %) | {parse:.3f} s |")
        return "\n".join(lines)

    def report(self):
        text = self.table()
        print("\n" + text)
        with open(os.path.join(self.build, "bench-results.md"), "w") as out:
            out.write(text + "\n")
        with open(os.path.join(self.build, "bench-results.json"), "w") as out:
            json.dump({"rows": self.details, "signing": self.signatures, "atrMicros": self.atr_us}, out, indent=1)
        print(f"\nbench: table in {self.build}/bench-results.md, calls per function in bench-results.json")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", required=True)
    parser.add_argument("--pairs", type=int, nargs="+", default=[10, 100, 1000])
    parser.add_argument("--reps", type=int, default=5)
    parser.add_argument("--signatures", type=int, default=1000)
    parser.add_argument("--tool-signatures", type=int, default=10)
    suite = Suite(parser.parse_args())
    suite.check_tools()
    try:
        suite.run_jobs()
        suite.signing()
        suite.atr()
        suite.report()
    finally:
        shutil.rmtree(suite.work, ignore_errors=True)


if __name__ == "__main__":
    main()
