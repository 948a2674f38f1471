"""Every link of the pages leads to a page, and to a headline of it, that is there; those that packages hold lead to
nothing that they don't hold."""
import glob
import os
import re
import unittest

from harness import ROOT

PAGES = sorted(os.path.relpath(path, ROOT) for pattern in ("*.md", "docs/*.md", "docs/development/*.md")
               for path in glob.glob(os.path.join(ROOT, pattern)))
PACKAGED = {"README.md", "CHANGELOG.md", "SECURITY.md"}


def text_of(page):
    """The page without what stands in blocks of commands."""
    with open(os.path.join(ROOT, page), encoding="utf-8") as file:
        return re.sub(r"^```.*?^```$", "", file.read(), flags=re.M | re.S)


def anchors(page):
    """The names by which a page's headlines are reached, as the common renderers make them."""
    return {re.sub(r"[^\w\- ]", "", title.lower()).replace(" ", "-")
            for title in re.findall(r"^#+ (.*?)$", text_of(page), re.M)}


def links(page):
    """The links that lead to this tree: the file, from the tree's top, and the headline, or nothing."""
    for target in re.findall(r"\]\(([^)\s]+)\)", re.sub(r"\n *", " ", text_of(page)).replace("] (", "](")):
        if "://" not in target:
            path, _, anchor = target.partition("#")
            yield os.path.normpath(os.path.join(os.path.dirname(page), path)) if path else page, anchor


def places(page):
    """The places of the tree that a page names; what stands for another name is in capitals."""
    with open(os.path.join(ROOT, page), encoding="utf-8") as file:
        text = file.read()
    words = re.findall(r"(?<![\w./-])((?:src|platform|companions|tests|scripts|docs|completion)/[\w./*-]*)", text)
    return {word.rstrip(".") for word in words if not re.search("[A-Z]{4}", word)}


def is_packaged(path):
    return path in PACKAGED or (os.path.dirname(path) == "docs" and path != "docs/rehearsals.md")


class Links(unittest.TestCase):
    def test_lead_to_pages_and_headlines_that_are_there(self):
        self.assertGreater(len(PAGES), 20)
        self.assertGreater(sum(len(list(links(page))) for page in PAGES), 50)
        for page in PAGES:
            for path, anchor in links(page):
                with self.subTest(page=page, path=path, anchor=anchor):
                    self.assertTrue(os.path.exists(os.path.join(ROOT, path)))
                    if anchor:
                        self.assertIn(anchor, anchors(path))

    def test_places_of_the_tree_that_developers_are_told_of_are_there(self):
        pages = [page for page in PAGES if not is_packaged(page)]
        self.assertGreater(sum(len(places(page)) for page in pages), 20)
        for page in pages:
            for place in places(page):
                with self.subTest(page=page, place=place):
                    self.assertTrue(glob.glob(os.path.join(ROOT, place)))

    def test_of_packaged_pages_lead_to_packaged_pages(self):
        for page in filter(is_packaged, PAGES):
            for path, _ in links(page):
                with self.subTest(page=page, path=path):
                    self.assertTrue(is_packaged(path))


if __name__ == "__main__":
    unittest.main()
