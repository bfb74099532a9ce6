"""The links of the documents, in the checkout and in the Debian package."""
import os
import re

from checkout import CHECKOUT, read

PACKAGED = "usr/share/doc/quarrow/"


def files_of_checkout():
    """Those of the sources: what is built has documents of other projects in it."""
    found = []
    for folder, subfolders, names in os.walk(CHECKOUT):
        place = os.path.relpath(folder, CHECKOUT)
        if place == ".":
            subfolders[:] = [name for name in subfolders if name not in (".git", "build", "debian") and name[:4] != "obj-"]
        found += [os.path.normpath(f"{place}/{name}") for name in names]
    return found


def anchors(text):
    headings = re.findall(r"^#+ (.*)$", re.sub(r"^```.*?^```", "", text, flags=re.MULTILINE | re.DOTALL), re.MULTILINE)
    return {re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-") for heading in headings}


def broken_links(files):
    """The links to nothing in a tree of documents: `files` has the source of each path. A folder is what has a path below."""
    broken = []
    for path, source in files.items():
        if not path.endswith(".md"):
            continue
        for link in re.findall(r"\]\(([^)\s]+)\)", read(source)):
            place, _, anchor = link.partition("#")
            target = os.path.normpath(os.path.join(os.path.dirname(path), place)) if place else path
            is_there = target in files or any(other.startswith(f"{target}/") for other in files)
            if not link.startswith("https://") and not (is_there and (not anchor or anchor in anchors(read(files[target])))):
                broken.append((path, link))
    return broken


def packaged(kind):
    return [line.split() for line in read(f"packaging/debian/quarrow.{kind}").splitlines()]


def packaged_documents():
    """What the package has in its folder of documents: the source of each path there."""
    files = {}
    checkout = files_of_checkout()
    for name, in packaged("docs"):
        files.update({other: other for other in checkout if other.startswith(f"{name}/")} or {os.path.basename(name): name})
    for name, in packaged("examples"):
        files[f"examples/{os.path.basename(name)}"] = name
    everywhere = {PACKAGED + path: source for path, source in files.items()}
    everywhere.update({f"{folder}/{os.path.basename(name)}": name for name, folder in packaged("install")})
    for name in os.listdir(f"{CHECKOUT}/packaging/systemd"):  # CMake installs what of these is a unit
        everywhere[f"lib/systemd/system/{name}"] = f"packaging/systemd/{name}"
    everywhere.update({link: everywhere[target] for target, link in packaged("links")})
    return {path[len(PACKAGED):]: source for path, source in everywhere.items() if path.startswith(PACKAGED)}


def test_links_of_the_checkout_lead_somewhere():
    assert broken_links({name: name for name in files_of_checkout()}) == []


def test_links_of_the_package_lead_somewhere():
    documents = packaged_documents()
    assert {"README.md", "CHANGELOG.md", "docs/operations.md", "examples/quarrow-host.xml"} <= set(documents)
    assert broken_links(documents) == []


def test_documents_of_the_package_are_not_compressed():
    kept = re.search(r"^\tdh_compress (.*)$", read("packaging/debian/rules"), re.MULTILINE)[1].split()
    assert all(option.startswith("-X") for option in kept)
    links = {link[len(PACKAGED):] for _, link in packaged("links")}
    assert [path for path in packaged_documents() if path not in links and not path.endswith(".png")
            and not any(option[2:] in f"/{path}" for option in kept)] == []


def test_the_change_log_of_the_package_keeps_its_name():
    """Else it takes the place of the package's own."""
    assert "\tdh_installchangelogs -XCHANGELOG.md\n" in read("packaging/debian/rules")
