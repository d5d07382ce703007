"""msmface.Gallery and msmface.Stream through NumPy arrays: the round trip, the errors, and
streams on several threads."""

import gc
import os
import re
import shutil
import threading

import numpy as np
import pytest

import msmface


@pytest.fixture
def gallery_dir(tmp_path, two_person_gallery_dir):
    d = str(tmp_path / "faces")
    shutil.copytree(two_person_gallery_dir, d)
    return d


def ids(persons):
    return [(p.id, p.name) for p in persons]


def test_enrol_recognise_remove_and_reopen(tmp_path, synth):
    d = str(tmp_path / "new" / "faces")
    g = msmface.Gallery(d, create=True)
    assert g.persons == [] and len(g) == 0 and g.threshold == 850
    g.enrol(1, "alice", synth(0, 100, 50))
    g.enrol(2, "bob", synth(1, 101, 50))
    assert ids(g.persons) == [(1, "alice"), (2, "bob")]
    assert 2 in g and 3 not in g and g.find(2).name == "bob" and g.find(3) is None

    probe = synth(0, 200, 15)
    r = g.recognise(probe)
    assert r.frames_used == 15 and len(r) == 2
    assert [m.id for m in r.matches] == [1, 2] and r.best.name == "alice"
    assert r.matches[0].score > r.matches[1].score
    # Identified only strictly above the threshold: alice's 672 is below the default 850.
    assert r.threshold == 850 and r.best.score < 850 and r.identified is None
    best = r.best.score
    assert g.recognise(probe, threshold=best - 1).identified.id == 1
    assert g.recognise(probe, threshold=best).identified is None
    scores = r.scores()

    reopened = msmface.Gallery(d)
    assert ids(reopened.persons) == ids(g.persons)
    assert reopened.recognise(probe).scores() == scores

    g.remove(2)
    assert ids(g.persons) == [(1, "alice")]
    assert not [f for f in os.listdir(d) if f.startswith("bob")]
    assert ids(msmface.Gallery(d).persons) == [(1, "alice")]
    assert [m.id for m in g.recognise(probe).matches] == [1]


def test_every_bad_request_raises_with_the_librarys_message_and_changes_nothing(gallery_dir,
                                                                                synth):
    g = msmface.Gallery(gallery_dir)
    before = sorted(os.listdir(gallery_dir))
    frames = synth(2, 102, 50)
    # The argument's value and what is wrong with it (the program puts its flag names in front).
    with pytest.raises(ValueError, match=r'\b1: the ID number is taken by "alice"$'):
        g.enrol(1, "carol", frames)
    with pytest.raises(ValueError, match=r"\balice: the key name is taken by ID 1$"):
        g.enrol(3, "alice", frames)
    with pytest.raises(ValueError, match=r'"\.\./carol": expected 1 to 64 letters, digits, '):
        g.enrol(3, "../carol", frames)
    with pytest.raises(ValueError, match=r"frames\[1\]: expected a frame array or a \(frame, "
                                         r"points\) pair, got str"):
        g.enrol(3, "carol", [frames[0], "x"])
    with pytest.raises(ValueError, match=r"frames\[0\] points: expected an array of shape"):
        g.enrol(3, "carol", [(frames[0][0], np.zeros(3))])
    with pytest.raises(ValueError, match=r"frames\[0\]: expected a uint8 array"):
        g.enrol(3, "carol", [(frames[0][0].astype(np.float32), frames[0][1])])
    with pytest.raises(ValueError, match=r"\b99: no person with this ID number in " +
                       re.escape(gallery_dir) + "$"):
        g.remove(99)
    with pytest.raises(ValueError, match='method: expected "single", "msm", "cmsm" or '
                                         '"cmsm_first_space", got "pca"'):
        g.recognise(frames[:3], method="pca")
    with pytest.raises(ValueError, match="^threshold 1001: expected 0 to 1000$"):
        g.threshold = 1001
    assert ids(g.persons) == [(1, "alice"), (2, "bob")]
    assert sorted(os.listdir(gallery_dir)) == before
    # A directory that is not there is a wrong argument, not a failing file.
    missing = os.path.join(gallery_dir, "missing")
    with pytest.raises(ValueError, match="^" + re.escape(missing) +
                       ": the dictionary directory does not exist"):
        msmface.Gallery(missing)


def test_threshold_and_constraint_persist(gallery_dir, synth):
    g = msmface.Gallery(gallery_dir)
    g.threshold = 420
    probe = synth(1, 201, 15)
    assert g.recognise(probe).threshold == 420
    assert g.recognise(probe, threshold=999).identified is None
    assert not g.has_constraint
    g.rebuild_constraint(20)
    reopened = msmface.Gallery(gallery_dir)
    assert reopened.threshold == 420 and reopened.has_constraint
    for method in ("single", msmface.Method.MSM, 4):
        r = reopened.recognise(probe, method=method)
        assert r.best.id == 2, method


def test_a_stream_recognises_frame_by_frame_and_resets(gallery_dir, synth):
    g = msmface.Gallery(gallery_dir)
    s = msmface.Stream(g, refresh_time=2)
    take = synth(1, 202, 12)
    states = [s.push(f, p) for f, p in take]
    assert all(st.face for st in states)
    assert [st.frames for st in states[:3]] == [1, 2, 3]
    assert states[-1].ranking.best.id == 2 and states[-1].ranking.frames_used > 0
    faceless = s.push(take[0][0])  # no points and no finder: a frame without a face
    assert not faceless.face
    s.reset()
    assert s.push(*take[0]).frames == 1
    # The stream keeps its gallery alive when the caller lets go of it.
    s2 = msmface.Stream(msmface.Gallery(gallery_dir))
    gc.collect()
    assert s2.push(*take[0]).face


def test_two_streams_on_two_threads_give_what_each_gives_alone(gallery_dir, synth, gil_probe):
    g = msmface.Gallery(gallery_dir)
    takes = [synth(0, 210, 20), synth(1, 211, 20)]

    def run(take, out, step=None):
        s = msmface.Stream(g)
        for f, p in take:
            if step is not None:
                step.wait(60)  # in step with the other thread: their frames overlap
            st = s.push(f, p)
            out.append(st.ranking.scores())

    alone = [[], []]
    for k in range(2):
        run(takes[k], alone[k])
    together = [[], []]
    step = threading.Barrier(2)
    threads = [threading.Thread(target=run, args=(takes[k], together[k], step))
               for k in range(2)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert together == alone
    assert max(alone[0][-1], key=alone[0][-1].get) == 1
    assert max(alone[1][-1], key=alone[1][-1].get) == 2

    # The frames of one stream run while the other thread runs Python code.
    s = msmface.Stream(g)
    assert gil_probe(lambda: [s.push(f, p) for f, p in takes[0]])


def test_enrolment_and_recognition_release_the_gil(tmp_path, synth, gil_probe):
    g = msmface.Gallery(str(tmp_path / "faces"), create=True)
    frames = synth(0, 220, 50)
    assert gil_probe(lambda: g.enrol(1, "alice", frames))
    assert gil_probe(lambda: g.recognise(frames[:20]))
