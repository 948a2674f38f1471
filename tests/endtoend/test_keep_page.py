"""kestrix-keep status --html: the page, read by other parsers than a browser's, and drawn by Chromium."""
import functools
import html.parser
import json
import os
import re
import shutil
import subprocess
import zlib
from xml.etree import ElementTree

import kestrix_image
from harness import MIB, needs
from keep_job import NOW, JobTest
from keep_machine import COMMAND_LINE, FAILED, WELL
from keep_nights import DAY, Nights

CHUNK = 4 * MIB
LATER = NOW + 3600
ELEMENTS = {"a", "body", "dd", "desc", "details", "div", "dl", "dt", "footer", "h1", "h2", "h3", "head", "header",
            "html", "li", "main", "meta", "ol", "p", "path", "section", "span", "strong", "style", "summary", "svg",
            "table", "tbody", "td", "th", "thead", "title", "tr", "ul"}
ATTRIBUTES = {"aria-hidden", "charset", "class", "content", "d", "href", "http-equiv", "id", "lang", "name", "open",
              "preserveAspectRatio", "role", "scope", "style", "title", "viewBox"}
HOSTILE = ("<script>alert(1)</script><img src=x onerror=alert(1)>\" onload=\"alert(1)' ]]> --> </style></title> "
           "&amp; \u202e")


class Tags(html.parser.HTMLParser):
    """The tags as a reader of HTML, and not of XML, finds them, each ended as it began."""

    def __init__(self, text):
        super().__init__()
        self.open, self.elements, self.attributes, self.faults = [], set(), set(), []
        self.feed(text)
        self.close()
        self.faults += self.open

    def handle_starttag(self, tag, attrs):
        self.handle_startendtag(tag, attrs)
        self.open.append(tag)

    def handle_startendtag(self, tag, attrs):
        self.elements.add(tag)
        self.attributes |= {name for name, _ in attrs}

    def handle_endtag(self, tag):
        if not self.open or self.open.pop() != tag:
            self.faults.append(f"/{tag}")

    def unknown_decl(self, data):
        self.faults.append(data)


def text_of(element):
    return "".join(element.itertext())


def by_class(root, name):
    return [element for element in root.iter() if name in element.get("class", "").split()]


def cells_of(strip, letter):
    """The level of each cell that a lane of the strip draws, by its place."""
    cells = {}
    for path in strip.iter("path"):
        if path.get("class")[0] == letter:
            for begin, length in re.findall(r"M(\d+) [0-9.]+h(\d+)", path.get("d")):
                cells.update(dict.fromkeys(range(int(begin), int(begin) + int(length)), int(path.get("class")[1])))
    return cells


class PageTest(JobTest):
    def setUp(self):
        super().setUp()
        self.page = os.path.join(self.folder, "page.html")

    def write_page(self, now=LATER):
        run = self.keep("status", "--quiet", "--now", str(now), "--config", self.configuration, "--html", self.page)
        self.assertEqual(run.err, b"")
        with open(self.page, encoding="utf-8") as file:
            return run.status, file.read()

    def read_page(self, now=LATER, status=WELL):
        ended, text = self.write_page(now)
        self.assertEqual(ended, status)
        root = ElementTree.fromstring(text.partition("\n")[2])
        tags = Tags(text)
        self.assertEqual(tags.faults, [])
        self.assertEqual({element.tag for element in root.iter()} - ELEMENTS, set())
        self.assertEqual(tags.elements, {element.tag.lower() for element in root.iter()})
        self.assertEqual({name for element in root.iter() for name in element.keys()} - ATTRIBUTES, set())
        self.assertEqual(tags.attributes, {name.lower() for element in root.iter() for name in element.keys()})
        self.check_links(root)
        return root

    def check_links(self, root):
        """Links lead to places of the page, and nowhere else."""
        places = [element.get("id") for element in root.iter() if element.get("id")]
        self.assertEqual(len(places), len(set(places)))
        for link in root.iter("a"):
            self.assertIn(link.get("href")[1:], places)
            self.assertEqual(link.get("href")[0], "#")

    def strips(self, root):
        rows, = by_class(root, "strips")
        return list(rows)

    def rows(self, root):
        return [[text_of(cell) for cell in row] for row in root.find(".//tbody")]

    def nights(self, count, last=NOW, **options):
        return Nights(self.place, "job", count, last, **options)


