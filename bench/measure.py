"""The measurements of script/bench, inside a sandbox: measure.py download | start | idle [--quick].

hyperfine(1) times whole commands.
"""

import collections
import json
import os
import pathlib
import re
import resource
import shlex
import subprocess
import sys
import time

import certificates
import machine as sandbox
import service

QUICK = "--quick" in sys.argv
DISK = pathlib.Path("/out/bench.tmp")  # a real disk, unlike the sandbox's own folders
MiB = 1 << 20
NGINX = f"""
user root root; worker_processes 1; daemon off; pid /run/nginx.pid; error_log /dev/null;
events {{}}
http {{
    access_log off; client_body_temp_path /tmp/b; proxy_temp_path /tmp/p; fastcgi_temp_path /tmp/f;
    uwsgi_temp_path /tmp/u; scgi_temp_path /tmp/s;
    server {{
        listen 443 ssl; ssl_certificate {certificates.FOLDER}/good.crt;
        ssl_certificate_key {certificates.FOLDER}/good.key;
        root {DISK}; location / {{ try_files /payload =404; }}
    }}
}}
"""
MONITRC = pathlib.Path("/tmp/monitrc")
MONIT = """
set daemon 30
set pidfile /tmp/monit.pid
set statefile /tmp/monit.state
set idfile /tmp/monit.id
check process companion matching {companion}
"""


def hyperfine(runs, commands, *options, **environment):
    """Times the commands, by their names; returns what hyperfine says of each."""
    run = [
        "hyperfine",
        "--shell=none",
        "--style=none",
        f"--runs={runs}",
        "--export-json=/tmp/times",
        *options,
    ]
    for name, command in commands.items():
        run += ["--command-name", name, command]
    subprocess.run(run, check=True, env=os.environ | environment, stdout=subprocess.DEVNULL)
    return json.loads(pathlib.Path("/tmp/times").read_text())["results"]


def peak_mib(command):
    """The most memory that the command takes, by time(1)."""
    measured = subprocess.run(
        ["time", "-f", "%M", *shlex.split(command)], capture_output=True, check=True
    )
    return int(measured.stderr.split()[-1]) / 1024


def spread(result, unit=1, less=0):
    """The median of hyperfine's times, with the least and the most."""
    median, least, most = ((result[name] - less) / unit for name in ("median", "min", "max"))
    digits = 3 if unit == 1 else 0
    return f"{median:.{digits}f} ({least:.{digits}f} to {most:.{digits}f})"


def download():
    """Ours, curl alone, and the commands that keep the same promise."""
    target = DISK / "KR.app/Contents/MacOS/KR"
    url = f"https://{certificates.HOST}{service.DOWNLOAD_PATH}"
    curl = f"curl -sS -o {target}.new {shlex.quote(url)}"
    durable = f"{curl} && sync {target}.new && chmod 755 {target}.new && mv {target}.new {target}"
    commands = {
        "launcher": f"/build/packaging/service_check {target}",
        "curl": curl,
        "curl, sync, mv": f"sh -c {shlex.quote(durable)}",
    }
    target.parent.mkdir(parents=True)
    certificates.make_good()
    (certificates.FOLDER / "nginx.conf").write_text(NGINX)
    nginx = subprocess.Popen(["nginx", "-c", certificates.FOLDER / "nginx.conf"])
    runs_by_size = {8: 2, 16: 2} if QUICK else {64: 15, 1024: 7}
    for size, runs in runs_by_size.items():
        (DISK / "payload").write_bytes(os.urandom(MiB) * size)
        results = hyperfine(
            runs, commands, "--warmup=1", "--prepare", f"sh -c 'rm -f {target}*; sync'"
        )
        print(f"\ndownload of {size} MiB   wall s (least to most)   CPU s   peak memory MiB")
        for result in results:
            name = result["command"]
            cpu = result["user"] + result["system"]
            print(f"{name:22} {spread(result):24} {cpu:.3f}   {peak_mib(commands[name]):.1f}")
    nginx.terminate()
    subprocess.run(["rm", "-r", DISK], check=True)


