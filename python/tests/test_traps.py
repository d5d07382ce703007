"""Every call of the Python API against a dictionary directory full of traps: links in every role
pointing out of the directory, pipes, a huge sparse file, tampered dictionaries, foreign files and
persons named like the store's own files. Whatever a call makes of them, it must not change
anything outside the directory, lose anything a user registered, crash or hang.

Each trap is planted alone in a fresh copy of one healthy directory before each call; a new trap
or call is one line of TRAPS or CALLS. The calls of one trap run in a child interpreter (this file
run as a program) that announces each call; this side bounds each call's time, kills a child that
hangs and starts the next call in a new one, and checks every call's folder once it returned.
"""

import hashlib
import json
import os
import select
import shutil
import stat
import subprocess
import sys
from typing import Callable, NamedTuple, Sequence

import numpy as np

HANG_BOUND_S = 20
# What the secret file outside holds: no message may quote it.
SECRET = "SECRET-d41d8cd9"
HUGE_BYTES = 2 << 30


# --- what is planted -------------------------------------------------------------------------

def _remove(path):
    if os.path.islink(path) or os.path.isfile(path) or stat.S_ISFIFO(_lmode(path)):
        os.unlink(path)
    elif os.path.isdir(path):
        shutil.rmtree(path)


def _lmode(path):
    try:
        return os.lstat(path).st_mode
    except FileNotFoundError:
        return 0


def link_out(name, target):
    """The entry `name` replaced by a link to `target` in the outside folder."""
    def plant(d, outside):
        _remove(os.path.join(d, name))
        os.symlink(os.path.join(outside, target), os.path.join(d, name))
    return plant


def hard_link_out(name, target):
    def plant(d, outside):
        _remove(os.path.join(d, name))
        os.link(os.path.join(outside, target), os.path.join(d, name))
    return plant


def pipe(name):
    def plant(d, outside):
        _remove(os.path.join(d, name))
        os.mkfifo(os.path.join(d, name))
    return plant


def huge(name):
    """A 2 GiB file that takes no disk, starting with the bytes of the file it replaces."""
    def plant(d, outside):
        path = os.path.join(d, name)
        with open(path, "rb") as f:
            head = f.read(4096)
        with open(path, "wb") as f:
            f.write(head)
            f.truncate(HUGE_BYTES)
    return plant


def tampered(name):
    """Three bytes overwritten, as a bad sector or a careless edit does: here the size of the
    first record, so that the file no longer reads."""
    def plant(d, outside):
        path = os.path.join(d, name)
        data = bytearray(open(path, "rb").read())
        data[8:11] = b"\x7f\x7f\x7f"
        open(path, "wb").write(bytes(data))
    return plant


def constant_vectors(name):
    """Every value of every vector of a dictionary ("DCK", int32 records; per record int32 size,
    mode, count, dimension, then count x dimension float32) set to 1/16: the file still parses,
    but its vectors are neither unit length nor orthogonal."""
    def plant(d, outside):
        path = os.path.join(d, name)
        data = bytearray(open(path, "rb").read())
        assert data[:3] == b"DCK"
        records = int.from_bytes(data[3:7], "little", signed=True)
        pos = 7
        for _ in range(records):
            size, _, count, dim = np.frombuffer(bytes(data[pos:pos + 16]), "<i4")
            data[pos + 16:pos + 16 + 4 * count * dim] = np.full(count * dim, 1 / 16,
                                                                "<f4").tobytes()
            pos += 4 + int(size)
        open(path, "wb").write(bytes(data))
    return plant


def files_of_erin_as(name, listed_as=None):
    """Copies of erin's files under another key name (a person registered by hand), listed in
    the registry under listed_as when given."""
    def plant(d, outside):
        for ext in (".dck", ".mck", ".bmp"):
            shutil.copy(os.path.join(d, "erin" + ext), os.path.join(d, name + ext))
        if listed_as is not None:
            with open(os.path.join(d, "persons.txt"), "a") as f:
                f.write(f"{listed_as} {name}\n")
    return plant


