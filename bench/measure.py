"""The measurements of script/bench, inside a sandbox: measure.py ROW [quick]. Writes JSON to standard output.

Each row is a list of [what, unit, samples]; what is compared is interleaved, sample by sample.
"""
import collections
import json
import os
import pathlib
import random
import resource
import socket
import subprocess
import sys
import time

import machine as sandbox
import service

QUICK = "quick" in sys.argv
DISK = pathlib.Path("/out/bench.tmp")  # a real disk, unlike the sandbox's own folders
MiB = 1 << 20
NGINX = """
user root root; worker_processes 1; daemon off; pid /run/nginx.pid; error_log /dev/null;
events {{}}
http {{
    access_log off; client_body_temp_path /tmp/b; proxy_temp_path /tmp/p; fastcgi_temp_path /tmp/f;
    uwsgi_temp_path /tmp/u; scgi_temp_path /tmp/s;
    server {{ listen 443 ssl; ssl_certificate {tls}/good.crt; ssl_certificate_key {tls}/good.key;
             root {root}; location / {{ try_files /payload =404; }} }}
}}
"""


def timed(command, **options):
    """Runs a command; returns its wall seconds, CPU seconds and peak memory in MiB, children included."""
    # A process counts the memory of the one it was forked from as its own peak: "time" is small.
    command = ["time", "-q", "-o", "/tmp/time", "-f", "%M", *command]
    begin = time.monotonic()
    process = subprocess.Popen(command, stderr=subprocess.DEVNULL, **options)
    _, status, usage = os.wait4(process.pid, 0)
    process.returncode = status
    if status:
        sys.exit(f"{command} has failed: {status}")
    return (
        time.monotonic() - begin,
        usage.ru_utime + usage.ru_stime,
        int(pathlib.Path("/tmp/time").read_text()) / 1024,
    )


def download():
    """Ours, the bare curl command, and the command that keeps the same promise."""
    DISK.mkdir()
    sandbox.make_certificates()
    (sandbox.TLS / "nginx.conf").write_text(NGINX.format(tls=sandbox.TLS, root=DISK))
    url = f"https://{sandbox.HOST}{service.DOWNLOAD_PATH}KR"
    target = DISK / "KR"
    contenders = {
        "launcher": ["/build/bench/bench_download", str(target)],
        "curl": ["curl", "-sS", "-o", str(target), url],
        "curl, sync, mv": [
            "sh",
            "-c",
            f"curl -sS -o {target}.new '{url}' && sync {target}.new && chmod 755 {target}.new &&"
            f" mv {target}.new {target}",
        ],
    }
    rows = []
    with sandbox.Processes() as processes:
        processes.start(["nginx", "-c", str(sandbox.TLS / "nginx.conf")], user=None)
        sandbox.until(lambda: socket.socket().connect_ex(("127.0.0.1", 443)) == 0, "nginx is up")
        for size in (8, 16) if QUICK else (64, 256, 1024):
            with open(DISK / "payload", "wb") as payload:
                for _ in range(size):
                    payload.write(random.randbytes(MiB))
            os.sync()
            samples = {name: [] for name in contenders}
            for _ in range(3 if QUICK else {64: 15, 256: 9, 1024: 7}[size]):
                for name, command in contenders.items():
                    target.unlink(missing_ok=True)
                    os.sync()  # what the one before left behind is not this one's to write
                    samples[name].append(timed(command))
                    if target.stat().st_size != size * MiB:
                        sys.exit(f"{name}: an incomplete file")
            for name, taken in samples.items():
                for index, (measure, unit) in enumerate((("wall", "s"), ("CPU", "s"), ("peak memory", "MiB"))):
                    rows.append([f"download {size} MiB, {measure}: {name}", unit, [sample[index] for sample in taken]])
    return rows


def cpu_seconds(pid):
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return sum(map(int, fields[11:15])) / os.sysconf("SC_CLK_TCK")


def cpu_precise(pid):
    """Nanosecond CPU time of the process's own threads (schedstat), in seconds."""
    return (
        sum(int((task / "schedstat").read_text().split()[0]) for task in pathlib.Path(f"/proc/{pid}/task").iterdir())
        / 1e9
    )


def wakeups(pid):
    text = "".join((task / "status").read_text() for task in pathlib.Path(f"/proc/{pid}/task").iterdir())
    return sum(int(line.split()[1]) for line in text.splitlines() if "ctxt_switches" in line)


def private_mib(pid):
    """The private memory of each file that is mapped ("" for what is no file), by its name."""
    memory = collections.Counter()
    for line in pathlib.Path(f"/proc/{pid}/smaps").read_text().splitlines():
        words = line.split()
        if "-" in words[0]:
            name = pathlib.Path(words[5]).name if len(words) > 5 and words[5].startswith("/") else ""
        elif words[0].startswith("Private_"):
            memory[name] += int(words[1]) / 1024
    return memory


