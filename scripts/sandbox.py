"""How the daemon is started on a Linux host: its files are those of a directory."""
import contextlib
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import time

HOST = pathlib.Path(__file__).resolve().parent.parent / "host"
CONFIG = "vendor/etc/tovrel.json"
# What the kernel has on a device.
KERNEL_LOG, SYSRQ = "dev/kmsg", "proc/sysrq-trigger"
PER_TASK, *EXTENSION = (f"proc/sys/hung_task_enh/{name}" for name in (
    "per_task_detect_mode", "global_detect_mode", "max_iowait_timeout_cnt", "max_iowait_task_cnt"))

# What the sandbox must catch, in all but the languages' own libraries and the host's properties.
CAUGHT = re.compile(r"_*(f|fre)?open(at)?(64)?(_2)?|creat(64)?|kill|_ZN\w*(filebuf|fstream)\w*")
NOT_CHECKED = re.compile(r"(lib(c|m|stdc\+\+|gcc_s|cutils|\w+san|sandbox)|ld-linux.*)\.so.*")
BINDING = re.compile(r"binding file (\S+) \[0\] to (\S+) \[0\]: normal symbol `(\w+)'")


@contextlib.contextmanager
def directory(config, keep):
    """A new sandbox: the configuration's text, and empty files in the place of the kernel's."""
    root = pathlib.Path(tempfile.mkdtemp(prefix="tovrel."))
    try:
        for name in (CONFIG, KERNEL_LOG, SYSRQ, PER_TASK, *EXTENSION):
            (root / name).parent.mkdir(parents=True, exist_ok=True)
            (root / name).touch()
        (root / CONFIG).write_text(config)
        yield root
    finally:
        if keep:
            print(f"The daemon's files are left in {root}")
        else:
            shutil.rmtree(root)


def command(build, root, properties="", send_signals=True):
    """The command line of the daemon, which dies with the process that starts it. Refuses a daemon
    that would reach a file or a process past the sandbox.
    """
    daemon, library = (pathlib.Path(build).resolve() / name for name in ("tovrel", "libsandbox.so"))
    if past := bindings_past(daemon, library):
        sys.exit(f"The daemon is not started, it would get past {library}: {past}")
    return ["setpriv", "--pdeathsig", "KILL", "env", f"PATH={HOST / 'bin'}:{os.environ['PATH']}",
            f"LD_PRELOAD={library}", f"TOVREL_SANDBOX={root}",
            f"TOVREL_PROPERTIES={properties and pathlib.Path(properties).resolve()}",
            *([] if send_signals else ["TOVREL_NO_SIGNALS=1"]), str(daemon)]


def bindings_past(daemon, library):
    """Which functions the loader would take from elsewhere than the preloaded library."""
    if b"/ld-linux" not in daemon.read_bytes()[:4096]:
        return "it is not linked dynamically"
    # Like `ldd -r`: all is loaded and bound, and nothing runs.
    tracing = {"LD_PRELOAD": str(library), "LD_TRACE_LOADED_OBJECTS": "1", "LD_WARN": "1",
               "LD_BIND_NOW": "1", "LD_DEBUG": "bindings"}
    trace = subprocess.run([daemon], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                           env={**os.environ, **tracing}).stdout
    bindings = BINDING.findall(trace)
    if not bindings:
        return "its symbols cannot be checked"
    return ", ".join(f"{symbol} of {pathlib.Path(user).name}" for user, provider, symbol in bindings
                     if CAUGHT.fullmatch(symbol) and provider != str(library)
                     and not NOT_CHECKED.fullmatch(pathlib.Path(user).name))


@contextlib.contextmanager
def run(daemon_command, log):
    """The running daemon, and its log opened for reading."""
    with open(log, "wb") as output, open(log, "rb") as lines:
        daemon = subprocess.Popen(daemon_command, stdin=subprocess.DEVNULL, stdout=output,
                                  stderr=output)
        try:
            yield daemon, lines
        finally:
            daemon.kill()
            daemon.wait()


def follow(daemon, *files):
    """File and line of what is added to the files while the daemon runs; empty when nothing is."""
    while True:
        has_ended = daemon.poll() is not None
        for file in files:
            yield from ((file, line) for line in file)
        if has_ended:
            return
        yield None, b""
        time.sleep(0.1)