def several(*plants):
    def plant(d, outside):
        for p in plants:
            p(d, outside)
    return plant


def foreign_file(d, outside):
    with open(os.path.join(d, "holiday.jpg"), "w") as f:
        f.write("a user's own file")


class Trap(NamedTuple):
    """plant(directory, outside folder) puts the trap in place. precious: files a user registered;
    whatever a call did, a file of that name and those bytes stays in the directory (lost+found
    counts). store_file: the trap replaces a file of the store itself (registry, threshold, lock),
    so the directory may be refused as a whole; otherwise it still opens with alice and bob after
    every call: one bad file does not take the gallery down."""
    plant: Callable[[str, str], None]
    precious: Sequence[str] = ()
    store_file: bool = False


# Persons alice (1) and bob (2) stay healthy in every trap; erin (3) is the one the traps may
# damage; carol is enrolled by the calls, dave's enrolment fails.
PERSON_FILES = (".dck", ".mck", ".bmp")
TRAPS = {
    "registry_links_out": Trap(link_out("persons.txt", "registry.txt"), store_file=True),
    "registry_is_a_pipe": Trap(pipe("persons.txt"), store_file=True),
    "registry_is_huge": Trap(huge("persons.txt"), store_file=True),
    "threshold_links_out": Trap(link_out("threshold.txt", "secret.txt"), store_file=True),
    "threshold_is_a_pipe": Trap(pipe("threshold.txt"), store_file=True),
    "constraint_list_links_out": Trap(link_out("constraint.list", "secret.txt")),
    "constraint_list_is_a_pipe": Trap(pipe("constraint.list")),
    "constraint_files_link_out": Trap(several(*[link_out(s + e, "victim" + e)
                                                for s in ("cmsm", "cmsm-2")
                                                for e in (".dck", ".dckev", ".mck")])),
    "lock_links_out": Trap(link_out(".msmface.lock", "victim.bin"), store_file=True),
    "lock_is_a_hard_link_out": Trap(hard_link_out(".msmface.lock", "victim.bin"),
                                    store_file=True),
    "lock_is_a_pipe": Trap(pipe(".msmface.lock"), store_file=True),
    "new_persons_files_link_out": Trap(several(*[link_out(s + e, "victim" + e)
                                                 for s in ("carol", "dave")
                                                 for e in PERSON_FILES])),
    "persons_files_link_out": Trap(several(*[link_out("erin" + e, "victim" + e)
                                             for e in PERSON_FILES])),
    "persons_files_are_pipes": Trap(several(*[pipe("erin" + e) for e in PERSON_FILES])),
    "dictionary_is_huge": Trap(huge("erin.dck")),
    "dictionary_three_bytes_tampered": Trap(tampered("erin.dck")),
    "dictionary_vectors_all_one_sixteenth": Trap(constant_vectors("erin.dck")),
    "lost_and_found_links_out": Trap(link_out("lost+found", "folder")),
    "foreign_file": Trap(foreign_file, ["holiday.jpg"]),
    "person_named_like_the_constraint_space": Trap(files_of_erin_as("cmsm-2", listed_as=4),
                                                   ["cmsm-2.dck", "cmsm-2.mck"]),
    "unlisted_persons_files": Trap(files_of_erin_as("dave"), ["dave" + e for e in PERSON_FILES]),
}


# --- what is called --------------------------------------------------------------------------

def _frames(person, seed, count):
    import _msmface_testing
    return _msmface_testing.take(7, person, seed, count, 320, 240)


def _gallery_readers(d):
    import msmface
    g = msmface.Gallery(d)
    return (g.persons, g.orphans, len(g), g.find(1), 2 in g, repr(g), g.threshold,
            g.has_constraint, g.directory)


def _stream(d, method):
    import msmface
    s = msmface.Stream(msmface.Gallery(d), method=method)
    for frame, points in _frames(0, 320, 12):
        s.push(frame, points)
    s.push(_frames(0, 320, 1)[0][0])
    s.reset()


