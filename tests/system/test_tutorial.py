"""The tutorial, word for word: its commands are run in their order, and print what it says."""

from testbed.document import Reader, blocks, follow, matches
from testbed.run import ROOT

TUTORIAL = (ROOT / "docs" / "tutorial.md").read_text()


def test_the_tutorial_does_what_it_says(run):
    reader = run.keep(Reader(run))
    assert [kind for kind, _ in blocks(TUTORIAL)].count("console") > 5, "the tutorial was not understood"
    assert follow(reader, TUTORIAL) == ""


def test_outputs_are_compared():
    assert matches("age <ms>  x\n", "age 12 x\n")
    assert matches("...\nb\n", "a\nb\n")
    assert not matches("age <ms>\n", "age 1 2\n")
    assert not matches("a\n", "a\nb\n")
    assert not matches("", "a\n")
