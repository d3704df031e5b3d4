"""The documents say what the code does, and print what can be typed.

usage: docs_test.py REHEARSE    the program rehearse, which plays their examples
"""
import json
import pathlib
import re
import subprocess
import sys
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent
PAGES = {path: path.read_text() for path in
         (ROOT / "README.md", ROOT / "sim/README.md", ROOT / "tests/README.md",
          *ROOT.glob("docs/*.md"))}
SETTINGS = PAGES[ROOT / "docs/configuration.md"]
KEYS, AFTER_KEYS = SETTINGS.split("## Wrong values")
CODE = "".join(path.read_text() for layer in ("core", "proc", "modules")
               for path in sorted(ROOT.glob(f"{layer}/**/*.cpp")))


def keys_of(schema):
    """All names of properties in a JSON schema."""
    own = schema.get("properties", {})
    inner = [*own.values(), *schema.get("definitions", {}).values(), schema.get("items", {})]
    return set(own).union(*map(keys_of, inner)) if schema else set()


def keys_read():
    return set(re.findall(
        r'(?:section|root|item|read|get_array)[\[(](?:\w+, )?"(\w+)"', CODE))


def lines_logged():
    """The texts of the log, values as "..."; a line of nothing but a value is a report."""
    calls = re.findall(r'LOG_[A-Z]+\(\s*(?:\w+ \? )?"(.+?)"(?: : "(.+?)")?[,)]', CODE)
    texts = {re.sub("%(?:ll|z)?[a-z]", "...", text).strip() for pair in calls for text in pair}
    return (texts | set(re.findall(r'"(parse [\w ]* failed)"', CODE))) - {"", "..."}


def anchors_of(page):
    titles = re.findall("^#+ (.*)", page.read_text(), re.MULTILINE)
    return [re.sub(r"[^\w -]", "", title.lower()).replace(" ", "-") for title in titles]


class Documents(unittest.TestCase):
    maxDiff = None

    def test_keys(self):
        """Those that the code reads stand in the schema and on the page, and no others."""
        schema = json.loads((ROOT / "etc/tovrel.schema.json").read_text())
        self.assertEqual(keys_of(schema), keys_read() | {"$schema"})
        told = re.findall(r'^(?:### |\| (?:"list"\[\]\.)?)"(\w+)"', KEYS, re.MULTILINE)
        # The last two stand in the row of "uid_map".
        self.assertEqual(set(told), keys_read() - {"Config", "name", "value"})

    def test_properties(self):
        name = r"(?:persist\.vendor\.hg|ro\.board)\.\w+"
        self.assertEqual(set(re.findall(rf"^\| `({name})`", AFTER_KEYS, re.MULTILINE)),
                         set(re.findall(rf'"({name})"', CODE)))

    def test_log_lines(self):
        quoted = {re.sub(r"\s+", " ", text) for text in re.findall("`([^`]+)`", AFTER_KEYS)}
        told = {text for text in quoted
                if "..." in text or text in lines_logged() or "fail" in text}
        self.assertEqual(told - {"...", "process[:thread...]"}, lines_logged())

    def test_links(self):
        for page, text in PAGES.items():
            for target, anchor in re.findall(r"\]\(([^)#]*)#?([^)]*)\)", text):
                with self.subTest(page=page.name, target=target, anchor=anchor):
                    other = page.parent / target if target else page
                    self.assertTrue(other.exists())
                    self.assertTrue(not anchor or anchor in anchors_of(other))

    def test_commands(self):
        """They are there and know their options."""
        for page, text in PAGES.items():
            for block in re.findall(r"```sh\n(.*?)```", text, re.DOTALL):
                subprocess.run(["bash", "-n"], input=block, text=True, check=True)
            commands = set(re.findall(r"(?:^|`)((?:scripts|tools)/[a-z0-9-]+[^`\n]*)", text,
                                      re.MULTILINE))
            for command in commands:
                with self.subTest(page=page.name, command=command):
                    program, *words = command.split()
                    usage = subprocess.check_output([ROOT / program, "--help"], text=True)
                    for option in filter(lambda word: word.startswith("--"), words):
                        self.assertIn(option, re.findall(r"--[\w-]+", usage))

    def test_examples(self):
        """What is told of a play happens in it."""
        for page, text in PAGES.items():
            examples = re.findall(
                r"```sh\n(build/release/rehearse [^`]*)```\n+```\n([^`]*)```", text)
            for command, told in examples:
                with self.subTest(page=page.name, command=command):
                    played = subprocess.run(
                        ["bash", "-c", command.replace("build/release/rehearse", REHEARSE)],
                        cwd=ROOT, capture_output=True, text=True)
                    events = re.sub("  +-- .*", "", told)  # without remarks
                    self.assertEqual(played.stdout + played.stderr, events)


if __name__ == "__main__":
    REHEARSE = sys.argv.pop()
    unittest.main()
