"""usage: check_config_test.py PLAY. Tests scripts/check-config; PLAY is the program tovrel_play."""
import copy, importlib.machinery, json, pathlib, re, subprocess, sys, tempfile

sys.dont_write_bytecode = True
ROOT = pathlib.Path(__file__).resolve().parent.parent
CHECK = ROOT / "scripts/check-config"
check_config = importlib.machinery.SourceFileLoader("check_config", str(CHECK)).load_module()
SAMPLE = (ROOT / "etc/tovrel.json").read_text()
FILES = tempfile.TemporaryDirectory()

# The key of each fault that is put into the sample is named.
DOCUMENT = json.loads(SAMPLE)
CONFIG, NO_NAMES = DOCUMENT["Config"], ["a b", "-a", "a;b", ""]
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

def check_faults(parent, key, path):
    node = parent[key]
    misspelt = [{**node, "misspelt": 1}] if isinstance(node, dict) else []
    for parent[key] in [None, *misspelt, *REFUSED.get(path, [])]:
        faults = check_config.check(json.dumps(DOCUMENT).encode())[0]
        assert any(fault.startswith(path) for fault in faults), (path, parent[key], faults)
    parent[key] = node
    for child in node if isinstance(node, dict) else range(len(node) if type(node) is list else 0):
        check_faults(node, child, f"{path}[{child}]" if isinstance(child, int) else f"{path}.{child}")

def run(text, properties="", *options):
    file, props = pathlib.Path(FILES.name, "c.json"), pathlib.Path(FILES.name, "props")
    file.write_text(text), props.write_text(properties)
    return subprocess.run([CHECK, *options, file, props], capture_output=True, text=True)

check_faults(DOCUMENT, "Config", "Config")
for text, status, output in [(SAMPLE, 0, ""), (SAMPLE.replace("120", '120, "round": 6'), 1, "'round'"),
                             ("{}", 1, "(root)"), ("[" * 99999, 1, ""), ("\xff", 1, "")]:
    done = run(text, "", "--quiet")
    assert (done.returncode, done.stdout) == (status, "") and output in done.stderr, done
assert subprocess.run([CHECK], capture_output=True).returncode == 0
assert subprocess.run([CHECK, "/no/file"], capture_output=True).returncode == 2

def settings(sections, scan=(120, 6, 5)):
    scan = dict(zip(("timeout_second", "round", "interval_min_second"), scan))
    calm = {"switches": {"main": True}, "policy": "kill", "scan": scan, "default_open_hw_list": {},
            "monitor_process": {}, "monitor_binder": {}, "black_white_list": {}}
    return json.dumps({"Config": calm | sections})

def watch(*processes):
    entries = [{"process": name, "thread": threads} for name, *threads in processes]
    return {"monitor_process": {"enable": True, "list": entries}}

BINDERS = {"monitor_binder": {"enable": True, "monitor_uids": [9], "wchans": ["D"]}}
SHELL = {"switches": {"main": True, "use_shell": True}}

# Every stage of a hang comes within the window that is told, for one that begins just before a scan
# and for one that begins just after it.
APP, BINDER = "100 app {s} ppid=30 runs={r}", "100/101 Binder:1 {s} ppid=30 uid=9 runs={r}"
PLAYED = [  # kind of window, sections, and the steps that make a calm task or a hung one
    ("task", watch(["app"]), [APP]),
    ("task", watch(["app", "t"]) | BINDERS, [APP, "100/101 t {s} ppid=30 runs={r}"]),
    ("task", watch(["app"]) | SHELL, [APP]),
    ("task_beside_missing", watch(["app"], ["ghost"]), [APP]),
    ("whole_process", watch(["app"]) | BINDERS, [APP]),
    ("whole_process_threads", watch(["app"]) | BINDERS, [APP, "100/101 x S ticks=99"]),
    ("missing_thread", watch(["app", "t"]), [APP]),
    ("binder_thread", BINDERS, [APP, BINDER]),
    ("binder_thread", BINDERS | SHELL, [BINDER.replace("{s}", "S wchan={s}")])]
LOOSE = PLAYED[3], PLAYED[-1]  # depend on the order of a hash map, on whether the thread is new

def play(text, properties, story):
    """The times of the dump and of the acts, in ms. The one place that knows the test program."""
    file = pathlib.Path(FILES.name, "c.json")
    file.write_text(text)
    steps = "30 zygote S;" + "".join(f"prop {line};" for line in properties.splitlines()) + story
    events = subprocess.check_output([sys.argv[1], file, steps], text=True)
    kills = re.findall(r"@(\S+) kill \d+ (\d+)", events)
    acts = [time for time, signal in kills if signal == "9"]
    return [1000 * float(time) for time in [*[time for time, _ in kills[:1]], *acts]]

