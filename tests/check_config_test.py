"""scripts/check-config finds the sample valid, and names the key of each fault put into it."""
import json, pathlib, subprocess, tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
CHECK = ROOT / "scripts/check-config"
DOCUMENT = json.loads((ROOT / "etc/tovrel.json").read_text())
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

wrong_files = {"{}": "(root)"}  # content: key to be named

def put_faults(parent, key, path):
    node = parent[key]
    misspelt = [{**node, "misspelt": 1}] if isinstance(node, dict) else []
    for parent[key] in [None, *misspelt, *REFUSED.get(path, [])]:
        wrong_files[json.dumps(DOCUMENT)] = path
    parent[key] = node
    for child in node if isinstance(node, dict) else ():
        put_faults(node, child, f"{path}.{child}")
    for index in range(len(node)) if isinstance(node, list) else ():
        put_faults(node, index, f"{path}[{index}]")

put_faults(DOCUMENT, "Config", "Config")
with tempfile.TemporaryDirectory() as directory:
    files = [pathlib.Path(directory, f"{number}.json") for number, _ in enumerate(wrong_files)]
    for file, content in zip(files, wrong_files): file.write_text(content)
    run = subprocess.run([CHECK, *files], capture_output=True, text=True)
    for file, (content, path) in zip(files, wrong_files.items()):
        assert f"\n{file}: {path}" in "\n" + run.stderr, content
    assert run.returncode == 1 and run.stdout == ""
assert subprocess.run([CHECK]).returncode == 0
