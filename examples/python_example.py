import msmface

faces = msmface.Manifest("../shared/faces/manifest.csv")
gallery = msmface.Gallery("py-faces", create=True)
for number, who in enumerate(["Adam_Sandler", "Andy_Roddick"], start=1):
    enrolled = faces.samples(who, videos=faces.videos(who)[:2])  # two videos of each
    gallery.enrol(number, who, msmface.jitter(enrolled, copies=10))
third = faces.samples("Andy_Roddick", videos=faces.videos("Andy_Roddick")[2:])
ranking = gallery.recognise(msmface.jitter(third, copies=5))
print(ranking.matches, "identified:", ranking.identified)
