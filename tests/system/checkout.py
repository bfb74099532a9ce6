"""Files of the checkout that tests compare with something, and the version that they have in common."""
import os
import re

CHECKOUT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../..")


def read(name):
    with open(os.path.join(CHECKOUT, name), encoding="utf-8") as file:
        return file.read()


def project_version():
    """CMakeLists.txt has it; everything else is derived from there, or held equal by the tests."""
    return re.search(r"^project\(quarrow VERSION ([0-9.]+) ", read("CMakeLists.txt"), re.MULTILINE)[1]


def printed_version():
    """As `quarrow version` prints it: the first two dots are underscores."""
    return project_version().replace(".", "_", 2)
