"""One container for all tests, with the package installed. Each test begins with the daemon stopped and no configuration."""
import glob
import os
import shutil

import pytest

from appliance import Appliance
from machine import Machine, call, make_root

PACKAGES = os.environ["QUARROW_PACKAGES"]  # the folder with the Debian package
ROOT = os.environ["QUARROW_BOOT_ROOT"]  # where the container's root file system is, or is to be made


@pytest.fixture(scope="session")
def place(tmp_path_factory):
    """A folder for disks and containers, where this machine lets them be made."""
    for tool in ("systemd-nspawn", "debootstrap", "mkfs.ext4", "nsenter"):
        if shutil.which(tool) is None:
            pytest.skip(f"{tool} is not there")
    if os.geteuid() != 0:
        pytest.skip("only root can boot a container")
    folder = str(tmp_path_factory.mktemp("place"))
    image, mounted = f"{folder}/image", f"{folder}/mounted"
    os.mkdir(mounted)
    call("truncate", "--size=256M", image)
    call("mkfs.ext4", "-q", "-E", "lazy_itable_init=0,lazy_journal_init=0", image)
    try:
        call("mount", "-o", "loop", image, mounted)
    except RuntimeError as failure:
        pytest.skip(f"no disk can be mounted here: {failure}")
    yield folder
    call("umount", "--lazy", mounted)


@pytest.fixture(scope="session")
def shared(place):
    """A folder of the container on a disk of its own, and that disk's name: an image with a file system."""
    mounted = f"{place}/mounted"
    return mounted, os.path.basename(call("findmnt", "--noheadings", "--output=SOURCE", mounted).strip())


@pytest.fixture(scope="session")
def machine(place, shared):
    try:
        make_root(ROOT)
    except RuntimeError as failure:
        pytest.skip(f"no root file system could be made: {failure}")
    work = f"{place}/machine"
    os.mkdir(work)
    try:
        booted = Machine(ROOT, work, shared[0])  # a plain Debian yet
    except (RuntimeError, AssertionError) as failure:
        pytest.skip(f"no container boots here: {failure}")
    yield booted
    booted.stop()


@pytest.fixture(scope="session")
def package(machine):
    """Where the container has the package file."""
    file, = glob.glob(f"{PACKAGES}/quarrow_*.deb")
    shutil.copy(file, f"{machine.system}/quarrow.deb")
    return "/quarrow.deb"


@pytest.fixture(scope="session")
def installation(machine, package):
    """What the installation said."""
    return machine.run("dpkg", "--install", package)


@pytest.fixture
def appliance(machine, installation):
    assert installation.status == 0, installation.errors
    fresh = Appliance(machine)
    yield fresh
    fresh.clear()
