"""The measurements of script/bench, inside a sandbox: measure.py MEASUREMENT [quick].

Writes a line for each sample as it is taken and at last, as JSON, the table: a list of rows with the fields of Row.
What is compared is interleaved, sample by sample.
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

Row = collections.namedtuple("Row", "measurement case quantity subject unit samples")

QUICK = "quick" in sys.argv
DISK = pathlib.Path("/out/bench.tmp")  # a real disk, unlike the sandbox's own folders
SYSTEM_PATH = "/usr/bin:/bin"  # with the system's own pgrep, rather than the sandbox's in front of it
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
MONIT = """
set daemon 30
set pidfile /tmp/monit.pid
set statefile /tmp/monit.state
set idfile /tmp/monit.id
check process companion matching {companion}
"""
SUPERVISORD = """
[supervisord]
nodaemon=true
logfile=/dev/null
logfile_maxbytes=0
pidfile=/tmp/supervisord.pid
[program:companion]
command=/usr/bin/sleep 100000
"""
QUIET = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}


def tell(done, total, unit="samples"):
    print(f"{done} of {total} {unit}", flush=True)


# Downloads

Cost = collections.namedtuple("Cost", "wall cpu memory")  # seconds, seconds, MiB


def cost_of(command):
    """Runs a command and returns what it took, children included."""
    # The peak memory of a process begins with that of the one it was forked from, here this Python: time(1) is small.
    begin = time.monotonic()
    process = subprocess.Popen(["time", "-q", "-o", "/tmp/time", "-f", "%M", *command], stderr=subprocess.DEVNULL)
    _, status, usage = os.wait4(process.pid, 0)
    wall = time.monotonic() - begin
    process.returncode = os.waitstatus_to_exitcode(status)
    if status:
        sys.exit(f"{command} has failed: {process.returncode}")
    kib = int(pathlib.Path("/tmp/time").read_text())
    return Cost(wall, usage.ru_utime + usage.ru_stime, kib / 1024)


def write_payload(size):
    with open(DISK / "payload", "wb") as payload:
        for _ in range(size):
            payload.write(random.randbytes(MiB))
    os.sync()


def sample_download(name, command, target, size):
    target.unlink(missing_ok=True)
    os.sync()  # what the one before left behind is not this one's to write
    cost = cost_of(command)
    if target.stat().st_size != size * MiB:
        sys.exit(f"{name}: an incomplete file")
    return cost


def nginx_is_up():
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", 443)) == 0


def download():
    """Ours, the bare curl command, and the command that keeps the same promise, for files of several sizes in MiB."""
    rounds_of_size = {8: 3, 16: 3} if QUICK else {64: 15, 256: 9, 1024: 7}
    target = DISK / "KR"
    url = f"https://{sandbox.HOST}{service.DOWNLOAD_PATH}KR"
    durable = (
        f"curl -sS -o {target}.new '{url}' && sync {target}.new && chmod 755 {target}.new && mv {target}.new {target}"
    )
    contenders = {
        "launcher": ["/build/bench/bench_download", str(target)],
        "curl": ["curl", "-sS", "-o", str(target), url],
        "curl, sync, mv": ["sh", "-c", durable],
    }
    DISK.mkdir()
    sandbox.make_certificates()
    (sandbox.TLS / "nginx.conf").write_text(NGINX.format(tls=sandbox.TLS, root=DISK))
    rows = []
    done = 0
    with sandbox.Processes() as processes:
        processes.start(["nginx", "-c", str(sandbox.TLS / "nginx.conf")], sandbox.AS_ROOT)
        sandbox.until(nginx_is_up, "nginx is up")
        for size, rounds in rounds_of_size.items():
            write_payload(size)
            costs = {name: [] for name in contenders}
            for _ in range(rounds):
                for name, command in contenders.items():
                    costs[name].append(sample_download(name, command, target, size))
                    done += 1
                    tell(done, sum(rounds_of_size.values()) * len(contenders))
            for name, taken in costs.items():
                case = f"{size} MiB"
                rows.append(Row("download", case, "wall time", name, "s", [cost.wall for cost in taken]))
                rows.append(Row("download", case, "CPU time", name, "s", [cost.cpu for cost in taken]))
                rows.append(Row("download", case, "peak memory", name, "MiB", [cost.memory for cost in taken]))
    return rows


# Idling


def thread_files(pid, name):
    """The content of this file in /proc for each thread of the process."""
    return [(task / name).read_text() for task in pathlib.Path(f"/proc/{pid}/task").iterdir()]


def own_cpu_ms(pid):
    """CPU time of the process's own threads, to the nanosecond."""
    return sum(int(text.split()[0]) for text in thread_files(pid, "schedstat")) / 1e6


