#!/usr/bin/python3
"""Boots Debian's kernel in virtual machines and proves what the daemon does to it, as it is built.

usage: scripts/test-vm [--document FILE] [x86_64|arm64]    both architectures unless told otherwise

Prints a table of facts, and one of the hung tasks that the daemon and the kernel's own detector
found, which goes into FILE, too. Exit status 1 if a fact does not hold. What must hold stands in
tests/vm/vm_facts.py, what is played in tests/vm/init. The consoles' logs stay in build/vm, and so do
the fetched packages: remove them to have the newest.
"""
import argparse
import concurrent.futures
import json
import pathlib
import re
import shutil
import subprocess
import sys
from typing import NamedTuple

from vm_facts import CONFIGS, FACTS

ROOT = pathlib.Path(__file__).resolve().parents[2]
WORK = ROOT / "build/vm"


class Machine(NamedTuple):
    preset: str
    debian: str        # Debian's name of the architecture
    triplet: str
    emulator: str
    command_line: str  # the console, and memory that the kernel leaves alone
    kept_memory: int   # its address, for ramoops


MACHINES = {
    "x86_64": Machine("release", "amd64", "x86_64-linux-gnu", "qemu-system-x86_64",
                      "console=ttyS0 memmap=2M$0x18000000", 0x18000000),
    "arm64": Machine("arm64", "arm64", "aarch64-linux-gnu",
                     "qemu-system-aarch64 -M virt -cpu cortex-a57",
                     "console=ttyAMA0 mem=448M", 0x5d000000),
}
# The processor's own virtualisation is not asked for: where it is offered, it may hang.
EMULATED = "-accel tcg -smp 2 -m 512 -display none -nodefaults -serial stdio"
MODULES = {"crc32c_generic": "", "ext4": "", "brd": "rd_nr=1 rd_size=8192", "fuse": "",
           "binder_linux": "", "ramoops": "mem_size=0x100000 record_size=0x40000 mem_address="}
BOOTS_AT_ONCE = 3  # mostly they sleep
BOOT_LIMIT = 180   # s


def fail(message):
    sys.exit(f"test-vm: {message}")


def run(*command, **options):
    """Returns the output; ends with it if the command fails."""
    done = subprocess.run(command, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          **{"cwd": ROOT, **options})
    if done.returncode != 0:
        fail(f"{' '.join(map(str, command))} failed\n{done.stdout}")
    return done.stdout


# ---- What a machine is made of ----


def build(machine):
    run("bash", "-c", 'source scripts/build.bash; build "$@"', "scripts/test-vm", machine.preset,
        "tovrel", "stuck_tasks", "vm_cutils", "vm_guest")


def fetch(package, target):
    """Unpacks a package, without installing it."""
    if target.exists():
        return
    new = target.with_suffix(".new")
    shutil.rmtree(new, ignore_errors=True)
    new.mkdir(parents=True)
    done = subprocess.run(["apt-get", "-q", "-o", "APT::Sandbox::User=root", "download", package],
                          cwd=new, capture_output=True)
    if done.returncode != 0:
        fail(f"cannot fetch the package {package}: no network, or apt does not know it")
    archive, = new.glob("*.deb")
    run("dpkg-deb", "-x", archive, new)
    archive.unlink()
    new.rename(target)


def fetch_kernel(machine, target):
    if target.exists():
        return
    newest = f"linux-image-{machine.debian}:{machine.debian}"
    name = re.search(r"Depends: (linux-image-[^\s:]+)", run("apt-cache", "depends", newest))
    if name is None:
        fail(f"apt does not know the package {newest}")
    fetch(f"{name[1]}:{machine.debian}", target)


def copy_libraries(program, machine, target):
    """Copies what a program needs from its own build and from Debian's packages for the machine;
    never from the cross compiler's, whose libraries do not fit these."""
    places = [ROOT / "build" / machine.preset / "vm",
              pathlib.Path("/usr/lib", machine.triplet, "android"),
              pathlib.Path("/usr/lib", machine.triplet)]
    for name in re.findall(r"NEEDED.*\[(.*)\]", run("readelf", "-d", program)):
        if not (target / name).exists():
            source = next(place / name for place in places if (place / name).exists())
            shutil.copy(source, target / name)
            copy_libraries(source, machine, target)


