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
def shared(tmp_path_factory):
    """A folder of the container on a disk of its own, and that disk's name: an image with a file system."""
    folder = tmp_path_factory.mktemp("disk")
    image = f"{folder}/image"
    call("truncate", "--size=256M", image)
    call("mkfs.ext4", "-q", "-E", "lazy_itable_init=0,lazy_journal_init=0", image)
    disk = call("losetup", "--find", "--show", image).strip()
    mounted = f"{folder}/mounted"
    os.mkdir(mounted)
    call("mount", disk, mounted)
    yield mounted, os.path.basename(disk)
    call("umount", "--lazy", mounted)
    call("losetup", "--detach", disk)


@pytest.fixture(scope="session")
def machine(tmp_path_factory, shared):
    for tool in ("systemd-nspawn", "debootstrap", "losetup"):
        if shutil.which(tool) is None:
            pytest.skip(f"{tool} is not there")
    if os.geteuid() != 0:
        pytest.skip("only root can boot a container")
    try:
        make_root(ROOT)
    except RuntimeError as failure:
        pytest.skip(f"no root file system could be made: {failure}")
    booted = Machine(ROOT, str(tmp_path_factory.mktemp("machine")), shared[0])
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
