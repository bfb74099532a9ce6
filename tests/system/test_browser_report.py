"""The page of quarrowctl report in a browser: what it shows, and that it can be used with a mouse, keys, or a telephone."""
import os
import random
import re
import sqlite3
import time

import pytest

from browser import started
from ctl import Ctl
from quarrow_driver.waiting import wait_for
from report_page import Page

HOSTILE = [b"</script><img src=x onerror=alert(1)>", b"<b>bold</b>", b"a\xff\nb", b"'\"&amp;\\u003c", "\u202egpj.exe".encode()]


@pytest.fixture
def browser(arena):
    with started(arena) as running:
        yield running
        assert running.complaints() == []
        requests = running.requests()
        assert requests and set(requests) == {f"file://{arena.path('report.html')}"}


def write_report(arena, *volumes):
    """What the daemon finds on the volumes, as a page; its path."""
    daemon = arena.start(list(volumes))
    daemon.wait_walks(len(volumes))
    daemon.stop()
    path = arena.path("report.html")
    Ctl(arena, volumes).good("report", "-o", path)
    return path


def library(arena, name="Volume1"):
    volume = arena.volume(name, exclude=["/.quarrow"])
    for folder, kind, sizes in (("/Films", "mkv", (900, 700)), ("/Films/Old", "mp4", (500, 300)),
                                ("/Films/Old/Silent", "mp4", (250,)), ("/Music/Rock", "mp3", (90, 60)),
                                ("/Music", "mp3", (30,)), ("/Photos", "jpg", (200, 10))):
        for number, size in enumerate(sizes):
            volume.make_file(f"{folder}/{number}.{kind}", size=size * 1000)
    return volume


def labels(browser):
    """The names on the tiles."""
    return sorted(tile.get_attribute("aria-label").rsplit(": ", 1)[0] for tile in browser.all(".tile"))


def tile(browser, name):
    return next(found for found in browser.all(".tile") if found.get_attribute("aria-label").startswith(f"{name}: "))


def crumbs(browser):
    return [crumb.text for crumb in browser.all(".crumbs li")]


def focused(browser):
    """What the element with the focus is called."""
    return browser.run("const e = document.activeElement; return e.getAttribute('aria-label') ?? e.textContent")


def test_a_click_opens_a_folder_and_the_way_back_leads_up(arena, browser):
    browser.open(write_report(arena, library(arena)))
    assert labels(browser) == ["Films", "Music", "Photos"]
    tile(browser, "Films").click()
    assert crumbs(browser) == ["Volume1", "Films"]
    assert labels(browser) == ["Old", "files in this folder itself"]
    tile(browser, "Old").click()
    assert labels(browser) == ["Silent", "files in this folder itself"]
    browser.driver.back()
    wait_for(lambda: crumbs(browser) == ["Volume1", "Films"], "the folder before")
    browser.driver.forward()
    wait_for(lambda: crumbs(browser) == ["Volume1", "Films", "Old"], "the folder after")
    browser.one(".crumbs button").click()
    assert labels(browser) == ["Films", "Music", "Photos"]
    tile(browser, "Photos").click()  # has no folders: there is nothing to open
    assert crumbs(browser) == ["Volume1"]


def test_keys_alone_do_as_much(arena, browser):
    browser.open(write_report(arena, library(arena)))
    wait_for(lambda: (browser.press("Tab"), focused(browser).startswith("Films:"))[1], "the focus on the first tile")
    outline = browser.run("const s = getComputedStyle(document.activeElement); return [s.outlineStyle, s.outlineWidth]")
    assert outline == ["solid", "3px"]
    browser.press("ArrowRight")
    assert not focused(browser).startswith("Films:") and focused(browser) in {
        found.get_attribute("aria-label") for found in browser.all(".tile")}
    browser.press("ArrowLeft")
    assert focused(browser).startswith("Films:")
    browser.press("ArrowLeft")  # nothing is there
    assert focused(browser).startswith("Films:")
    browser.press("Enter")
    assert crumbs(browser) == ["Volume1", "Films"]
    assert focused(browser) in {found.get_attribute("aria-label") for found in browser.all(".tile")}
    browser.press("Escape")
    assert crumbs(browser) == ["Volume1"] and focused(browser).startswith("Films:")
    browser.press("Escape")
    assert crumbs(browser) == ["Volume1"]


def test_keys_move_up_and_down(arena, browser):
    browser.open(write_report(arena, library(arena)))
    upper, lower = sorted(("Music", "Photos"), key=lambda name: tile(browser, name).location["y"])
    assert tile(browser, upper).location["x"] == tile(browser, lower).location["x"]
    wait_for(lambda: (browser.press("Tab"), focused(browser).startswith("Films:"))[1], "the focus on the first tile")
    browser.press("ArrowUp")  # nothing is there
    assert focused(browser).startswith("Films:")
    wait_for(lambda: (browser.press("ArrowRight"), not focused(browser).startswith("Films:"))[1], "the focus beside it")
    for key, name in (("ArrowUp", upper), ("ArrowDown", lower), ("ArrowDown", lower), ("ArrowUp", upper), ("ArrowUp", upper)):
        browser.press(key)
        assert focused(browser).startswith(f"{name}:"), key


