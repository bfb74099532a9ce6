"""What can go wrong, in words."""
import os
import sys


class Problem(Exception):
    """Says where, why and what to do about it. `status` is what the program ends with."""

    def __init__(self, place, reason, remedy, status=1):
        super().__init__(f"{visible(place)}: {visible(reason)}. {visible(remedy)}{'' if remedy.endswith('?') else '.'}")
        self.status = status


class Unusable(Problem):
    """Nothing can be done at all: arguments, configuration or state."""

    def __init__(self, place, reason, remedy):
        super().__init__(place, reason, remedy, status=2)


class Stopped(BaseException):
    """SIGTERM or SIGINT came. No Exception, so that nothing takes it for a failure."""


def visible(text):
    """The text without line ends and control characters, which would forge lines of a log."""
    return "".join(character if character.isprintable() else repr(character)[1:-1] for character in str(text))


def reason_of(failure):
    return getattr(failure, "strerror", None) or str(failure) or type(failure).__name__


def say(text):
    try:
        print(f"push: {text}", file=sys.stderr, flush=True)
    except OSError:
        silence(sys.stderr)


def tell(text):
    """Says how it went. That nobody can hear it makes it no failure."""
    try:
        print(text, flush=True)
    except OSError as failure:
        silence(sys.stdout)
        say(f"standard output: {reason_of(failure)}")


def silence(stream):
    """Python writes the rest at its end, and fails again."""
    os.dup2(os.open(os.devnull, os.O_WRONLY), stream.fileno())
