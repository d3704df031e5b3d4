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
KERNEL_LOG = "dev/kmsg"
SYSRQ = "proc/sysrq-trigger"
EXTENSION = "proc/sys/hung_task_enh/"
PER_TASK = EXTENSION + "per_task_detect_mode"
FILES = (KERNEL_LOG, SYSRQ, PER_TASK, EXTENSION + "global_detect_mode",
         EXTENSION + "max_iowait_timeout_cnt", EXTENSION + "max_iowait_task_cnt")

# What the sandbox must catch, in all but the languages' own libraries and the host's properties.
CAUGHT = re.compile(r"_*(f|fre)?open(at)?(64)?(_2)?|creat(64)?|kill|_ZN\w*(filebuf|fstream)\w*")
NOT_CHECKED = re.compile(r"(lib(c|m|stdc\+\+|gcc_s|cutils|\w+san|sandbox)|ld-linux.*)\.so.*")
BINDING = re.compile(r"binding file (\S+) \[0\] to (\S+) \[0\]: normal symbol `(\w+)'")


def create(directory, config):
    """Lays out the daemon's configuration, and empty files in the place of the kernel's."""
    directory = pathlib.Path(directory)
    for name in FILES:
        (directory / name).parent.mkdir(parents=True, exist_ok=True)
        (directory / name).touch()
    (directory / CONFIG).parent.mkdir(parents=True, exist_ok=True)
    shutil.copyfile(config, directory / CONFIG)


def command(build_dir, directory, properties=None, send_signals=True):
    """The command line of the daemon, which dies with the process that starts it.

    Refuses a daemon that would reach a file or a process past the sandbox.
    """
    build_dir, directory = pathlib.Path(build_dir).resolve(), pathlib.Path(directory).resolve()
    daemon, library = build_dir / "tovrel", build_dir / "libsandbox.so"
    past = bindings_past(daemon, library)
    if past:
        sys.exit(f"The daemon is not started, it would get past {library}: {past}")
    variables = [f"PATH={HOST / 'bin'}:{os.environ['PATH']}",
                 f"LD_PRELOAD={library}", f"TOVREL_SANDBOX={directory}",
                 f"TOVREL_PROPERTIES={pathlib.Path(properties).resolve() if properties else ''}"]
    if not send_signals:
        variables.append("TOVREL_NO_SIGNALS=1")
    return ["setpriv", "--pdeathsig", "KILL", "env", *variables, str(daemon)]


def bindings_past(daemon, library):
    """Which functions the loader would take from elsewhere than the preloaded library."""
    if b"/ld-linux" not in daemon.read_bytes()[:4096]:
        return "it is not linked dynamically"
    # Like `ldd -r`: all is loaded and bound, and nothing runs.
    trace = subprocess.run([daemon], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                           env={**os.environ, "LD_PRELOAD": str(library),
                                "LD_TRACE_LOADED_OBJECTS": "1", "LD_WARN": "1",
                                "LD_BIND_NOW": "1", "LD_DEBUG": "bindings"}).stdout
    bindings = [match.groups() for match in BINDING.finditer(trace)]
    if not bindings:
        return "its symbols cannot be checked"
    return ", ".join(f"{symbol} of {pathlib.Path(user).name}" for user, provider, symbol in bindings
                     if CAUGHT.fullmatch(symbol) and provider != str(library)
                     and not NOT_CHECKED.fullmatch(pathlib.Path(user).name))


@contextlib.contextmanager
def directory(keep):
    """A new directory for a sandbox, removed in the end unless it is to be kept."""
    path = tempfile.mkdtemp(prefix="tovrel.")
    try:
        yield pathlib.Path(path)
    finally:
        if keep:
            print(f"The daemon's files are left in {path}")
        else:
            shutil.rmtree(path)


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
            for line in file:
                yield file, line
        if has_ended:
            return
        yield None, b""
        time.sleep(0.1)
