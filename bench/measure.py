"""The measurements of script/bench, inside a sandbox: measure.py download | start | idle [--quick].

hyperfine(1) times whole commands.
"""

import json
import os
import pathlib
import re
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
    run = ["hyperfine", "--shell=none", "--style=none", f"--runs={runs}"]
    run += ["--export-json=/tmp/times", *options]
    for name, command in commands.items():
        run += ["--command-name", name, command]
    subprocess.run(run, check=True, env=os.environ | environment, stdout=subprocess.DEVNULL)
    return json.loads(pathlib.Path("/tmp/times").read_text())["results"]


def peak_mib(command):
    """The most memory that the command takes, by time(1)."""
    timed = ["time", "-f", "%M", *shlex.split(command)]
    measured = subprocess.run(timed, capture_output=True, check=True)
    return int(measured.stderr.split()[-1]) / 1024


def spread(result, less=0):
    """The median of hyperfine's times in milliseconds, with the least and the most."""
    median, least, most = (1000 * (result[name] - less) for name in ("median", "min", "max"))
    return f"{median:.0f} ({least:.0f} to {most:.0f})"


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
        print(f"\ndownload of {size} MiB   wall ms (least to most)   CPU ms   peak memory MiB")
        for result in results:
            subprocess.run(["sh", "-c", f"rm -f {target}*"], check=True)
            cpu = 1000 * (result["user"] + result["system"])
            peak = peak_mib(commands[result["command"]])
            print(f"{result['command']:22} {spread(result):24} {cpu:.0f}   {peak:.1f}")
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
    runs = 2 if QUICK else 15
    print("\nstart and end   ms (least to most)")
    for result in hyperfine(runs, commands, "--ignore-failure", **machine.environment):
        pauses = 4 if result["command"] == "launcher" else 0
        print(f"{result['command']:15} {spread(result, less=pauses)}", flush=True)


def used(pid):
    """CPU in milliseconds, own and with children, and wake-ups so far, from proc(5)."""
    process = pathlib.Path(f"/proc/{pid}")
    fields = process.joinpath("stat").read_text().rsplit(")", 1)[1].split()
    own, children = (sum(map(int, fields[at : at + 2])) for at in (11, 13))
    switches = [(task / "status").read_text() for task in process.joinpath("task").iterdir()]
    wakeups = sum(map(int, re.findall(r"ctxt_switches:\s+(\d+)", " ".join(switches))))
    tick = 1000 / os.sysconf("SC_CLK_TCK")
    return own * tick, (own + children) * tick, wakeups


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
    quiet = {"env": machine.environment | {"PATH": "/usr/bin:/bin"}, "stdout": subprocess.DEVNULL}
    running = {
        "launcher": machine.launch(env=quiet["env"]),
        "floor": machine.start(["/build/bench/bench_floor"], **quiet),
        "monit": machine.start(["monit", "-I", "-c", MONITRC], **quiet),
    }
    sandbox.until(sandbox.AGENT.exists, "start-up is complete")
    time.sleep(5)
    before = {name: used(process.pid) for name, process in running.items()}
    time.sleep(seconds)
    print(
        f"\nidle for {seconds} s   CPU ms   with children   wake-ups a minute   private memory MiB"
    )
    for name, process in running.items():
        own, all_cpu, wakeups = (now - then for now, then in zip(used(process.pid), before[name]))
        columns = f"{own:6.0f} {all_cpu:15.0f} {wakeups * 60 / seconds:19.0f}"
        print(f"{name:16} {columns} {private_mib(process.pid):20.1f}")
    spent = os.times()
    for _ in range(seconds // 30):
        subprocess.run(["sh", "-c", "pgrep -x KR"], **quiet, check=True)
    by_hand = 1000 * (sum(os.times()[2:4]) - sum(spent[2:4]))
    print(f"the shell and pgrep of as many probes, by hand: {by_hand:.0f} ms of CPU")


if __name__ == "__main__":
    if sys.argv[1] == "download":
        download()
    else:
        with sandbox.Machine() as machine:
            {"start": start, "idle": idle}[sys.argv[1]](machine)
