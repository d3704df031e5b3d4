"""usage: check_config_test.py PLAY. Tests scripts/check-config; PLAY is the program tovrel_play."""
import importlib.machinery, json, pathlib, re, subprocess, sys, tempfile

sys.dont_write_bytecode = True
ROOT = pathlib.Path(__file__).resolve().parent.parent
CHECK = ROOT / "scripts/check-config"
check_config = importlib.machinery.SourceFileLoader("check_config", str(CHECK)).load_module()
FILES = tempfile.TemporaryDirectory()
SAMPLE = (ROOT / "etc/tovrel.json").read_text()
DOCUMENT = json.loads(SAMPLE)
CONFIG, NO_NAMES = DOCUMENT["Config"], ["a b", "-a", "a;b", ""]

def file_of(text):
    file = pathlib.Path(FILES.name, "tovrel.json")
    file.write_text(text)
    return file

# The key of each fault that is put into the sample is named.
REFUSED = {  # values refused at a key, beside null and an object with a misspelt key
    "Config": [{k: CONFIG[k] for k in CONFIG if k != gone} for gone in CONFIG if gone != "policy"],
    "Config.policy": ["Panic"], "Config.black_white_list.mode": ["Black"],
    "Config.scan": [{"timeout_second": 60}, {"interval_min_second": 5}],
    "Config.scan.timeout_second": [9, 3601, 60.5], "Config.scan.interval_min_second": [0, 11],
    "Config.monitor_process": [{"enable": True}, {"enable": True, "list": []}],
    "Config.monitor_process.list[0].process": [*NO_NAMES, "bin/a"],
    "Config.monitor_process.list[0].thread[0]": [*NO_NAMES, "surfaceflinger_1"],
    "Config.monitor_binder": [{"enable": True}, {"enable": True, "monitor_uids": []}],
    "Config.monitor_binder.monitor_uids[0]": [-1, 2**31],
    "Config.monitor_binder.uid_map[0].name": NO_NAMES,
    "Config.monitor_binder.wchans[0]": ["0", "binder_thread_read"],
    "Config.default_open_hw_list": [{"enable": True}, {"enable": True, "list": []}],
    "Config.black_white_list": [{"enable": True}]}

def put_faults(parent, key, path):
    node = parent[key]
    misspelt = [{**node, "misspelt": 1}] if isinstance(node, dict) else []
    for parent[key] in [None, *misspelt, *REFUSED.get(path, [])]:
        faults = check_config.check(json.dumps(DOCUMENT).encode())[0]
        assert any(fault.startswith(path) for fault in faults), (path, parent[key], faults)
    parent[key] = node
    for child in node if isinstance(node, dict) else ():
        put_faults(node, child, f"{path}.{child}")
    for index in range(len(node)) if isinstance(node, list) else ():
        put_faults(node, index, f"{path}[{index}]")

put_faults(DOCUMENT, "Config", "Config")
TWICE = SAMPLE.replace("120", '120, "round": 6')
for text, status, fault in [(SAMPLE, 0, ""), (TWICE, 1, "key 'round'"), ("{}", 1, "(root)"),
                            ("[" * 99999, 1, "recursion"), ("\0", 1, "line 1")]:
    done = subprocess.run([CHECK, "--quiet", file_of(text)], capture_output=True, text=True)
    assert (done.returncode, done.stdout) == (status, "") and fault in done.stderr, done
assert "120 to 140" in subprocess.check_output([CHECK], text=True)
assert json.loads(subprocess.check_output([CHECK, "--json"]))["settings"]["interval"] == 20000
assert subprocess.run([CHECK, "/no/file"], capture_output=True).returncode == 2

def told(sections, scan=(120, 6, 5), properties=""):
    """A calm configuration with these sections, in a file; interval, windows, keys warned of."""
    names = ("timeout_second", "round", "interval_min_second", "timeout_min_second")
    scan = dict(zip(names, scan))
    calm = {"switches": {"main": True}, "policy": "kill", "scan": scan, "default_open_hw_list": {},
            "monitor_process": {}, "monitor_binder": {}, "black_white_list": {}}
    config, properties = calm | sections, check_config.read_properties(properties.encode())
    settings = check_config.Settings(config, properties)
    named = [key for key, _ in check_config.warnings(config, properties, settings)]
    file = file_of(json.dumps({"Config": config}))
    return file, settings.interval, check_config.windows(settings), named

def watch(*processes):
    entries = [{"process": name, "thread": threads} for name, *threads in processes]
    return {"monitor_process": {"enable": True, "list": entries}}

OWN, SHELL = "persist.vendor.hg.", {"switches": {"main": True, "use_shell": True}}
BINDER = {"monitor_binder": {"enable": True, "monitor_uids": [9], "wchans": ["D"]}}

# Every stage of a hang comes within the window that is told, for one that begins just before a scan
# and for one that begins just after it; the window of the dump is no wider than that.
APP, THREAD = "100 app {s} ppid=30 runs={r}", "100/101 Binder:1 {s} ppid=30 uid=9 runs={r}"
PLAYED = [  # kind of window, sections, and the steps that make a calm task and a hung one
    ("task", watch(["app"]), [APP]),
    ("task", watch(["app", "t"]) | BINDER, [APP, THREAD.replace("Binder:1", "t")]),
    ("task", watch(["app"]) | SHELL, [APP]),
    ("whole_process", watch(["app"]) | BINDER, [APP]),
    ("whole_process_threads", watch(["app"]) | BINDER, [APP, "100/101 x S ticks=99"]),
    ("missing_thread", watch(["app", "t"]), [APP]), ("binder_thread", BINDER, [APP, THREAD]),
    ("binder_thread", BINDER | SHELL, [THREAD.replace("{s}", "S wchan={s}")]),
    ("task_beside_missing", watch(["app"], ["ghost"]), [APP])]
