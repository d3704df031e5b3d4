"""usage: check_config_test.py PLAY. Tests tools/check-config; PLAY is the program rehearse."""
import itertools, json, pathlib, re, runpy, subprocess, sys, tempfile

CHECK = pathlib.Path(__file__).resolve().parent.parent / "tools/check-config"
TOOL = runpy.run_path(str(CHECK))
FILES = tempfile.TemporaryDirectory()
SAMPLE = (CHECK.parent.parent / "etc/tovrel.json").read_text()
DOCUMENT = json.loads(SAMPLE)
CONFIG, OWN, NO_NAMES = DOCUMENT["Config"], "persist.vendor.hg.", ["a b", "-a", "a;b", ""]

def file_of(text):
    file = pathlib.Path(tempfile.mkstemp(dir=FILES.name)[1])
    file.write_text(text)
    return file

REFUSED = {  # at a key, which the fault names; beside null and wrong keys
    "Config": [{k: CONFIG[k] for k in CONFIG if k != gone} for gone in CONFIG if gone != "policy"],
    "Config.policy": ["Panic"], "Config.scan": [{"timeout_second": 60}, {"interval_min_second": 5}],
    "Config.scan.timeout_second": [9, 3601, 60.5], "Config.scan.interval_min_second": [0, 11],
    "Config.monitor_process.list[0].process": [*NO_NAMES, "bin/a"],
    "Config.monitor_process.list[0].thread[0]": [*NO_NAMES, "surfaceflinger_1"],
    "Config.monitor_binder.uid_map[0]": [{"name": name, "value": 1} for name in NO_NAMES],
    "Config.monitor_binder.wchans[0]": ["0", "binder_thread_read"]}

def put_faults(parent, key, path):
    node = parent[key]
    wrong_keys = [{**node, "misspelt": 1}, {"enable": True}] if isinstance(node, dict) else []
    for parent[key] in [None, *wrong_keys, *REFUSED.get(path, [])]:
        faults = TOOL["check"](json.dumps(DOCUMENT).encode())[0]
        assert any(fault.startswith(path) for fault in faults), (path, parent[key], faults)
    parent[key] = node
    indices = range(len(node)) if isinstance(node, list) else ()
    for child in node if isinstance(node, dict) else indices:
        put_faults(node, child, path + (f"[{child}]" if child in indices else f".{child}"))

put_faults(DOCUMENT, "Config", "Config")
for text, options, status, output in [
        (SAMPLE, [], 0, "120 to 140"), (SAMPLE, ["--json"], 0, '"interval": 20000'),
        (SAMPLE, ["/no/file"], 2, "/no/file"), (SAMPLE, [file_of(OWN + "timeout=4m")], 2, "4m"),
        (SAMPLE, [file_of(OWN + "timeout=240")], 0, "Without the properties: Self-watchdog 240 s"),
        (SAMPLE.replace("120", '120, "round": 6'), [], 1, "key 'round'"), ("{}", [], 1, "Config"),
        ("[" * 99999, ["--json"], 1, '"valid": false'), (SAMPLE, ["--quiet"], 0, "^$")]:
    done = subprocess.run([CHECK, file_of(text), *options], capture_output=True, text=True)
    assert done.returncode == status and re.search(output, done.stdout + done.stderr), done

def told(sections, properties="", scan=(120, 6, 5)):
    """What is told of a calm configuration with these sections, and its file."""
    names = ("timeout_second", "round", "interval_min_second", "timeout_min_second")
    calm = {"switches": {"main": True}, "policy": "kill", "scan": dict(zip(names, scan))}
    text = json.dumps({"Config": {key: {} for key in CONFIG} | calm | sections})
    lines = "\n".join(OWN + line for line in properties.splitlines())
    return TOOL["report"](text.encode(), TOOL["read_properties"](lines)), file_of(text)

def watch(*processes):
    entries = [{"process": name, "thread": threads} for name, *threads in processes]
    return {"monitor_process": {"enable": True, "list": entries}}

# Every stage of a hang comes within its window, first or last as it begins before or after a scan.
SHELL = {"switches": {"main": True, "use_shell": True}}
BINDER = {"monitor_binder": {"enable": True, "monitor_uids": [9], "wchans": ["D"], "uid_map": [
    {"name": "u", "value": 7}, {"name": "uu", "value": 8}]}}