for scan, raised in [((120, 6, 5), 0), ((120, 5, 5), 0), ((100, 6, 5), 0), ((60, 12, 5), 200),
                     ((15, 1, 10), 0), ((10, 9, 1), 0)]:
    properties = f"persist.vendor.hg.timeout={raised}\n"
    for row in PLAYED:
        text, dumps = settings(row[1], scan), []
        told = json.loads(run(text, properties, "--json").stdout)
        window, interval = told["windows"][row[0]], told["settings"]["interval"]
        for start in 5 * interval // 1000, 5 * interval // 1000 + 1:
            calm = [step.format(s="S", r=5) for step in row[2]]
            hung = [f"@{start} " + step.format(s="D", r=6) for step in row[2]]
            if row[0] == "missing_thread":  # begins with its process
                calm, hung = [], [f"@{start} " + step.format(s="S", r=6) for step in row[2]]
            until = f"until {start + 5 * max(scan[0], raised)};"
            times = play(text, properties, until + ";".join(calm + hung))
            assert bool(times) == bool(window), (row, times)
            for stage, time in zip(("dump", "act"), times):
                earliest, latest = window[stage]
                assert earliest - 9 <= time - 1000 * start <= latest + 9, (scan, row, start, times)
            if window:
                assert window["again"][0] - 9 <= times[2] - times[1] <= window["again"][1] + 9, row
                dumps.append(times[0] - 1000 * start)
        if window and row not in LOOSE:  # the window is no wider than need be
            assert min(dumps) - window["dump"][0] < 1000 >= window["dump"][1] - max(dumps), row

# What is valid but surprises is named by its key, and nothing else is.
KEY, BINDER_KEY = "Config.monitor_process.list", "Config.monitor_binder."
BINDER = {"monitor_binder": {"enable": True, "monitor_uids": [9], "uid_map": [{"name": "u", "value": 9}]}}
NONE, OWN = {"monitor_process": {}}, "persist.vendor.hg."
for keys, sections, scan, properties in [
        ([], {}, (), ""), ([], {}, (100, 4, 5), OWN + "debug=true"),
        (["Config.switches.main"], {"switches": {"main": False}}, (), ""),
        ([], {"switches": {"main": False}}, (), OWN + "enable=1"), (["Config"], NONE, (), ""),
        (["Config.policy"], {"policy": "nothing"}, (), ""),
        (["Config.scan.round"], {}, (120, 5, 5), ""), (["Config.scan.round"], {}, (100, 6, 5), ""),
        (["Config.scan.interval_min_second"], {}, (30, 6, 10), ""),
        (["Config.scan.timeout_second"], watch(["app", "watchdog"]), (60, 6, 5), ""),
        ([KEY + "[0]"], watch(["app"]) | BINDER, (), ""), ([], watch(["app"]), (), ""),
        ([KEY + "[1]"], watch(["app", "t"], ["app", "u"]), (), ""),
        ([KEY], watch(["app", "app"]), (), ""),
        ([KEY, KEY], watch(["app", "t", "tt"], ["apps", "t"]) | SHELL, (), ""),
        (["Config.switches.use_shell"], watch(["app", "watchdog"]) | SHELL, (), ""),
        (["Config.switches.use_shell"], NONE | SHELL | BINDER, (), ""),
        (["Config.switches.use_shell", BINDER_KEY + "uid_map"], NONE | SHELL | BINDERS, (), ""),
        ([BINDER_KEY + "monitor_uids"], {"monitor_binder": {"wchans": ["w"]}}, (), OWN + "binder=1"),
        ([OWN + "timeout"], BINDER, (), OWN + "timeout=240"),
        ([OWN + "timeout"], {}, (), OWN + "timeout=60"), ([OWN + "timeout"], {}, (), OWN + "timeout=0x99"),
        ([OWN + "policy"], {}, (), OWN + "policy=nothing"), ([OWN + "debug"], {}, (), OWN + "debug=on"),
        ([OWN + "binder"], {}, (), OWN + "binder=1"), ([OWN + "bidner"], {}, (), OWN + "bidner=1"),
        ([OWN + "processes"], NONE | BINDER, (), OWN + "processes=b"),
        ([OWN + "processes"], {}, (), OWN + "processes=b:" + "n" * 16),
        ([OWN + "processes"], {}, (), OWN + "processes=" + 23 * "b:n ")]:
    text = settings(watch(["app", "t"]) | sections, *[scan] * bool(scan))
    told = json.loads(run(text, properties, "--json").stdout)["warnings"]
    assert [key for key, _ in told] == keys, (keys, sections, scan, properties, told)