def copy_modules(kernel, machine, root):
    """Copies the modules and those that they depend on, and lists them in the order of loading."""
    paths = {path.stem: path for path in kernel.glob("lib/modules/*/kernel/**/*.ko")}
    lines = []

    def add(name, options=""):
        if name not in paths or (root / f"lib/{name}.ko").exists():
            return
        shutil.copy(paths[name], root / "lib")
        depends = re.search(rb"\0depends=([^\0]*)", paths[name].read_bytes())[1].decode()
        for other in depends.split(","):
            add(other)
        lines.append(f"{name}.ko {options}\n")

    for name, options in MODULES.items():
        add(name, options + (hex(machine.kept_memory) if name == "ramoops" else ""))
    (root / "modules").write_text("".join(lines))


def credentials():
    """Those of the init script, as a line of shell."""
    text = (ROOT / "etc/tovrel.rc").read_text()
    user, group, capabilities = (re.search(rf"^ +{key} (.*)$", text, re.MULTILINE)[1]
                                 for key in ("user", "group", "capabilities"))
    ids = {"root": 0, "readproc": 3009}
    return f"uid={ids[user]} gid={ids[group]} capabilities={capabilities.replace(' ', ',')}\n"


def make_image(machine, work):
    root = work / "root"
    shutil.rmtree(root, ignore_errors=True)
    for name in ("bin configs dev freezer fuse lib mnt proc run sys vendor/bin vendor/etc").split():
        (root / name).mkdir(parents=True)
    (root / "lib64").symlink_to("lib")
    shutil.copy(ROOT / "tests/vm/init", root)
    shutil.copy(work / "busybox/bin/busybox", root / "bin")
    shutil.copy(ROOT / "tools/check-device", root / "bin")
    for source, target in {"tovrel": "vendor/bin/tovrel", "stuck_tasks": "bin/stuck_tasks",
                           "tests/vm/vm_guest": "bin/guest"}.items():
        program = ROOT / "build" / machine.preset / source
        shutil.copy(program, root / target)
        copy_libraries(program, machine, root / "lib")
    copy_modules(work / "kernel", machine, root)
    for name, config in CONFIGS.items():
        (root / f"configs/{name}.json").write_text(json.dumps(config))
    (root / "credentials").write_text(credentials())
    names = "".join(f"{path.relative_to(root)}\n" for path in sorted(root.rglob("*")))
    run("cpio", "--quiet", "-o", "-H", "newc", "--owner", "0:0", "-O", work / "initrd", cwd=root,
        input=names)


def prepare(name):
    machine, work = MACHINES[name], WORK / name
    build(machine)
    fetch_kernel(machine, work / "kernel")
    fetch(f"busybox-static:{machine.debian}", work / "busybox")
    make_image(machine, work)


# ---- What it does ----


def boot(name, case):
    """Plays a case. Returns the records of the kernel log, each with its time in s. From the lines
    of a daemon the date and ids of the log library are cut."""
    machine, work = MACHINES[name], WORK / name
    kernel, = work.glob("kernel/boot/vmlinuz-*")
    command = f"{machine.emulator} {EMULATED}".split()
    if case != "panic":  # whose second boot looks for what the first one left
        command.append("-no-reboot")
    command += ["-kernel", kernel, "-initrd", work / "initrd", "-append",
                f"{machine.command_line} panic=-1 case={case}"]
    with open(work / f"{case}.log", "wb") as console:
        try:
            subprocess.run(command, stdin=subprocess.DEVNULL, stdout=console,
                           stderr=subprocess.STDOUT, timeout=BOOT_LIMIT)
        except subprocess.TimeoutExpired:
            pass  # what is missing on the console tells
    records = []
    for line in (work / f"{case}.log").read_text(errors="replace").splitlines():
        if match := re.match(r"\[ *(\d+\.\d+)\] (.*?)\r*$", line):
            text = re.sub(r"^(\w+): tovrel [A-Z] [\d-]+ [\d:]+ +\d+ +\d+ ", r"\1: ", match[2])
            records.append((float(match[1]), text))
    return records