def _engine(d):
    import msmface
    e = msmface.Engine(320, 240)
    e.load(d, [(1, "alice"), (2, "bob"), (3, "erin")])
    e.load_constraint(os.path.join(d, "constraint.list"))
    e.mode = 1
    for frame, points in _frames(0, 320, 8):
        if e.crop(frame, points) is not None:
            e.frame_process(2)
    e.results()


def _detector(model):
    import msmface
    if msmface.HAVE_DETECT:
        msmface.detect.Detector(model)


def planted_entries(d, template):
    """The entries of d that the trap planted or changed (links and pipes included): what a
    healthy directory holds is read by every other test already."""
    out = []
    for entry in sorted(os.listdir(d)):
        path, healthy = os.path.join(d, entry), os.path.join(template, entry)
        # Sizes first: a huge planted file is told apart without reading it.
        same = (stat.S_ISREG(_lmode(path)) and stat.S_ISREG(_lmode(healthy)) and
                os.lstat(path).st_size == os.lstat(healthy).st_size and
                open(path, "rb").read() == open(healthy, "rb").read())
        if not same:
            out.append(entry)
    return out


def _calls(d, template):
    """(name, call()) of every call of the API that takes the directory or a file in it; those
    that take one file are called once per entry the trap planted."""
    import msmface
    calls = [
        ("Gallery and its readers", lambda: _gallery_readers(d)),
        ("Gallery.enrol", lambda: msmface.Gallery(d).enrol(5, "carol", _frames(3, 303, 50))),
        ("Gallery.enrol with too few frames",
         lambda: msmface.Gallery(d).enrol(6, "dave", _frames(4, 304, 3))),
        ("Gallery.remove", lambda: msmface.Gallery(d).remove(3)),
        ("Gallery.rebuild_constraint", lambda: msmface.Gallery(d).rebuild_constraint(12)),
        ("Gallery.recognise", lambda: msmface.Gallery(d).recognise(_frames(0, 310, 12))),
        ("Gallery.recognise cmsm",
         lambda: msmface.Gallery(d).recognise(_frames(0, 310, 12), method="cmsm")),
        ("Gallery.threshold =", lambda: setattr(msmface.Gallery(d), "threshold", 700)),
        ("Gallery.set_point_finder", lambda: msmface.Gallery(d).set_point_finder(None)),
        ("Stream.push", lambda: _stream(d, "msm")),
        ("Stream.push cmsm", lambda: _stream(d, "cmsm")),
        ("Engine.load and load_constraint", lambda: _engine(d)),
    ]
    for entry in planted_entries(d, template):
        path = os.path.join(d, entry)
        calls.append((f"read_image {entry}", lambda p=path: msmface.read_image(p)))
        calls.append((f"Manifest {entry}", lambda p=path: msmface.Manifest(p)))
        calls.append((f"detect.Detector {entry}", lambda p=path: _detector(p)))
    return calls


# --- the two sides ---------------------------------------------------------------------------

def plant_fresh(case, template, outside_template, trap):
    """A fresh copy of the healthy directory (case/out/dictionary) and of the outside folder
    (case/outside), with the trap planted; returns (directory, outside)."""
    d = os.path.join(case, "out", "dictionary")
    outside = os.path.join(case, "outside")
    shutil.rmtree(case, ignore_errors=True)  # left by a child that was killed
    shutil.copytree(template, d, symlinks=True)
    shutil.copytree(outside_template, outside, symlinks=True)
    TRAPS[trap].plant(d, outside)
    return d, outside


def child_main(trap, start, cases, template, outside_template):
    """Runs the calls of one trap from number `start` on, each in its own fresh case folder,
    announcing each on standard output."""
    d, _ = plant_fresh(os.path.join(cases, "calls"), template, outside_template, trap)
    names = [name for name, _ in _calls(d, template)]
    for i in range(start, len(names)):
        d, _ = plant_fresh(os.path.join(cases, str(i)), template, outside_template, trap)
        name, call = _calls(d, template)[i]
        print(json.dumps({"begin": i, "name": name, "count": len(names)}), flush=True)
        try:
            call()
            outcome = "returned"
        except Exception as e:  # refusals are fine: only what they left matters
            outcome = f"{type(e).__name__}: {e}"
        loads = "" if TRAPS[trap].store_file else healthy_persons_load(d)
        print(json.dumps({"end": i, "outcome": outcome, "loads": loads}), flush=True)