class ThePage(PageTest):
    def change_chunks(self, *chunks):
        for chunk in chunks:
            self.change_disk(chunk * CHUNK + 77, os.urandom(8))

    def check_three_nights(self):
        """What is known to be changed is what the page draws and says."""
        self.disk(1, kestrix_image.seeded_disk(5 * CHUNK + 4096, 2))
        first = self.well(NOW - 2 * DAY)
        self.change_chunks(1, 4)
        second = self.well(NOW - DAY)
        self.change_chunks(4, 5)
        third = self.well()
        root = self.read_page()
        strips = self.strips(root)
        self.assertEqual([cells_of(strip, "s") for strip in strips],
                         [dict.fromkeys(range(6), 4), {1: 4, 4: 4}, {1: 4, 4: 4, 5: 4}])
        self.assertEqual([cells_of(strip, "c") for strip in strips], [{}, {1: 4, 4: 4}, {4: 4, 5: 4}])
        rows = self.rows(root)
        self.assertEqual([row[0] for row in rows], [first, second, third])
        self.assertEqual([row[4] for row in rows], ["6 of 6 chunks stored (100.0 %)", "2 of 6 chunks stored (33.3 %)",
                                                    "3 of 6 chunks stored (50.0 %)"])
        self.assertEqual([row[5] for row in rows], ["not compared", "2 of 6 chunks changed (33.3 %)",
                                                    "2 of 6 chunks changed (33.3 %)"])
        self.assertEqual([row[6] for row in rows], ["sound"] * 3)
        return rows

    def test_it_draws_which_chunks_are_stored_and_which_changed(self):
        rows = self.check_three_nights()
        self.assertEqual([row[2] for row in rows], ["full"] + [f"thin, on {rows[0][0]}"] * 2)

    def test_it_needs_no_password_for_sealed_images(self):
        password = os.path.join(self.folder, "password")
        with open(password, "w", encoding="ascii") as file:
            file.write("secret\n")
        os.chmod(password, 0o600)
        self.configure(f'password-file = "{password}"')
        rows = self.check_three_nights()
        self.assertTrue(all(row[2].endswith(", sealed") for row in rows), rows)

    def test_it_says_at_the_top_that_all_is_well_when_and_where(self):
        self.well()
        root = self.read_page()
        verdict, = by_class(root, "verdict")
        self.assertRegex(text_of(verdict), "All is well with 1 job")
        self.assertRegex(text_of(root.find(".//h1")), os.uname().nodename)
        self.assertRegex(text_of(by_class(root, "made")[0]), "As it was at 2026-11-2[123] ")
        self.assertEqual(root.get("lang"), "en")

    def test_it_says_at_the_top_what_is_wrong(self):
        root = self.read_page(status=FAILED)
        self.assertRegex(text_of(by_class(root, "verdict")[0]),
                         r"(?s)wrong with 1 of 1 job.*job.*there is no sound image")

    def test_the_chain_has_each_image_once_and_what_stands_on_it_below(self):
        nights = self.nights(8, fullEvery=4)
        root = self.read_page(status=WELL)
        chains = by_class(root, "chain")
        self.assertEqual([len(by_class(chain, "base")) for chain in chains], [1, 1])
        self.assertEqual([len(list(by_class(chain, "on")[0])) for chain in chains], [3, 3])
        boxes = [link.get("href") for chain in chains for link in chain.iter("a")]
        self.assertEqual(boxes, [f"#job-1-{i}" for i in range(1, 9)])
        self.assertEqual([row.get("id") for row in root.find(".//tbody")], [link[1:] for link in boxes])
        self.assertEqual([row[0] for row in self.rows(root)], nights.names)

    def test_images_that_stand_on_the_one_before_are_one_row(self):
        self.nights(5, onNewest=True)
        root = self.read_page()
        row, = by_class(by_class(root, "chain")[0], "row")
        self.assertEqual(len(list(row)), 4)

    def test_a_disk_of_many_chunks_is_binned_and_the_figures_stay_exact(self):
        nights = self.nights(6, chunks=1000)
        root = self.read_page()
        for i, strip in enumerate(self.strips(root)):
            counts = {}
            for chunk in nights.changed[i]:
                counts[chunk * 240 // 1000] = counts.get(chunk * 240 // 1000, 0) + 1
            inCell = [sum(chunk * 240 // 1000 == cell for chunk in range(1000)) for cell in range(240)]
            self.assertEqual(cells_of(strip, "c"), {cell: -(-4 * n // inCell[cell]) for cell, n in counts.items()})
            if i:
                self.assertRegex(self.rows(root)[i][5], f"^{len(nights.changed[i])} of 1000 chunks changed")

    def test_an_image_whose_table_can_not_be_read_says_so_and_so_does_the_verdict(self):
        nights = self.nights(3)
        kestrix_image.flip_byte(nights.path(nights.names[1]), 70)
        run = self.keep("status", "--now", str(LATER), "--config", self.configuration)
        self.assertEqual(run.status, WELL)  # which opens no image
        root = self.read_page(status=FAILED)
        self.assertIn(f"{nights.names[1]}: DAMAGED: it is another image than its sidecar tells of",
                      text_of(by_class(root, "verdict")[0]))
        os.truncate(nights.path(nights.names[1]), 100)
        root = self.read_page(status=FAILED)
        row = self.strips(root)[1]
        self.assertIsNone(row.find("svg"))
        self.assertRegex(text_of(row), "^× .*damaged: it has 100 bytes.*; its table can't be read: .*cut off$")
        self.assertEqual(len(by_class(by_class(root, "chain")[0], "bad")), 1)

    def test_images_that_are_gone_or_nobodys_are_told_apart(self):
        nights = self.nights(6, fullEvery=3)
        os.unlink(nights.path(nights.names[3]))
        os.unlink(nights.path(nights.names[1] + ".json"))
        root = self.read_page(status=FAILED)
        states = {row[0]: row[6].partition(":")[0] for row in self.rows(root)}
        self.assertEqual([states[name] for name in nights.names],
                         ["sound", "in doubt", "sound", "gone", "damaged", "damaged"])
        compared = {row[0]: row[5] != "not compared" for row in self.rows(root)}
        self.assertEqual([compared[name] for name in nights.names], [False, False, True, False, True, True])

    def test_what_sidecars_claim_is_text_and_nothing_else(self):
        nights = self.nights(4)
        for name, change in zip(nights.names[1:], ({"base": HOSTILE}, {"isSound": False, "damage": HOSTILE},
                                                   {"job": HOSTILE})):
            nights.write_sidecar(name, {**nights.read_sidecar(name), **change, "machine": HOSTILE,
                                        "startedLocal": HOSTILE, "notes": [HOSTILE]})
        root = self.read_page(status=FAILED)
        self.assertGreaterEqual(text_of(root).count(HOSTILE), 6)

    def test_figures_that_no_disk_has_do_no_harm(self):
        nights = self.nights(3)
        last = nights.names[2]
        nights.write_sidecar(last, {**nights.read_sidecar(last), "chunks": 0, "fileBytes": 2**64 - 1,
                                    "storedChunks": 2**64 - 1})
        self.read_page(status=FAILED)

    def test_the_same_state_makes_the_same_page(self):
        self.place = self.small_file_system("20m")
        self.configure()
        self.nights(5)
        self.assertEqual(self.write_page(), self.write_page())

    def test_the_page_of_400_images_stays_small(self):
        self.nights(400)
        ended, text = self.write_page()
        self.assertEqual(ended, FAILED)  # nobody has read the newest chain for long
        self.assertLess(len(text.encode()), 2 * MIB)
        self.assertEqual(text.count("<tr id="), 400)

    def test_a_page_that_can_not_be_written_fails_and_says_so(self):
        self.well()
        path = os.path.join(self.folder, "nowhere", "page.html")
        run = self.keep("status", "--quiet", "--now", str(LATER), "--config", self.configuration, "--html", path)
        self.assertEqual(run.status, FAILED)
        self.assertRegex(run.err.decode(), f"^kestrix-keep: {path}: it can't be written: .*\n$")

    def test_a_page_that_is_there_gives_way_in_one_step(self):
        self.well()
        self.write_page()
        before = os.open(self.page, os.O_RDONLY)
        self.addCleanup(os.close, before)
        text = self.write_page()[1]
        self.assertEqual(os.read(before, len(text) * 2).decode(), text)
        self.assertFalse(os.path.samestat(os.fstat(before), os.stat(self.page)))
        self.assertEqual([name for name in os.listdir(self.folder) if name.startswith("page")], ["page.html"])

    def test_without_a_file_name_it_is_refused(self):
        self.assertEqual(self.keep("status", "--html").status, COMMAND_LINE)


# Runs in the browser, in a page of the test's own around those under test.
MEASURE = """<!DOCTYPE html><html><body><script>
function luminance(colour) {
  const part = colour.match(/[0-9.]+/g).slice(0, 3).map(value => value / 255)
      .map(value => value <= 0.03928 ? value / 12.92 : ((value + 0.055) / 1.055) ** 2.4);
  return 0.2126 * part[0] + 0.7152 * part[1] + 0.0722 * part[2];
}
function backgroundOf(view, element) {
  for (; element; element = element.parentElement) {
    const colour = view.getComputedStyle(element).backgroundColor;
    if (!/, 0\\)$/.test(colour)) return colour;
  }
  return "rgb(255, 255, 255)";
}
function contrast(view, element) {
  const both = [view.getComputedStyle(element).color, backgroundOf(view, element)].map(luminance);
  return (Math.max(...both) + 0.05) / (Math.min(...both) + 0.05);
}
function measure(frame) {
  const page = frame.contentDocument, view = frame.contentWindow, root = page.documentElement;
  const all = [...page.body.querySelectorAll("*")].filter(one => !one.closest(".hidden"));
  const html = all.filter(one => !one.closest("svg"));
  const texts = html.filter(one => [...one.childNodes].some(node => node.nodeType == 3 && node.data.trim()));
  const named = list => [...new Set(list.map(one => one.tagName + "." + one.getAttribute("class")))];
  return {
    name: frame.title, width: root.clientWidth, scrollWidth: root.scrollWidth,
    outside: named(all.filter(one => one.getBoundingClientRect().right > root.clientWidth + 1
                                     || one.getBoundingClientRect().left < -1)),
    cut: named(html.filter(one => one.clientWidth && one.scrollWidth > one.clientWidth + 1)),
    faint: named(texts.filter(one => contrast(view, one) < 4.5)),
    smallest: Math.min(...texts.map(one => parseFloat(view.getComputedStyle(one).fontSize))),
    strips: [...page.querySelectorAll(".strips svg")].map(one => one.getBoundingClientRect())
        .filter(box => box.width >= 200 && box.height >= 8).length,
    back: luminance(view.getComputedStyle(root).backgroundColor),
    loaded: view.performance.getEntriesByType("resource").length, scripts: page.scripts.length, texts: texts.length};
}
const frames = FRAMES;
addEventListener("load", () => {
  const facts = [...document.querySelectorAll("iframe")].map(measure);
  document.body.textContent = JSON.stringify(facts);
});
for (const [name, width] of frames)
  document.write(`<iframe title="${name}" src="${name}.html" style="width:${width}px;height:900px;border:0"></iframe>`);
</script></body></html>"""


@functools.lru_cache(maxsize=None)
def why_no_chromium():
    return None if shutil.which("chromium") else "there is no chromium"


class TheDrawing(PageTest):
    def chromium(self, *arguments):
        profile = os.path.join(self.folder, "profile")
        done = subprocess.run(["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--hide-scrollbars",
                               "--allow-file-access-from-files", f"--user-data-dir={profile}", *arguments],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=60, check=False,
                              env={**os.environ, "HOME": self.folder})
        self.assertEqual(done.returncode, 0, done.stderr)
        return done.stdout

    @staticmethod
    def colours(content):
        """The colours, each of three bytes, that a PDF file fills with."""
        found = set()
        for stream in re.findall(rb"/FlateDecode.*?stream\r?\n(.*?)endstream", content, re.DOTALL):
            for colour in re.findall(rb"([\d.]+) ([\d.]+) ([\d.]+) rg", zlib.decompressobj().decompress(stream)):
                found.add(tuple(round(float(part) * 255) for part in colour))
        return found

    def measured(self, names, widths, *arguments):
        frames = [(name, width) for name in names for width in widths]
        path = os.path.join(self.folder, "measure.html")
        with open(path, "w", encoding="utf-8") as file:
            file.write(MEASURE.replace("FRAMES", json.dumps(frames)))
        dom = self.chromium("--window-size=1500,1000", *arguments, "--dump-dom", "file://" + path)
        facts = json.loads(html.unescape(re.search("<body>(.*)</body>", dom, re.DOTALL).group(1)))
        self.assertEqual([(one["name"], one["width"]) for one in facts], frames)
        return facts

    def make_pages(self, counts):
        """A page for each count of images, the last of them with all that can be wrong, under its count's name."""
        for count in counts:
            self.place = os.path.join(self.folder, f"place{count}")
            os.mkdir(self.place)
            self.configure()
            nights = self.nights(count, onNewest=count == 30, fullEvery=30)
            if count == counts[-1]:
                os.truncate(nights.path(nights.names[95]), 100)
                os.unlink(nights.path(nights.names[120]))
                os.unlink(nights.path(nights.names[170] + ".json"))
                for name in (nights.names[180], nights.names[181]):
                    nights.write_sidecar(name, {**nights.read_sidecar(name), "base": "W" * 200})
            self.page = os.path.join(self.folder, f"{count}.html")
            self.write_page()
        return [str(count) for count in counts]

    @needs(why_no_chromium)
    def test_nothing_sticks_out_is_cut_off_or_faint_wide_and_narrow_light_and_dark(self):
        names = self.make_pages([1, 30, 400])
        for setting, isDark in (("1", False), ("0", True)):
            for facts in self.measured(names, [1400, 380], f"--blink-settings=preferredColorScheme={setting}"):
                with self.subTest(page=facts["name"], width=facts["width"], dark=isDark):
                    self.assertEqual(facts["scrollWidth"], facts["width"])
                    self.assertEqual((facts["outside"], facts["cut"], facts["faint"]), ([], [], []))
                    self.assertEqual(facts["back"] < 0.1, isDark)
                    self.assertEqual((facts["loaded"], facts["scripts"]), (0, 0))
                    self.assertGreaterEqual(facts["smallest"], 9)
                    self.assertGreaterEqual(facts["strips"], int(facts["name"]) - 2)
                    self.assertGreater(facts["texts"], 20)

    @needs(why_no_chromium)
    def test_on_paper_it_is_in_daylight_colours_with_all_its_figures(self):
        name, = self.make_pages([200])
        with open(os.path.join(self.folder, name + ".html"), encoding="utf-8") as file:
            text = file.read()
        self.assertIn("<details><summary>The figures of", text)
        path = os.path.join(self.folder, "closed.html")
        with open(path, "w", encoding="utf-8") as file:
            file.write(re.sub("<table>.*</table>", "<table></table>", text, flags=re.DOTALL))
        light, dark = (tuple(int(digits, 16) for digits in re.findall("..", ink))
                       for ink in re.findall("--ink: #([0-9a-f]{6})", text))
        pages = {}
        for source in (name, "closed"):
            out = os.path.join(self.folder, source + ".pdf")
            self.chromium("--blink-settings=preferredColorScheme=0", "--no-pdf-header-footer", f"--print-to-pdf={out}",
                          "file://" + os.path.join(self.folder, source + ".html"))
            with open(out, "rb") as file:
                content = file.read()
            pages[source] = len(re.findall(rb"/Type\s*/Page\b", content))
            self.assertIn(light, self.colours(content))
            self.assertNotIn(dark, self.colours(content))
        self.assertGreater(pages[name], pages["closed"] + 4)
