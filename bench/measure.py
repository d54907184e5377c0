"""The measurements of script/bench, inside a sandbox: measure.py download | start | idle [--quick].

hyperfine(1) times whole commands.
"""
import collections
import json
import os
import pathlib
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
    named = [word for name, command in commands.items() for word in ("-n", name, command)]
    run = ["hyperfine", "-N", "--style", "none", "--runs", str(runs), "--export-json", "/tmp/times", *options, *named]
    subprocess.run(run, check=True, env=os.environ | environment, stdout=subprocess.DEVNULL)
    return json.loads(pathlib.Path("/tmp/times").read_text())["results"]


def download():
    """Ours, curl alone, and the commands that keep the same promise."""
    target = DISK / "KR"
    url = f"https://{certificates.HOST}{service.DOWNLOAD_PATH}KR"
    curl = f"curl -sS -o {target}.new {shlex.quote(url)}"
    durable = f"{curl} && sync {target}.new && chmod 755 {target}.new && mv {target}.new {target}"
    commands = {
        "launcher": f"/build/bench/bench_download {target}",
        "curl": curl,
        "curl, sync, mv": f"sh -c {shlex.quote(durable)}",
    }
    DISK.mkdir()
    certificates.make_all()
    (certificates.FOLDER / "nginx.conf").write_text(NGINX)
    nginx = subprocess.Popen(["nginx", "-c", certificates.FOLDER / "nginx.conf"])
    for size, runs in {8: 2, 16: 2}.items() if QUICK else {64: 15, 1024: 7}.items():
        (DISK / "payload").write_bytes(os.urandom(MiB) * size)
        results = hyperfine(runs, commands, "--warmup", "1", "--prepare", f"sh -c 'rm -f {target}*; sync'")
        print(f"\ndownload of {size} MiB   wall s (least to most)   CPU s   peak memory MiB")
        for result in results:
            memory = ["time", "-f", "%M", *shlex.split(commands[result["command"]])]
            kib = int(subprocess.run(memory, check=True, capture_output=True, text=True).stderr.split()[-1])
            wall = f"{result['median']:.3f} ({result['min']:.3f} to {result['max']:.3f})"
            print(f"{result['command']:22} {wall:24} {result['user'] + result['system']:.3f}   {kib / 1024:.1f}")
    nginx.terminate()
    subprocess.run(["rm", "-r", DISK], check=True)


def start(machine):
    """From exec to the end of an outdated launcher, less its 4 s of pauses; and of a program with its libraries."""
    machine.offer("2.5", launcher="2.6")
    commands = {"launcher": str(machine.launcher_path), "floor": "/build/bench/bench_floor end"}
    print("\nstart and end   ms (least to most)")
    for result in hyperfine(2 if QUICK else 15, commands, "--ignore-failure", **machine.environment):
        pauses = 4 if result["command"] == "launcher" else 0
        median, least, most = ((result[name] - pauses) * 1000 for name in ("median", "min", "max"))
        print(f"{result['command']:15} {median:.0f} ({least:.0f} to {most:.0f})", flush=True)


def thread_files(pid, name):
    """The content of this file in /proc for each thread of the process."""
    return [(task / name).read_text() for task in pathlib.Path(f"/proc/{pid}/task").iterdir()]


Usage = collections.namedtuple("Usage", "own_cpu_ms cpu_with_children_ms wakeups")


def usage_of(pid):
    own = sum(int(text.split()[0]) for text in thread_files(pid, "schedstat")) / 1e6
    after_name = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    with_children = sum(int(ticks) for ticks in after_name[11:15]) / os.sysconf("SC_CLK_TCK") * 1000
    switches = [line for text in thread_files(pid, "status") for line in text.splitlines() if "ctxt_switches" in line]
    return Usage(own, with_children, sum(int(line.split()[1]) for line in switches))


def private_mib(pid):
    lines = pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines()
    return sum(int(line.split()[1]) for line in lines if line.startswith("Private_")) / 1024


def idle(machine):
    """All at once, side by side, supervising a companion that runs; the floor supervises nothing."""
    seconds = 20 if QUICK else 600
    machine.offer("2.5")
    machine.start_companion()
    MONITRC.write_text(MONIT.format(companion=machine.companion))
    MONITRC.chmod(0o600)
    sandbox.own(MONITRC)
    # With the system's own pgrep, rather than the sandbox's in front of it.
    running = {"launcher": machine.launch(environment=machine.environment | {"PATH": "/usr/bin:/bin"})}
    for name, command in {"floor": ["/build/bench/bench_floor"], "monit": ["monit", "-I", "-c", MONITRC]}.items():
        running[name] = machine.start(command, env=machine.environment, stdout=subprocess.DEVNULL)
    sandbox.until(sandbox.AGENT.exists, "start-up is complete")
    time.sleep(5)
    before = {name: usage_of(process.pid) for name, process in running.items()}
    time.sleep(seconds)
    print(f"\nidle for {seconds} s   CPU ms   with children   wake-ups a minute   private memory MiB")
    for name, process in running.items():
        own, with_children, wakeups = (now - then for now, then in zip(usage_of(process.pid), before[name]))
        memory = private_mib(process.pid)
        print(f"{name:16} {own:6.0f} {with_children:15.0f} {wakeups * 60 / seconds:19.0f} {memory:20.1f}")


if __name__ == "__main__":
    if sys.argv[1] == "download":
        download()
    else:
        with sandbox.Machine() as machine:
            {"start": start, "idle": idle}[sys.argv[1]](machine)