def healthy_persons_load(d):
    """"" when a fresh Gallery of the directory lists alice and bob, else what it did."""
    import msmface
    try:
        persons = {(p.id, p.name) for p in msmface.Gallery(d).persons}
    except Exception as e:
        return f"does not open ({type(e).__name__}: {e})"
    return "" if {(1, "alice"), (2, "bob")} <= persons else "opens without alice or bob"


def snapshot(folder):
    """Every entry below folder, not through links and opening only regular files: type and
    mode, link count, link target or size and content hash."""
    out = {}
    for root, dirs, files in os.walk(folder):
        for name in dirs + files:
            path = os.path.join(root, name)
            st = os.lstat(path)
            what = (st.st_mode, st.st_nlink)
            if stat.S_ISLNK(st.st_mode):
                what += (os.readlink(path),)
            elif stat.S_ISREG(st.st_mode):
                what += (st.st_size, hashlib.sha256(open(path, "rb").read()).hexdigest())
            out[os.path.relpath(path, folder)] = what
    return out


def kept_inside(d, wanted, data):
    """Whether a regular file of this name and these bytes is below d (lost+found included),
    not through links."""
    for root, _, files in os.walk(d):
        path = os.path.join(root, wanted)
        if wanted in files and stat.S_ISREG(_lmode(path)) and open(path, "rb").read() == data:
            return True
    return False


def listed(d):
    """The registry's (ID, name) lines, or None when it is not a small regular file."""
    path = os.path.join(d, "persons.txt")
    st = os.lstat(path) if os.path.lexists(path) else None
    if st is None or not stat.S_ISREG(st.st_mode) or st.st_size > (1 << 20):
        return None
    pairs = set()
    for line in open(path, encoding="utf-8", errors="replace"):
        fields = line.split()
        if len(fields) == 2 and not line.startswith("#"):
            pairs.add((fields[0], fields[1]))
    return pairs


def breaches(d, outside, outside_before, template, precious, loads, outcome):
    """What a call broke, as lines."""
    found = []
    after = snapshot(outside)
    for name in sorted(set(outside_before) | set(after)):
        if outside_before.get(name) != after.get(name):
            found.append(f"changed outside the directory: {name}")
    for person in ("alice", "bob"):
        for ext in PERSON_FILES:
            path = os.path.join(d, person + ext)
            same = (stat.S_ISREG(_lmode(path)) and
                    open(path, "rb").read() == open(os.path.join(template, person + ext),
                                                    "rb").read())
            if not same:
                found.append(f"lost or changed {person + ext}")
    pairs = listed(d)
    if pairs is not None and not {("1", "alice"), ("2", "bob")} <= pairs:
        found.append("alice or bob no longer listed")
    for name, data in precious.items():
        if not kept_inside(d, name, data):
            found.append(f"the user's {name} is gone from the directory")
    if loads is not None and loads:
        found.append(f"afterwards the directory {loads}")
    if SECRET in outcome:
        found.append("a message quotes what a file outside holds")
    return found


