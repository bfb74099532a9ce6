"""What lies on the volumes of the demo, and how it changes."""
import os
import random
import shutil

MANY = 60_000  # more than a pusher sends at once
#: Files that several appliances have, with sizes past 32 bits.
SHARED = {"/Films/Holiday 1998.mkv": 5_000_000_000, "/Films/The long one.mkv": 3_221_225_472, "/Films/Concert.mp4": 700_000_000}
#: Names that are no text, or not one that prints: a line end, a tab, a backslash, a lone byte of Latin-1.
AWKWARD = ["/Odd/line\nend.jpg", "/Odd/tab\there.mp3", "/Odd/back\\slash.txt", "/Odd/quote'\".pdf", b"/Odd/Caf\xe9.JPG",
           "/Odd/Caf\u00e9.JPG", "/Odd/" + "n" * 255, b"/Odd/" + bytes(range(1, 47)) + bytes(range(48, 256))]


def fill(appliances):
    attic, studio, office = appliances
    for number in range(MANY):
        folder = f"/Archive/{number // 100:04}"
        if number % 100 == 0:
            os.makedirs(attic.path("Media", folder))
        os.mknod(attic.path("Media", f"{folder}/scan {number}.tif"))
    for appliance in (attic, studio):
        for relative, size in SHARED.items():
            appliance.make_file("Media", relative, size)
    for number in range(1, 40):
        for appliance, volume in ((studio, "Photos"), (office, "Documents")):
            appliance.make_file(volume, f"/Summer/IMG_{number:04}.JPG", 4_000_000 + number)
    for relative in AWKWARD:
        office.make_file("Documents", relative, 1234)


def change(appliances, choice):
    """What an owner does in a week."""
    attic, studio, office = appliances
    os.rename(attic.path("Media", "/Archive/0008"), attic.path("Media", "/Archive/moved"))
    shutil.rmtree(attic.path("Media", "/Archive/0007"))
    for number in choice.sample(range(1, 40), 12):  # photos that vanish from both
        for appliance, volume in ((studio, "Photos"), (office, "Documents")):
            os.unlink(appliance.path(volume, f"/Summer/IMG_{number:04}.JPG"))
    for number in range(25):
        studio.make_file("Photos", f"/Winter/IMG_{number + 1:04}.JPG", choice.randrange(1_000_000, 9_000_000))
    studio.make_file("Media", "/Films/New cut.mkv", 12_000_000_000)
    studio.make_file("Media", "/Films/Concert.mp4", 750_000_000)
    os.unlink(office.path("Documents", AWKWARD[0]))
    office.make_file("Documents", AWKWARD[1], 99)


def seeded():
    return random.Random(os.environ.get("QUARROW_FAULT_SEED", "1"))
