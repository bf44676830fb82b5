"""The manual pages: right by the checkers' rules, and complete by what the programs and the schema say."""

import json
import re
import subprocess
import sys

import pytest

from testbed.run import BUILD, ROOT

sys.path.insert(0, str(ROOT / "packaging"))
import command_tree  # noqa: E402 (the path comes first)

MADE = BUILD / "packaging" / "man"
PAGES = {"bessd": MADE / "bessd.8", "sfectl": MADE / "sfectl.1", "sfe.yaml": ROOT / "packaging" / "man" / "sfe.yaml.5"}


def text(page):
    """The page as a reader sees it, on one line."""
    shown = subprocess.run(["mandoc", "-Tascii", "-O", "width=500", str(PAGES[page])], check=True,
                           capture_output=True, text=True).stdout
    return " ".join(re.sub(r".\x08", "", shown).split())


@pytest.mark.parametrize("page", PAGES)
def test_the_checkers_have_no_complaint(page):
    lint = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", str(PAGES[page])], capture_output=True, text=True)
    assert (lint.returncode, lint.stdout) == (0, "")
    shown = subprocess.run(["man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z", str(PAGES[page])],
                           capture_output=True, text=True, env={"LC_ALL": "C.UTF-8", "MANROFFSEQ": "", "MANWIDTH": "80",
                                                                "PATH": "/usr/bin:/bin"})
    assert (shown.returncode, shown.stderr) == (0, "")


@pytest.mark.parametrize("program", ["bessd", "sfectl"])
def test_every_command_option_and_operand_is_described(program):
    shown = text(program)
    tree = command_tree.read(str(BUILD / "bin" / program))
    commands = list(tree.all())
    assert program == "bessd" or len(commands) > 20, "the help was not understood"
    missing = []
    for command in commands:
        if not command.commands:
            words = [" ".join(command.words)] if command.words[1:] else []
            words += [name for option in command.options for name in option.names]
            words += [operand.names[0] for operand in command.positionals]
            missing += [f"{' '.join(command.words)}: {word}" for word in words if word not in shown]
    assert missing == []


def test_the_help_of_a_command_is_in_the_page():
    shown = text("sfectl")
    for sentence in ("Connect an output gate with an input gate.", "The daemon's address: unix:PATH or HOST:PORT."):
        assert sentence in shown


def section(title):
    """The source of a section of sfe.yaml(5)."""
    parts = re.split(r"^\.S[hs] (.*)\n", PAGES["sfe.yaml"].read_text(), flags=re.M)
    return parts[parts.index(title) + 1]


def keys(title):
    """The keys that a section describes: a set for each of its lists."""
    return [{name for item in re.findall(r"^\.It (Cm .*)", part, re.M) for name in re.findall(r"Cm (\S+)", item)}
            for part in re.findall(r"^\.Bl.*?^\.El", section(title), re.M | re.S)]


def test_the_page_and_the_schema_of_the_configuration_have_the_same_keys():
    schema = json.loads((ROOT / "sfectl/schema/sfe.schema.json").read_text())
    parts = {name: set(part["properties"]) for name, part in schema["$defs"].items() if "properties" in part}
    of_vrf, of_family = keys("VRFs")
    described = {"port": keys("Ports")[0], "interface": keys("Interfaces")[0], "vrf": of_vrf | of_family,
                 "instance": of_family, "route": keys("Routes")[0]}
    assert described == parts
    assert keys("DESCRIPTION") == [set(schema["properties"])]
    item = re.search(r"^\.It Cm workers\n(.*?)^\.It", section("DESCRIPTION"), re.M | re.S).group(1)
    of_worker = next(choice["items"]["oneOf"][1] for choice in schema["properties"]["workers"]["oneOf"]
                     if choice.get("type") == "array")
    assert set(re.findall(r"^\.Cm (\w+)", item, re.M)) == set(of_worker["properties"])


def words(node, definitions):
    """The words that a schema allows as values."""
    if isinstance(node, list):
        return set().union(*(words(child, definitions) for child in node))
    if not isinstance(node, dict):
        return set()
    if name := node.get("$ref"):
        return words(definitions[name.rsplit("/", 1)[1]], definitions)
    own = {word for word in [*node.get("enum", []), node.get("const")] if isinstance(word, str)}
    return own | words([child for key, child in node.items() if key not in ("not", "enum", "const")], definitions)


@pytest.mark.parametrize("title, part", [("Ports", "port"), ("Interfaces", "interface"), ("VRFs", "vrf"),
                                         ("Routes", "route")])
def test_the_page_names_every_word_of_the_schema(title, part):
    definitions = json.loads((ROOT / "sfectl/schema/sfe.schema.json").read_text())["$defs"]
    wanted = words(definitions[part]["properties"], definitions)
    assert wanted
    assert wanted - set(re.findall(r"(?:Cm|Ql) (\S+)", section(title))) == set()
