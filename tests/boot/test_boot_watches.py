"""More folders than the kernel lets a user watch."""
import re

from appliance import configuration

LIMIT = "/proc/sys/fs/inotify/max_user_watches"


def test_the_log_of_a_start_warns_when_folders_outnumber_the_watches(appliance):
    appliance.make_folder("/srv/media/a/b")
    appliance.configure(configuration("/srv/media"))
    appliance.start()
    appliance.good("systemctl", "stop", "quarrow.service")
    assert not any("max_user_watches" in line for line in appliance.log())
    # The container cannot set the machine's limit: the service is shown another one, in the /proc that is made for it.
    appliance.machine.write("/srv/limit", "2\n")
    appliance.drop_in("limit", f"[Service]\nBindReadOnlyPaths=/srv/limit:{LIMIT}\n")
    appliance.start()
    line, = [line for line in appliance.log() if "max_user_watches" in line]
    assert re.match(r"fs\.inotify\.max_user_watches: warning: The catalogues list [34] folders, but a user may have only 2 watches\.",
                    line)