def test_the_way_back_leaves_another_volume_alone(arena, browser):
    first, second = library(arena), arena.volume("Volume2", crawl=["/m"])
    second.make_file("/m/x/y/a.mp3", b"x")
    browser.open(write_report(arena, first, second))
    browser.all("#volumes button")[0].click()
    tile(browser, "Films").click()
    tile(browser, "Old").click()
    browser.all("#volumes button")[1].click()
    assert crumbs(browser) == ["Volume2"]
    browser.driver.back()
    browser.driver.back()
    assert crumbs(browser) == ["Volume2"]
    tile(browser, "m").click()
    assert crumbs(browser) == ["Volume2", "m"]
    assert browser.complaints() == []


def test_each_chart_has_a_table(arena, browser):
    browser.open(write_report(arena, library(arena)))
    for summary in browser.all("summary"):
        summary.click()
    wait_for(lambda: len(browser.all("details table")) == 2, "both tables")
    growth, treemap = (table.text for table in browser.all("details table"))
    assert "2.9 MiB" in growth
    assert treemap.splitlines()[1] == "Films 5 2.5 MiB 87.2 %"
    browser.one("details table .link").click()  # also opens the folder
    wait_for(lambda: crumbs(browser) == ["Volume1", "Films"], "the folder of the table's row")
    wait_for(lambda: "Old" in browser.all("details table")[1].text, "the table of the open folder")


def test_the_growth_can_be_read_with_keys(arena, browser):
    volume = library(arena)
    for path, moment in (("/Photos/1.jpg", 1_000_000_000), ("/Films/0.mkv", 1_002_000_000)):
        os.utime(volume.path(path), (moment, moment))
    browser.open(write_report(arena, volume))
    by_month = browser.text(".chart + .readout")
    assert re.fullmatch(r"20\d\d-\d\d: 2.9 MiB in 10 files", by_month)
    browser.one("input[value=modified]").click()  # over more years than there is room for months
    wait_for(lambda: browser.text(".chart + .readout") not in ("", by_month), "the other chart")
    browser.run("document.querySelector('.chart svg').focus()")
    browser.press("Home")
    slider = browser.one(".chart svg")
    assert slider.get_attribute("role") == "slider"
    assert slider.get_attribute("aria-valuetext") == browser.text(".chart + .readout")
    first = browser.text(".chart + .readout")
    assert first == "2001: 888.7 KiB in 2 files"
    browser.press("ArrowRight")
    assert browser.text(".chart + .readout") == "2002: 0 bytes in 0 files"
    browser.run("document.querySelector('.chart .hover').dispatchEvent(new PointerEvent('pointermove', { bubbles: true }))")
    assert browser.text(".chart + .readout") == first


def test_both_colour_schemes_are_there(arena, browser):
    path = write_report(arena, library(arena))
    colours = {}
    for scheme in ("light", "dark"):
        browser.open(path, scheme=scheme)
        colours[scheme] = page_colours(browser)
        assert contrast(*colours[scheme]) > 7
    assert luminance(colours["light"][0]) > 0.8 and luminance(colours["dark"][0]) < 0.1
    browser.one("#scheme option[value=light]").click()
    assert page_colours(browser) == colours["light"]
    browser.open(path, scheme="dark")  # it remembers
    assert page_colours(browser) == colours["light"]
    browser.one("#scheme option[value='']").click()
    assert page_colours(browser) == colours["dark"]


def test_all_text_stands_out_in_both_schemes(arena, browser):
    path = write_report(arena, library(arena))
    for scheme in ("light", "dark"):
        browser.open(path, scheme=scheme)
        browser.run("document.getElementById('scheme').value = ''")
        pairs = browser.run("""
            const opaque = element => { for (; element; element = element.parentElement) {
                const colour = getComputedStyle(element).backgroundColor;
                if (colour !== 'rgba(0, 0, 0, 0)') return colour; } };
            return [...document.querySelectorAll('h1, h2, p, td, th, dd, dt, .tile span, .tile i, button, summary, label, legend')]
                .map(element => [opaque(element), getComputedStyle(element).color, element.textContent]);""")
        assert len(pairs) > 50
        assert [text for background, colour, text in pairs if contrast(numbers(background), numbers(colour)) < 4.5] == []


def test_a_telephone_does_not_scroll_sideways(arena, browser):
    volume = library(arena)
    volume.make_file(f"/Music/{'long' * 60}/{'name' * 60}.mp3", size=5_000_000)
    volume.make_file(f"/{'name' * 60}.mp3", size=5_000_000)
    path = write_report(arena, volume, library(arena, "Volume2"))
    browser.open(path, width=360, height=740)
    for summary in browser.all("summary"):
        summary.click()
    for more in browser.all(".more"):
        more.click()
    width, room = browser.run("const e = document.documentElement; return [e.scrollWidth, e.clientWidth]")
    assert width <= room <= 360
    outside = browser.run("const isOutside = e => e.getBoundingClientRect().right > arguments[0] + 1;"
                          "return [...document.querySelectorAll('main *')].filter(isOutside).map(e => e.tagName)", room)
    assert outside == []
    assert tile(browser, "Films").size["width"] > 40
    tile(browser, "Films").click()
    assert crumbs(browser) == ["Volume1", "Films"]


