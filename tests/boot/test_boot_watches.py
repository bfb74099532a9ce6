"""More folders than the kernel lets a user watch."""
from appliance import configuration

LIMIT = "/proc/sys/fs/inotify/max_user_watches"


def test_the_log_of_a_start_warns_when_folders_outnumber_the_watches(appliance):
    appliance.make_folder("/srv/media/a/b")
    appliance.configure(configuration("/srv/media"))
    appliance.start()
    appliance.good("systemctl", "stop", "quarrow.service")
    assert not any("max_user_watches" in line for line in appliance.log())
    # The container cannot set the machine's limit: it is shown another one.
    appliance.machine.write("/srv/limit", "2\n")
    appliance.good("mount", "--bind", "/srv/limit", LIMIT)
    try:
        appliance.start()
        line, = [line for line in appliance.log() if "max_user_watches" in line]
        assert line.startswith("fs.inotify.max_user_watches: warning: The catalogues list 4 folders, but a user may have only 2 watches.")
    finally:
        appliance.good("umount", LIMIT)