def cpu_with_children_ms(pid):
    """CPU time of the process and the children it has waited for, in steps of a clock tick."""
    after_name = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return sum(int(ticks) for ticks in after_name[11:15]) / os.sysconf("SC_CLK_TCK") * 1000


def context_switches(pid):
    lines = "".join(thread_files(pid, "status")).splitlines()
    return sum(int(line.split()[1]) for line in lines if "ctxt_switches" in line)


Usage = collections.namedtuple("Usage", "own_cpu_ms cpu_with_children_ms wakeups")


def usage_of(process):
    return Usage(own_cpu_ms(process.pid), cpu_with_children_ms(process.pid), context_switches(process.pid))


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


def write_for_alice(path, text):
    path.write_text(text)
    path.chmod(0o600)
    sandbox.own(path)


def start_supervisors(machine):
    """The launcher and what is compared with it, all supervising a companion that runs (the floor nothing at all)."""
    monit = pathlib.Path("/tmp/monitrc")
    supervisord = pathlib.Path("/tmp/supervisord.conf")
    write_for_alice(monit, MONIT.format(companion=machine.companion))
    write_for_alice(supervisord, SUPERVISORD)
    others = {
        "toolkit floor": ["/build/bench/bench_floor"],
        "monit": ["monit", "-I", "-c", str(monit)],
        "supervisord": ["supervisord", "-c", str(supervisord)],
    }
    running = {"launcher": machine.launch(environment=machine.environment | {"PATH": SYSTEM_PATH})}
    for name, command in others.items():
        running[name] = machine.start(command, env=machine.environment, **QUIET)
    return running


def idle():
    """All at once for ten minutes, side by side."""
    seconds = 20 if QUICK else 600
    step = 5
    case = f"{seconds} s"
    with sandbox.Machine() as machine:
        machine.offer("2.5")
        companion = machine.start_companion()
        running = start_supervisors(machine)
        sandbox.until(sandbox.AGENT.exists, "start-up is complete")
        time.sleep(5)
        before = {name: usage_of(process) for name, process in running.items()}
        for gone in range(0, seconds, step):
            tell(gone, seconds, "s")
            time.sleep(step)
        rows = []
        for name, process in running.items():
            now = usage_of(process)
            own = now.own_cpu_ms - before[name].own_cpu_ms
            # Clock ticks are coarse: the whole is never less than its finely counted part.
            whole = max(own, now.cpu_with_children_ms - before[name].cpu_with_children_ms)
            wakeups = (now.wakeups - before[name].wakeups) * 60 / seconds
            memory = private_mib(process.pid).total()
            rows.append(Row("idle", case, "CPU of its own", name, "ms", [own]))
            rows.append(Row("idle", case, "CPU with children", name, "ms", [whole]))
            rows.append(Row("idle", case, "wake-ups", name, "/min", [wakeups]))
            rows.append(Row("idle", case, "private memory", name, "MiB", [memory]))
        floor = private_mib(running["toolkit floor"].pid)
        launcher = private_mib(running["launcher"].pid)
        libraries = sum(size for name, size in launcher.items() if ".so" in name and name not in floor)
        rows.append(
            Row("idle", case, "private memory in libraries that the floor lacks", "launcher", "MiB", [libraries])
        )
        if companion not in sandbox.companions():
            sys.exit("the companion should have run all the time")
        return rows