def test_hostile_names_are_nothing_but_text(arena, browser):
    volume = arena.volume(exclude=["/.quarrow"])
    for name in HOSTILE:
        folder = os.fsencode(volume.folder) + b"/in " + name.replace(b"/", b":")
        os.makedirs(folder + b"/sub")
        for place in (folder, folder + b"/sub"):
            with open(place + b"/" + name.replace(b"/", b":") + b".mp3", "wb") as file:
                file.write(b"1234")
    browser.open(write_report(arena, volume))
    shown = ["<:script><img src=x onerror=alert(1)>", "<b>bold<:b>", "a\\xff\\nb", "'\"&amp;\\u003c", "\u202egpj.exe"]
    assert sorted(labels(browser)) == sorted(f"in {name}" for name in shown)
    tile(browser, f"in {shown[0]}").click()
    assert crumbs(browser)[1] == f"in {shown[0]}"
    text = browser.run("return document.getElementById('volume').textContent")
    for name in shown:
        assert f"{name}.mp3" in text
    assert browser.run("return [document.querySelectorAll('img, b').length, document.scripts.length]") == [0, 3]


def test_volumes_are_switched_and_a_broken_one_says_why(arena, browser):
    volumes = [library(arena), library(arena, "Volume2"), arena.volume("Missing")]
    volumes[1].make_file("/Only here/file.mkv", size=9_000_000)
    daemon = arena.start(volumes[:2])
    daemon.wait_walks()
    daemon.stop()
    path = arena.path("report.html")
    assert Ctl(arena, volumes).run("report", "-o", path).status == 1
    browser.open(path)
    switch = {button.text.splitlines()[0]: button for button in browser.all("#volumes button")}
    assert sorted(switch) == ["Missing", "Volume1", "Volume2"]
    switch["Volume2"].click()
    assert "Only here" in wait_for(lambda: labels(browser), "the treemap")
    assert [name for name, button in switch.items() if button.get_attribute("aria-pressed") == "true"] == ["Volume2"]
    switch["Missing"].click()
    assert "There is no catalogue" in browser.text(".problem") and volumes[2].folder in browser.text(".problem")
    assert browser.all("section") == []
    switch["Volume1"].click()
    assert wait_for(lambda: labels(browser), "the treemap") == ["Films", "Music", "Photos"]


def fill(catalogue, folders, files):
    """Adds so many rows to a catalogue that no daemon has open."""
    chance = random.Random(1)
    paths = [""]
    for number in range(folders):
        paths.append(f"{chance.choice(paths[:200])}/folder {number}")
    now = int(time.time())
    connection = sqlite3.connect(catalogue)
    with connection:
        connection.executemany(
            "insert into Folders(parent_id, path, name, created_time, modified_time, is_deleted, last_updated_time)"
            " values(-1, ?, ?, ?, ?, 0, ?)", ((path, os.path.basename(path), now, now, now) for path in paths[1:]))
        connection.executemany(
            "insert into Files(folder_id, path, name, category, size, modified_time, created_time, is_deleted,"
            " last_updated_time) values(0, ?, ?, ?, ?, ?, ?, 0, ?)",
            ((f"{paths[number % len(paths)]}/file {number}", f"file {number}", 1 + number % 4, chance.randrange(1 << 30),
              now, now, now) for number in range(files)))
    connection.close()


def test_a_large_volume_makes_a_page_of_bounded_size(arena, browser):
    volume = library(arena)
    daemon = arena.start([volume])
    daemon.wait_walks()
    daemon.stop()
    fill(volume.catalogue.path, 30_000, 100_000)
    path = arena.path("report.html")
    Ctl(arena, [volume]).good("report", "-o", path)
    with open(path, "rb") as file:
        content = file.read()
    assert len(content) < 2_000_000
    rows = Page(content).volume("Volume1")["tree"]
    assert len(rows) == 20_000
    assert sum(row[3] + row[6] for row in rows) == 100_010
    browser.open(path)
    assert browser.run("return document.querySelectorAll('*').length") < 6000
    assert "100,010" in browser.text(".figures")


def numbers(colour):
    return [float(part) for part in colour[colour.index("(") + 1:-1].split(",")[:3]]


def page_colours(browser):
    return [numbers(colour) for colour in browser.run(
        "const s = getComputedStyle(document.body); return [s.backgroundColor, s.color]")]


def luminance(colour):
    linear = [part / 255 / 12.92 if part / 255 <= 0.04045 else ((part / 255 + 0.055) / 1.055) ** 2.4 for part in colour]
    return 0.2126 * linear[0] + 0.7152 * linear[1] + 0.0722 * linear[2]


def contrast(one, other):
    dark, light = sorted((luminance(one), luminance(other)))
    return (light + 0.05) / (dark + 0.05)