def idle():
    """All at once for ten minutes, side by side: the launcher supervising a companion that runs, and the others."""
    seconds = 20 if QUICK else 600
    with sandbox.Machine() as machine:
        machine.offer("2.5")
        companion = machine.start_companion()
        quiet = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
        pathlib.Path("/tmp/monitrc").write_text(
            f"set daemon 30\nset pidfile /tmp/monit.pid\nset statefile /tmp/monit.state\nset idfile /tmp/monit.id\n"
            f"check process companion matching {machine.companion}\n"
        )
        os.chmod("/tmp/monitrc", 0o600)
        os.chown("/tmp/monitrc", sandbox.UID, sandbox.UID)
        pathlib.Path("/tmp/supervisord.conf").write_text(
            "[supervisord]\nnodaemon=true\nlogfile=/dev/null\nlogfile_maxbytes=0\npidfile=/tmp/supervisord.pid\n"
            "[program:companion]\ncommand=/usr/bin/sleep 100000\n"
        )
        running = {
            "launcher": machine.launch(),
            "toolkit floor": machine.start(["/build/bench/bench_floor"], env=machine.environment, **quiet),
            "monit": machine.start(["monit", "-I", "-c", "/tmp/monitrc"], env=machine.environment, **quiet),
            "supervisord": machine.start(
                ["supervisord", "-c", "/tmp/supervisord.conf"], env=machine.environment, **quiet
            ),
        }
        sandbox.until(sandbox.AGENT.exists, "start-up is complete")
        time.sleep(5)
        before = {
            name: (cpu_seconds(process.pid), cpu_precise(process.pid), wakeups(process.pid))
            for name, process in running.items()
        }
        time.sleep(seconds)
        rows = []
        for name, process in running.items():
            own = cpu_precise(process.pid) - before[name][1]
            total = cpu_seconds(process.pid) - before[name][0]
            rows.append([f"idle, CPU of its own in {seconds} s: {name}", "ms", [own * 1000]])
            rows.append([f"idle, CPU with children in {seconds} s: {name}", "ms", [max(own, total) * 1000]])
            rows.append(
                [f"idle, wake-ups a minute: {name}", "", [(wakeups(process.pid) - before[name][2]) * 60 / seconds]]
            )
            rows.append([f"idle, private memory: {name}", "MiB", [private_mib(process.pid).total()]])
        floor, launcher = private_mib(running["toolkit floor"].pid), private_mib(running["launcher"].pid)
        rows.append(
            [
                "idle, private memory: launcher, in libraries that the floor does not load",
                "MiB",
                [sum(size for name, size in launcher.items() if ".so" in name and name not in floor)],
            ]
        )
        if companion not in sandbox.companions():
            sys.exit("the companion should have run all the time")
        return rows


def start():
    """From exec to the first version request, less the mandated 2 s; the floor's from exec to the end of its OnInit."""
    samples = {"launcher": [], "toolkit floor": [], "floor with libcurl": []}
    listener = socket.create_server(("127.0.0.1", 443))
    with sandbox.Processes() as processes:
        sandbox.HOME.mkdir(exist_ok=True)
        sandbox.own(sandbox.HOME)
        display, _ = processes.start_display()
        environment = os.environ | {
            "DISPLAY": display,
            "HOME": str(sandbox.HOME),
            "USER": sandbox.USER,
            "FLOOR_REPORTS": "1",
        }

        def sample(name, program, event, mandated=0.0):
            begin = time.monotonic()
            process = processes.start([program], env=environment, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
            event(process)
            samples[name].append((time.monotonic() - begin - mandated) * 1000)
            sandbox.end(process)

        for _ in range(4 if QUICK else 31):
            sample(
                "launcher", "/build/stage/Korvane.app/Contents/MacOS/Korvane", lambda _: listener.accept()[0].close(), 2
            )
            sample("toolkit floor", "/build/bench/bench_floor", lambda process: process.stdout.read(1))
            sample("floor with libcurl", "/build/bench/bench_floor_curl", lambda process: process.stdout.read(1))
    return [[f"start: {name}", "ms", taken] for name, taken in samples.items()]


def probe():
    """KR_TitleCheck, pgrep started without a shell, and a shell that does nothing, among many processes."""
    rows = []
    with sandbox.Processes() as processes:
        sleeping = 0
        for number in (50, 200) if QUICK else (50, 500, 2000):
            while sleeping < number:
                processes.start(["sleep", "100000"])
                sleeping += 1
            samples = {"KR_TitleCheck": [], "pgrep -x": [], "empty shell": []}
            for _ in range(3 if QUICK else 20):
                for name, command in (
                    ("KR_TitleCheck", ["5"]),
                    ("pgrep -x", ["5", "raw"]),
                    ("empty shell", ["5", "shell"]),
                ):
                    output = subprocess.run(
                        ["/build/bench/bench_probe", *command], check=True, capture_output=True, text=True
                    )
                    samples[name] += [int(line) / 1e6 for line in output.stdout.split()]
            rows += [[f"probe among {number} processes: {name}", "ms", taken] for name, taken in samples.items()]
        taken = []
        for _ in range(10 if QUICK else 50):
            before = resource.getrusage(resource.RUSAGE_CHILDREN)
            subprocess.run(["sh", "-c", "pgrep -x KR"])
            after = resource.getrusage(resource.RUSAGE_CHILDREN)
            taken.append((after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime) * 1000)
        rows.append([f"CPU of one pgrep started from a shell, among {sleeping} processes", "ms", taken])
    return rows


def reaction():
    """From the companion's death to the first request, and from the flag file to the launcher's end."""
    with sandbox.Machine() as machine:
        machine.offer("2.5")
        pid = machine.start_companion()
        launcher = machine.launch()
        sandbox.until(sandbox.AGENT.exists, "start-up is complete")
        time.sleep(random.uniform(0, 30))
        died = time.monotonic()
        os.kill(pid, 9)
        asked = machine.service.wait_for("KR_CAP", 2)[1].time
        time.sleep(random.uniform(0, 5))
        begin = time.monotonic()
        machine.flag.write_text("1\n")
        sandbox.own(machine.flag)
        launcher.wait(60)
        return [
            ["reaction, from the companion's death to the first request", "s", [asked - died]],
            ["reaction, from the flag file to the end of the process", "s", [time.monotonic() - begin]],
        ]


if __name__ == "__main__":
    rows = {"download": download, "idle": idle, "start": start, "probe": probe, "reaction": reaction}[sys.argv[1]]()
    print(json.dumps(rows))