# Starting


def start():
    """From exec to the first version request, less the mandated 2 s; the floor's from exec to the end of its OnInit."""
    listener = socket.create_server(("127.0.0.1", 443))

    def first_request(_):
        listener.accept()[0].close()

    def first_byte(process):
        process.stdout.read(1)

    contenders = {
        "launcher": ("/build/stage/Korvane.app/Contents/MacOS/Korvane", first_request, 2),
        "toolkit floor": ("/build/bench/bench_floor", first_byte, 0),
        "floor with libcurl": ("/build/bench/bench_floor_curl", first_byte, 0),
    }
    samples = {name: [] for name in contenders}
    rounds = 4 if QUICK else 31
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
        for done in range(rounds):
            for name, (program, wait_until_up, mandated_seconds) in contenders.items():
                begin = time.monotonic()
                process = processes.start([program], env=environment, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
                wait_until_up(process)
                samples[name].append((time.monotonic() - begin - mandated_seconds) * 1000)
                sandbox.end(process)
            tell(done + 1, rounds, "rounds")
    return [Row("start", "", "wall time", name, "ms", taken) for name, taken in samples.items()]


# Probing


def probe_ms(*how):
    """What five probes take, each on its own; how: see bench/probe.cpp."""
    output = subprocess.run(["/build/bench/bench_probe", "5", *how], check=True, capture_output=True, text=True).stdout
    return [int(nanoseconds) / 1e6 for nanoseconds in output.split()]


def children_cpu_ms():
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return (usage.ru_utime + usage.ru_stime) * 1000


def probe():
    """KR_TitleCheck, pgrep started without a shell, and a shell that does nothing, among many processes."""
    os.environ["PATH"] = SYSTEM_PATH
    contenders = {"KR_TitleCheck": [], "pgrep -x": ["raw"], "empty shell": ["shell"]}
    numbers = (50, 200) if QUICK else (50, 500, 2000)
    rounds = 3 if QUICK else 20
    rows = []
    done = 0
    with sandbox.Processes() as processes:
        sleeping = 0
        for number in numbers:
            while sleeping < number:
                processes.start(["sleep", "100000"])
                sleeping += 1
            case = f"{number} processes"
            samples = {name: [] for name in contenders}
            for _ in range(rounds):
                for name, how in contenders.items():
                    samples[name] += probe_ms(*how)
                done += 1
                tell(done, rounds * len(numbers), "rounds")
            rows += [Row("probe", case, "wall time", name, "ms", taken) for name, taken in samples.items()]
        taken = []
        for _ in range(10 if QUICK else 50):
            before = children_cpu_ms()
            subprocess.run(["sh", "-c", "pgrep -x KR"])
            taken.append(children_cpu_ms() - before)
        rows.append(Row("probe", case, "CPU time", "pgrep from a shell", "ms", taken))
    return rows


# Reacting


def reaction():
    """From the companion's death to the first request, and from the flag file to the launcher's end: one of each."""
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
        flagged = time.monotonic()
        machine.flag.write_text("1\n")
        sandbox.own(machine.flag)
        launcher.wait(60)
        ended = time.monotonic()
    return [
        Row("reaction", "", "companion's death to the first request", "launcher", "s", [asked - died]),
        Row("reaction", "", "flag file to the end of the process", "launcher", "s", [ended - flagged]),
    ]


MEASUREMENTS = {"download": download, "idle": idle, "start": start, "probe": probe, "reaction": reaction}

if __name__ == "__main__":
    print(json.dumps(MEASUREMENTS[sys.argv[1]]()))