LOOSE = PLAYED[-2:]  # the window is for a new thread too, and for any order of a hash map

def play(file, story):
    """The times of the dump and of the acts, in ms. The one place that knows the test program."""
    events = subprocess.check_output([sys.argv[1], file, "30 zygote S;" + story], text=True)
    kills = re.findall(r"@(\S+) kill \d+ (\d+)", events)
    return [1000 * float(t) for t, _ in kills[:1]] + [1000 * float(t) for t, s in kills if s == "9"]

for scan, raised in [((120, 6, 5), 0), ((120, 5, 5), 0), ((100, 6, 5), 0), ((60, 12, 5), 200),
                     ((15, 1, 10, 10), 0), ((10, 9, 1), 0), ((10, 8, 2, 40), 0)]:
    for kind, sections, steps in PLAYED:
        file, interval, windows, _ = told(sections, scan, f"{OWN}timeout={raised}")
        window, dumps, fifth_scan = windows[kind], [], 5 * interval // 1000
        for start in fifth_scan, fifth_scan + 1:
            calm = [step.format(s="S", r=5) for step in steps] * (kind != "missing_thread")
            hung = [f"@{start} " + step.format(s="D", r=6) for step in steps]
            world = [f"until {start + 5 * max(*scan, raised)}", f"prop {OWN}timeout={raised}"]
            times = play(file, ";".join(world + calm + hung))
            assert bool(times) == bool(window), (scan, kind, times)
            for stage, time in zip(("dump", "act"), times):
                earliest, latest = window[stage]
                assert earliest - 9 <= time - 1000 * start <= latest + 9, (scan, kind, start, times)
            for act, later in zip(times[1:], times[2:]):
                least, most = window["again"]
                assert least - 9 <= later - act <= most + 9, (scan, kind, start, times)
            dumps += [time - 1000 * start for time in times[:1]]
        if window and (kind, sections, steps) not in LOOSE:
            earliest, latest = window["dump"]
            assert min(dumps) - earliest < 1000 >= latest - max(dumps), (scan, kind, dumps)

# A valid setting that surprises is named by its key, and no other.
UID_MAP = {"uid_map": [{"name": "u", "value": 9}]}
NAMED = {"monitor_binder": {"enable": True, "monitor_uids": [9], **UID_MAP}}
NONE, OFF, TIME = {"monitor_process": {}}, {"switches": {"main": False}}, (120, 6, 5)
LIST = {"enable": True, "list": ["b"]}
BOARDS = {"default_open_hw_list": LIST}
DOG = watch(["app", "watchdog"])
for keys, *cases in [
        ("", ({},), (OFF, TIME, "~enable=1"), ({}, (100, 4, 5)), (watch(["app"]),),
         (DOG, (64, 8, 5)), ({}, TIME, "~timeout=0x96"), ({}, TIME, "#x=1"), (OFF | BOARDS,),
         (OFF | BOARDS, TIME, "ro.board.platform=b"), (NONE | {"black_white_list": LIST},),
         ({"policy": "nothing", "switches": {"main": True, "debug": True}},),
         (watch(["app", "app"]) | SHELL,)),
        ("Config.switches.main", (OFF,), (OFF | BOARDS, TIME, "ro.board.platform=c")),
        ("Config", (NONE,)),
        ("Config.policy", ({"policy": "nothing"},)),
        ("Config.scan.round", ({}, (120, 5, 5)), ({}, (100, 6, 5))),
        ("Config.scan.interval_min_second", ({}, (30, 6, 10))),
        ("Config.scan.timeout_second", (DOG, (60, 6, 5))),
        ("Config.monitor_process.list", (watch(["app"]) | NAMED,), (watch(["app", "app"]),),
         (watch(["app", "t"], ["app", "u"]),), (watch(["a", "t"], ["app", "u"]) | SHELL,)),
        ("Config.switches.use_shell", (DOG | SHELL, (60, 6, 5)), (NAMED | NONE | SHELL,)),
        ("Config.switches.use_shell Config.monitor_binder.uid_map", (NONE | BINDER | SHELL,)),
        ("Config.monitor_binder.monitor_uids",
         ({"monitor_binder": {"wchans": ["w"]}}, TIME, "~binder=1")),
        ("~timeout", ({}, TIME, "~timeout=60"), ({}, TIME, "~timeout=0170"),
         (NAMED, TIME, "~timeout=240")),
        ("~policy", ({}, TIME, "~policy=nothing")), ("~debug", ({}, TIME, "~debug=on")),
        ("~binder", ({}, TIME, "~binder=1")), ("~bidner", ({}, TIME, "~bidner=1")),
        ("~processes", (NONE | NAMED, TIME, "~processes=b"),
         ({}, TIME, "~processes=" + 23 * "b:n "), ({}, TIME, "~processes=b:" + 16 * "n"))]:
    for case in cases:
        case = (watch(["app", "t"]) | case[0], *case[1:2], *[p.replace("~", OWN) for p in case[2:]])
        named = told(*case)[-1]
        assert named == keys.replace("~", OWN).split(), (named, keys, case)