class Console:
    def __init__(self, records):
        self.times = [time for time, _ in records]
        self.text = "\n".join(text for _, text in records)

    def search(self, pattern):
        return re.search(pattern, self.text, re.MULTILINE | re.DOTALL)

    def time(self, match, group=0):
        return self.times[self.text.count("\n", 0, match.start(group))]

    def shows(self, fact):
        found = [self.search(pattern) for pattern in fact.found]
        if not all(found) or any(map(self.search, fact.absent)):
            return False
        return not fact.seconds or (
            self.time(found[0], "b") - self.time(found[0], "a") >= fact.seconds)


def print_facts(names, consoles):
    """Returns whether all of them hold."""
    width = max(len(fact.text) for fact in FACTS)
    print(" " * width, *names)
    failed = []
    for fact in FACTS:
        held = {name: consoles[name, fact.case].shows(fact) for name in names}
        print(fact.text.ljust(width), *(("yes" if held[name] else "NO").ljust(6) for name in names))
        failed += [f"FAILED: {fact.text}; see build/vm/{name}/{fact.case}.log"
                   for name in names if not held[name]]
    for line in failed:
        print(line)
    return not failed


def detector_rows(console):
    """Seconds from the start of each hung task of the case "detectors" to what found it."""
    rows = []
    pattern = r"^stuck_tasks: (?:process|binder) (\w+) (\S+) (\S+) \d+ (\d+) "
    for match in re.finditer(pattern, console.text, re.MULTILINE):
        state, process, thread, tid = match.groups()
        if state == "healthy":
            continue

        def after(text):
            found = console.search(text)
            return f"{console.time(found) - console.time(match):.0f} s" if found else "no"

        name = process if thread == "-" else thread
        # A line about the task, up to the daemon's next one that tells what it did.
        judged = (rf"^nothing: (?:thread: )?{name} [^\n]*\n"
                  r"(?:(?!nothing: (?!thread Binder))[^\n]*\n)*?nothing: ")
        rows.append([
            f"`{name}`", state, after(rf"^INFO: task \S+:{tid} blocked for more than"),
            after(rf"{judged}dumped"), after(rf"{judged}nothing to do"),
            "yes" if console.search(rf"^task:\S+ +state:\S+ [^\n]*pid:{tid} ") else "no"])
    return sorted(rows)


def detector_table(names, consoles):
    """A cell has what the machines show, one after the other where they differ."""
    shown = [consoles[name, "detectors"] for name in names]
    releases = [console.search(r"^case: detectors on (\S+)$") for console in shown]
    rows = [["Task", "State", "Kernel's detector", "Dumped", "Policy", "Stack in the kernel log"],
            ["---"] * 6]
    for same_row in zip(*map(detector_rows, shown)):
        rows.append([" / ".join(dict.fromkeys(cells)) for cells in zip(*same_row)])
    kernels = " / ".join(release[1] if release else "?" for release in releases)
    return f"Kernel {kernels}:\n\n" + "".join(f"| {' | '.join(row)} |\n" for row in rows) + "\n"


def write_document(path, table):
    text = path.read_text()
    begin, end = "<!-- test-vm: begin -->\n", "<!-- test-vm: end -->"
    if begin not in text or end not in text:
        fail(f"{path} has no lines {begin.strip()} and {end}")
    head, rest = text.split(begin)
    path.write_text(head + begin + "\n" + table + end + rest.split(end)[1])


def main():
    parser = argparse.ArgumentParser(usage=argparse.SUPPRESS, description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("architecture", nargs="?", choices=MACHINES)
    parser.add_argument("--document", type=pathlib.Path)
    arguments = parser.parse_args()
    names = [arguments.architecture] if arguments.architecture else list(MACHINES)
    run("scripts/install-packages", "build", "vm", *(["arm64"] if "arm64" in names else []))
    for name in names:
        prepare(name)
    boots = [(name, case) for case in sorted({fact.case for fact in FACTS}) for name in names]
    print(f"{len(boots)} boots, {BOOTS_AT_ONCE} at once", flush=True)
    with concurrent.futures.ThreadPoolExecutor(BOOTS_AT_ONCE) as pool:
        records = pool.map(lambda pair: boot(*pair), boots)
        consoles = {pair: Console(lines) for pair, lines in zip(boots, records)}
    good = print_facts(names, consoles)
    table = detector_table(names, consoles)
    print(f"\n{table}", end="")
    if arguments.document:
        write_document(arguments.document, table)
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