def run_trap(trap, cases, template, outside_template):
    """Runs every call against the trap; returns the breaches as lines naming trap and call."""
    precious_names = TRAPS[trap].precious
    # As planted, before any call: a hard link counts on the outside file too.
    reference, reference_outside = plant_fresh(os.path.join(cases, "reference"), template,
                                               outside_template, trap)
    precious = {n: open(os.path.join(reference, n), "rb").read() for n in precious_names}
    outside_before = snapshot(reference_outside)
    env = dict(os.environ)
    env["PYTHONPATH"] = os.pathsep.join([os.path.dirname(os.path.abspath(__file__))] +
                                        env.get("PYTHONPATH", "").split(os.pathsep))
    found = []
    start, count = 0, None
    while count is None or start < count:
        # Standard error to a file: a pipe nobody reads would fill and stop the child.
        err_path = os.path.join(cases, f"stderr{start}")
        with open(err_path, "wb") as err_file:
            child = subprocess.Popen([sys.executable, os.path.abspath(__file__), trap, str(start),
                                      cases, template, outside_template],
                                     stdout=subprocess.PIPE, stderr=err_file, env=env)
        current = None
        lines = b""
        while True:
            ready, _, _ = select.select([child.stdout], [], [], HANG_BOUND_S)
            if not ready:
                child.kill()
                child.wait()
                name = current["name"] if current else "(starting)"
                found.append(f"trap {trap}, {name}: hung (killed after {HANG_BOUND_S} s)")
                child.stdout.close()
                start = (current["begin"] if current else start) + 1
                break
            chunk = os.read(child.stdout.fileno(), 65536)
            if not chunk:
                status = child.wait()
                child.stdout.close()
                err = open(err_path, "rb").read().decode(errors="replace")[-2000:]
                if current is not None:
                    found.append(f"trap {trap}, {current['name']}: the interpreter died "
                                 f"(status {status})\n{err}")
                    start = current["begin"] + 1
                elif status != 0:
                    found.append(f"trap {trap}: the child failed (status {status})\n{err}")
                    start = count if count is not None else 1 << 30
                else:
                    start = count
                break
            lines += chunk
            while b"\n" in lines:
                line, lines = lines.split(b"\n", 1)
                if not line.startswith(b"{"):
                    continue  # not ours
                msg = json.loads(line)
                if "begin" in msg:
                    current, count = msg, msg["count"]
                    continue
                case = os.path.join(cases, str(msg["end"]))
                d = os.path.join(case, "out", "dictionary")
                outside = os.path.join(case, "outside")
                loads = None if TRAPS[trap].store_file else msg["loads"]
                for b in breaches(d, outside, outside_before, template, precious, loads,
                                  msg["outcome"] + msg["loads"]):
                    found.append(f"trap {trap}, {current['name']}: {b} ({msg['outcome']})")
                shutil.rmtree(case, ignore_errors=True)
                current = None
        if count is None:
            break
    return found


if __name__ == "__main__":
    child_main(sys.argv[1], int(sys.argv[2]), *sys.argv[3:6])
    sys.exit(0)


# --- the test --------------------------------------------------------------------------------

import pytest  # noqa: E402  (the child side above runs without pytest)


@pytest.fixture(scope="module")
def healthy(tmp_path_factory, synth):
    """The healthy directory (alice, bob, erin and a constraint space) and the outside folder."""
    import msmface
    base = tmp_path_factory.mktemp("traps")
    template = str(base / "template")
    g = msmface.Gallery(template, create=True)
    for k, name in enumerate(["alice", "bob", "erin"]):
        g.enrol(k + 1, name, synth(k, 300 + k, 50))
    g.rebuild_constraint(12)
    g.threshold = 850
    outside = base / "outside"
    (outside / "folder").mkdir(parents=True)
    (outside / "folder" / "kept.txt").write_text("a file in a folder outside")
    (outside / "secret.txt").write_text(f"{SECRET} the first line\nand more\n")
    shutil.copy(os.path.join(template, "persons.txt"), outside / "registry.txt")
    (outside / "victim.bin").write_bytes(b"bytes that are nobody's business")
    for ext in (".dck", ".mck", ".bmp"):
        shutil.copy(os.path.join(template, "erin" + ext), outside / ("victim" + ext))
    shutil.copy(os.path.join(template, "erin.dck"), outside / "victim.dckev")
    return template, str(outside), base


@pytest.mark.parametrize("trap", sorted(TRAPS))
def test_every_call_leaves_the_outside_and_the_registered_persons_alone(healthy, trap):
    pytest.importorskip("_msmface_testing")
    template, outside, base = healthy
    cases = str(base / trap)
    os.makedirs(cases)
    try:
        found = run_trap(trap, cases, template, outside)
    finally:
        shutil.rmtree(cases, ignore_errors=True)
    assert not found, "\n".join(found)