def start(machine):
    """From exec to the end of an outdated launcher, less its 4 s of pauses.

    Beside it a program with its libraries, with curl for its two requests and without.
    """
    machine.offer("2.5", launcher="2.6")
    curl = f"curl -sS -d app=KR_CAP https://{certificates.HOST}{service.VERSION_PATH}"
    commands = {
        "launcher": str(machine.launcher_path),
        "floor, two curl": f"sh -c '/build/bench/bench_floor end; {curl}; {curl}'",
        "floor": "/build/bench/bench_floor end",
    }
    print("\nstart and end   ms (least to most)")
    for result in hyperfine(
        2 if QUICK else 15, commands, "--ignore-failure", **machine.environment
    ):
        name = result["command"]
        pauses = 4 if name == "launcher" else 0
        print(f"{name:15} {spread(result, unit=0.001, less=pauses)}", flush=True)


Usage = collections.namedtuple("Usage", "own_cpu_ms cpu_with_children_ms wakeups")


def usage_of(pid):
    """What the process has used so far, from proc(5)."""
    own = wakeups = 0
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        own += int((task / "schedstat").read_text().split()[0]) / 1e6
        switches = re.findall(r"ctxt_switches:\s+(\d+)", (task / "status").read_text())
        wakeups += sum(map(int, switches))
    after_name = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    ticks = sum(int(field) for field in after_name[11:15])
    return Usage(own, ticks / os.sysconf("SC_CLK_TCK") * 1000, wakeups)


def private_mib(pid):
    kib = re.findall(r"Private_\w+:\s+(\d+)", pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text())
    return sum(map(int, kib)) / 1024


def idle(machine):
    """All at once, side by side, supervising a companion; the floor supervises nothing."""
    seconds = 20 if QUICK else 600
    machine.offer("2.5")
    machine.start_companion()
    MONITRC.write_text(MONIT.format(companion=machine.companion))
    MONITRC.chmod(0o600)
    sandbox.own(MONITRC)
    # With the system's own pgrep, rather than the sandbox's in front of it.
    environment = machine.environment | {"PATH": "/usr/bin:/bin"}
    quiet = {"env": environment, "stdout": subprocess.DEVNULL}
    running = {
        "launcher": machine.launch(env=environment),
        "floor": machine.start(["/build/bench/bench_floor"], **quiet),
        "monit": machine.start(["monit", "-I", "-c", MONITRC], **quiet),
    }
    sandbox.until(sandbox.AGENT.exists, "start-up is complete")
    time.sleep(5)
    before = {name: usage_of(process.pid) for name, process in running.items()}
    time.sleep(seconds)
    children = resource.getrusage(resource.RUSAGE_CHILDREN)
    for _ in range(seconds // 30):
        subprocess.run(["sh", "-c", "pgrep -x KR"], **quiet, check=True)
    probes = resource.getrusage(resource.RUSAGE_CHILDREN)
    cpu = (probes.ru_utime + probes.ru_stime - children.ru_utime - children.ru_stime) * 1000
    print(f"\nthe shell and pgrep of as many probes, by hand: {cpu:.0f} ms of CPU")
    print(
        f"\nidle for {seconds} s   CPU ms   with children   wake-ups a minute   private memory MiB"
    )
    for name, process in running.items():
        own, with_children, wakeups = (
            now - then for now, then in zip(usage_of(process.pid), before[name])
        )
        memory = private_mib(process.pid)
        print(
            f"{name:16} {own:6.0f} {with_children:15.0f}"
            f" {wakeups * 60 / seconds:19.0f} {memory:20.1f}"
        )


if __name__ == "__main__":
    if sys.argv[1] == "download":
        download()
    else:
        with sandbox.Machine() as machine:
            {"start": start, "idle": idle}[sys.argv[1]](machine)