APP, THREAD = "100 app {s} ppid=30 runs={r}", "100/101 Binder:1 {s} ppid=30 uid=9 runs={r}"
PLAYED = [  # kind of window, sections, and the steps that make a calm task and a hung one
    ("process or thread", watch(["app", "t"]) | BINDER, [APP, THREAD.replace("Binder:1", "t")]),
    ("whole process of one thread", watch(["app"]) | BINDER, [APP]),
    ("never", watch(["app"]) | BINDER, [APP, "100/101 x S utime=99"]),
    ("binder thread", BINDER, [APP, THREAD]), ("missing thread", watch(["app", "t"]), [APP]),
    ("binder thread", BINDER | SHELL, [THREAD.replace("{s}", "S wchan={s}")]),
    ("the same, beside a missing one", watch(["app"], ["ghost"]), [APP])]
NEW, LOOSE = PLAYED[-3:-1], PLAYED[-2:]  # without a calm time; may come within the window

def play(played, scan, raised, is_late):
    """Compares a window with the dump and the acts of the daemon. Times are in ms."""
    kind, sections, steps = played
    result, file = told(sections, f"timeout={raised}", scan)
    window = result["windows"].get(kind)
    start = 5 * result["settings"]["interval"] // 1000 + is_late
    world = f"until {start + 5 * max(*scan, raised)};prop {OWN}timeout={raised};30 zygote S"
    calm = [";" + step.format(s="S", r=5) for step in steps] * (played not in NEW)
    hung = [f";@{start} " + step.format(s="D", r=6) for step in steps]
    events = subprocess.check_output([sys.argv[1], file, "".join([world, *calm, *hung])], text=True)
    kills = re.findall(r"^(\S+) kill \d+ (\d+)", events, re.M)
    times = [1000 * float(t) for t, s in kills[:1] + [kill for kill in kills if kill[1] == "9"]]
    assert (len(times) > 2) == bool(times) == bool(window), (kind, scan, times)
    waits = [time - since for time, since in zip(times, [1000 * start] * 2 + times[1:])]
    for wait, (least, most) in zip(waits, (window or {}).values()):
        assert least - 9 <= wait <= most + 9, (kind, scan, is_late, times)
    assert not window or played in LOOSE or abs(waits[0] - window["dump"][is_late]) <= 1000, played

SCANS = [((120, 5, 5), 0), ((60, 12, 5), 200), ((15, 1, 10), 0), ((10, 8, 2, 40), 0)]
for played, scan, is_late in itertools.product(PLAYED, SCANS, (False, True)):
    play(played, *scan, is_late)

# A valid setting that surprises is named by its key, and no other.
OFF, NONE = {"switches": {"main": False}, "policy": "nothing"}, {"monitor_process": {}}
DOG = watch(["a", "dog", "watchdog"]) | {"monitor_binder": {"monitor_uids": [9]}}
TWINS, WCHAN = watch(["a", "a"], ["a"], ["app", "t"]), {"monitor_binder": {"wchans": ["w"]}}
LISTS = {k: CONFIG[k] | {"enable": True, "list": ["b"]} for k in CONFIG if k.endswith("_list")}
for keys, sections, *rest in [
        ("", OFF | NONE | LISTS), ("", DOG, "", (64, 8, 5)), ("Config switches.main", OFF | NONE),
        ("", OFF | BINDER, "enable=1\ndebug=true\ntimeout=0x77"),
        ("policy", {"policy": "nothing"} | watch(["app"]), "timeout=240"),
        ("scan.interval_min_second scan.timeout_second", DOG, "", (60, 12, 8)),
        ("monitor_process.list ~timeout", watch(["app"]) | BINDER, "timeout=240"),
        ("monitor_process.list monitor_process.list", TWINS),
        ("switches.use_shell", DOG | SHELL, "", (60, 6, 5)), ("scan.round", SHELL, "", (100, 6, 5)),
        ("monitor_process.list switches.use_shell", TWINS | SHELL),
        ("monitor_binder.uid_map switches.use_shell ~processes", BINDER | SHELL,
         "processes=c b:" + 16 * "n"), ("monitor_binder.monitor_uids", WCHAN, "binder=1")]:
    found = told(watch(["app", "t"]) | sections, *rest)[0]["warnings"]
    named = sorted(key.replace(OWN, "~").removeprefix("Config.") for key, _ in found)
    assert named == keys.split(), (keys, found)
