"""The documents say what the code does: keys, properties, log lines, reports, links, commands."""
import json, pathlib, re, subprocess

ROOT = pathlib.Path(__file__).resolve().parent.parent
PAGES = {path: path.read_text() for path in (ROOT / "README.md", *ROOT.glob("docs/*.md"))}
SETTINGS, HANGS = (PAGES[ROOT / "docs" / name] for name in ("configuration.md", "hangs.md"))
KEYS, REST = SETTINGS.split("## Wrong values")
CODE = "".join(path.read_text() for layer in ("core", "proc", "modules")
               for path in ROOT.glob(f"{layer}/**/*.cpp"))

def same(what, told, real):
    assert set(told) == set(real), (what, "only told:", told - real, "only real:", real - told)

def keys_of(schema):
    own = schema.get("properties", {})
    inner = [*own.values(), *schema.get("definitions", {}).values(), schema.get("items", {})]
    return set(own).union(*map(keys_of, inner)) if schema else set()

read = set(re.findall(r'(?:section|root|item|read|get_array)[\[(](?:\w+, )?"(\w+)"', CODE))
same("schema", keys_of(json.loads((ROOT / "etc/tovrel.schema.json").read_text())),
     read | {"$schema"})
same("keys", set(re.findall(r'^(?:### |\| (?:"list"\[\]\.)?)"(\w+)"', KEYS, re.M)),
     read - {"Config", "name", "value"})  # the last two stand in the row of "uid_map"

name = r"(?:persist\.vendor\.hg|ro\.board)\.\w+"
same("properties", set(re.findall(rf"^\| `({name})`", REST, re.M)),
     set(re.findall(rf'"({name})"', CODE)))

# "..." is a value in the documents. A line of nothing else is a report or the error of a section.
calls = re.findall(r'LOG_[A-Z]+\(\s*(?:\w+ \? )?"(.+?)"(?: : "(.+?)")?[,)]', CODE)
lines = {re.sub("%(?:ll|z)?[a-z]", "...", text).strip() for pair in calls for text in pair}
lines |= set(re.findall(r'"(parse [\w ]* failed)"', CODE))
told = {re.sub(r"\s+", " ", text) for text in re.findall("`([^`]+)`", REST)}
same("log lines", {text for text in told if "..." in text or text in lines or "fail" in text}
     - {"...", "process[:thread...]"}, lines - {"", "..."})

def form(report):
    report = re.sub(r"wchan: .*?(?=\d+s$)|^\S+(?= in pid)", "NAME", report)
    return re.sub(r"\d+", "N", re.sub(" in [DTZ] ", " in X ", report))

stories = "".join(path.read_text() for path in ROOT.glob("tests/stories/*.txt"))
same("reports", set(map(form, re.findall(r"^\|[^`\n]*\| `([^`]+)` \|", HANGS, re.M))),
     set(map(form, re.findall(r"kmsg ((?:\S+ in )?(?:tid|pid):.*?\d+s)\b", stories))))

for page, text in PAGES.items():
    for target, anchor in re.findall(r"\]\(([^)#]*)#?([^)]*)\)", text):
        other = page.parent / target if target else page
        titles = re.findall("^#+ (.*)", other.read_text(), re.M) if anchor else []
        anchors = [re.sub(r"[^\w -]", "", title.lower()).replace(" ", "-") for title in titles]
        assert other.exists() and (not anchor or anchor in anchors), (page, target, anchor)
    for name in re.findall(r"`((?:core|proc|modules|host|tests|bench|etc|docs|scripts|tools|sim)/[\w./-]*)", text):
        assert (ROOT / name).exists(), (page, name)
    for block in re.findall(r"```sh\n(.*?)```", text, re.S):
        subprocess.run(["bash", "-n"], input=block, text=True, check=True)
    for command in set(re.findall(r"(?:^|`)((?:scripts|tools)/[a-z0-9-]+[^`\n]*)", text, re.M)):
        program, *words = command.split()
        usage = subprocess.check_output([ROOT / program, "--help"], text=True)
        options = re.findall(r"--[\w-]+", usage)
        assert all(word in options for word in words if word.startswith("--")), (page, command)
