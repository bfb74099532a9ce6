"""`quarrowctl status` while the daemon walks: how far it has come."""
import os
import signal

from ctl import Ctl
from quarrow_driver.waiting import wait_for
from tracing import needs_tracer, send, start_traced, traced_pid, wait_stopped


def stops_in(trace):
    with open(trace, encoding="utf-8", errors="surrogateescape") as file:
        return file.read().count("--- SIGSTOP {")


@needs_tracer
def test_every_walk_shows_how_far_it_has_come(arena, clock):
    """The daemon is held where it reads a folder: in its first walk, with a new catalogue, and in a later one."""
    volume = arena.volume("V", crawl=["/m"])
    for folder in ("a", "b", "c", "b/d"):
        volume.make_file(f"/m/{folder}/song.mp3", b"x")
    done = 1 + [name for name in os.listdir(volume.path("/m")) if name != ".tickle"].index("b")
    trace = arena.path("trace")
    daemon = start_traced(arena, volume, "-P", volume.path("/m/b"), "-o", trace, "--inject=getdents64:signal=STOP:when=1",
                          clock=clock)
    wait_stopped(trace)
    ctl = Ctl(arena, [volume])
    config = ("--config", arena.path("quarrow-host-0.xml"))
    walk = ctl.run("status", "--json", *config).json()["daemon"]["walk"]
    assert walk["running"] == 1
    os.kill(traced_pid(daemon), signal.SIGCONT)
    daemon.wait_walks()
    assert ctl.run("status", "--json", *config).json()["daemon"]["walk"] is None

    def is_held_again():
        clock.advance(301)
        os.kill(traced_pid(daemon), signal.SIGUSR1)
        return stops_in(trace) == 2
    wait_for(is_held_again, "the stop in a later walk")
    for options in (config, (*config, "--volume", "V")):
        walk = ctl.run("status", "--json", *options).json()["daemon"]["walk"]
        assert (walk["running"], walk["folders_done"], walk["folders_total"]) == (1, done, 5)
        assert walk["folders_per_second"] > 0 and walk["seconds_left"] >= 0
    assert any(f"{done} of 5 folders" in line for line in ctl.run("status", *config).lines)
    send(signal.SIGTERM)(daemon)

    def has_ended():
        send(signal.SIGCONT)(daemon)  # a signal too many may have begun one more walk, which is held again
        return daemon.has_ended()
    wait_for(has_ended, "the daemon's end")
    assert daemon.wait_exit() == 0
