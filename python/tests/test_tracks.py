"""Many faces at once from Python: TrackRecognition on made-up descriptors (no model needed), the
detector's Tracker and the watch() iterator on videos assembled from the shared real faces
(skipped without the faces or the models)."""

import os

import numpy as np
import pytest

import msmface
from conftest import faces_of, made_up_persons

Kind = msmface.TrackEventKind


@pytest.fixture(scope="module")
def people(tmp_path_factory):
    """A gallery of descriptors of three made-up persons, and a maker of their faces."""
    centres, rng = made_up_persons(3, seed=21)
    g = msmface.Gallery(str(tmp_path_factory.mktemp("tracks") / "g"), create=True,
                        patterns="descriptor")
    for k, name in enumerate(("ann", "ben", "cat")):
        g.enrol(k + 1, name, descriptors=faces_of(centres[k], rng, 20))
    return g, (lambda k: faces_of(centres[k], rng, 1)[0])


def feed(recognition, track, script, face, first_frame=0):
    """Observes one face per entry of script (a person's index, or None for a frame whose face
    could not be used); returns the events of each call."""
    out = []
    for i, who in enumerate(script):
        frame = first_frame + i
        if who is None:
            out.append(recognition.observe_without_face(track, frame, frame / 25))
        else:
            out.append(recognition.observe(track, frame, frame / 25, descriptor=face(who)))
    return out


def identified_at(events):
    """[(call index, name)] of the IDENTIFIED events."""
    return [(i, e.name) for i, call in enumerate(events) for e in call if e.kind == Kind.IDENTIFIED]


def test_a_track_is_named_after_confirm_frames_agreeing_faces_and_never_renamed(people):
    g, face = people
    # Every face of ann ranks her first far above 500: the name comes at exactly the
    # confirm_frames-th face, and frames without a usable face neither count nor break the run.
    for confirm in (1, 3, 5):
        r = msmface.TrackRecognition(g, threshold=500, confirm_frames=confirm)
        events = feed(r, 7, [0] * 8, face)
        assert events[0][0].kind == Kind.STARTED and events[0][0].track == 7
        assert identified_at(events) == [(confirm - 1, "ann")]
        r = msmface.TrackRecognition(g, threshold=500, confirm_frames=confirm)
        events = feed(r, 7, [0, None, None] * confirm, face)
        assert identified_at(events) == [(3 * (confirm - 1), "ann")]
    # By single patterns each face ranks on its own: two faces of ann then ben's. The run of ann
    # is broken by ben's first face, and ben is named at his third, never ann.
    r = msmface.TrackRecognition(g, method="single", threshold=500, confirm_frames=3)
    events = feed(r, 1, [0, 0, 1, 1, 1, 1], face)
    assert identified_at(events) == [(4, "ben")]
    # Once named, a track keeps its person whatever its later faces show; the end names them.
    r = msmface.TrackRecognition(g, method="single", threshold=500, confirm_frames=2)
    events = feed(r, 3, [2, 2] + [0] * 12, face)
    assert identified_at(events) == [(1, "cat")]
    (status,) = r.tracks()
    assert (status.track, status.person, status.name, status.identified) == (3, 3, "cat", True)
    assert (status.first_frame, status.last_frame, status.frames_seen) == (0, 13, 14)
    ended = r.end(3)
    assert (ended.kind, ended.track, ended.person, ended.name) == (Kind.ENDED, 3, 3, "cat")
    assert (ended.frame, ended.frames_seen, ended.faces_used) == (13, 14, 14)
    assert ended.time == pytest.approx(13 / 25)
    assert r.tracks() == []
    # A number used again is a new track: nothing of cat is carried into it.
    events = feed(r, 3, [1, 1, 1], face, first_frame=20)
    assert events[0][0].kind == Kind.STARTED and events[0][0].frame == 20
    assert identified_at(events) == [(1, "ben")]


def test_a_threshold_nobody_passes_names_nobody_and_end_all_ends_every_track(people):
    g, face = people
    # Scores are thousandths: none is above 1000.
    r = msmface.TrackRecognition(g, threshold=1000, confirm_frames=1, max_tracks=3)
    for track, who in ((5, 0), (2, 1), (9, 2)):
        assert identified_at(feed(r, track, [who, None, who], face)) == []
    assert [s.track for s in r.tracks()] == [2, 5, 9]
    assert all(not s.identified and s.name == "" and 0 < s.score <= 1000 for s in r.tracks())
    ended = r.end_all()
    assert [e.track for e in ended] == [2, 5, 9]
    for e in ended:
        assert (e.kind, e.person, e.name) == (Kind.ENDED, 0, "")
        assert (e.frames_seen, e.faces_used) == (3, 2)
        assert 0 < e.score <= 1000  # how near it came
    assert r.tracks() == [] and r.end_all() == []


def test_bad_input_raises_one_line_and_changes_no_track(people):
    g, face = people
    r = msmface.TrackRecognition(g, threshold=500, max_tracks=2)
    feed(r, 0, [0, 0], face, first_frame=10)
    before = [(s.track, s.last_frame, s.last_time, s.frames_seen, s.faces_used, s.score)
              for s in r.tracks()]
    d = face(0)
    bad_calls = [
        (lambda: r.observe(-1, 20, 1.0, descriptor=d), "expected a track number of 0 or more"),
        (lambda: r.observe(0, 12, 0.1, descriptor=d), "before the track's last"),
        (lambda: r.observe(0, 11, 1.0, descriptor=d), "expected a frame after the track's last, 11"),
        (lambda: r.observe(0, 12, float("nan"), descriptor=d), "not a finite number"),
        (lambda: r.observe(0, 12, "soon", descriptor=d), "time: expected a number, got str"),
        (lambda: r.observe("0", 12, 1.0, descriptor=d), "track: expected an integer"),
        (lambda: r.observe(True, 12, 1.0, descriptor=d), "track: expected an integer"),
        (lambda: r.observe(0, 12.5, 1.0, descriptor=d), "frame: expected an integer"),
        (lambda: r.observe(0, 12, 1.0, descriptor=d[:127]),
         "descriptor: expected an array of shape (128,), got (127,)"),
        (lambda: r.observe(0, 12, 1.0, descriptor=np.zeros((2, 128))), "got (2, 128)"),
        (lambda: r.observe(0, 12, 1.0, descriptor=np.zeros(128)), "every value is 0"),
        (lambda: r.observe(3, 12, 1.0, descriptor=np.zeros(128)), "every value is 0"),
        (lambda: r.observe(0, 12, 1.0), "expected an image with its points, or a descriptor"),
        (lambda: r.observe(0, 12, 1.0, descriptor=d, points=np.zeros((14, 2))),
         "a descriptor alone"),
        # A seed pattern's face given to a gallery of descriptors.
        (lambda: r.observe(0, 12, 1.0, image=np.zeros((60, 80), np.uint8),
                           points=np.zeros((14, 2))),
         "the gallery holds descriptor patterns, this call gives seed patterns"),
        (lambda: r.observe(0, 12, 1.0, image=np.zeros((60, 80), np.float32),
                           points=np.zeros((14, 2))), "image: expected a uint8 array"),
        (lambda: r.observe_without_face(0, 10, 1.0), "expected a frame after"),
        (lambda: r.end(4), "track 4: no such live track"),
        (lambda: r.end(-2), "track -2"),
    ]
    for call, words in bad_calls:
        with pytest.raises(ValueError) as raised:
            call()
        message = str(raised.value)
        assert words in message and "\n" not in message, message
        assert [(s.track, s.last_frame, s.last_time, s.frames_seen, s.faces_used, s.score)
                for s in r.tracks()] == before
    # A second live track fits; a third is refused, naming the bound, and starts nothing.
    feed(r, 1, [1], face, first_frame=12)
    with pytest.raises(ValueError, match="maxTracks"):
        r.observe(2, 13, 1.0, descriptor=d)
    assert [s.track for s in r.tracks()] == [0, 1]
    # Options out of their ranges are named as Python spells them.
    for kwargs, words in (({"confirm_frames": 0}, "confirm_frames: expected 1 to 1000, got 0"),
                          ({"max_tracks": 10001}, "max_tracks: expected 1 to 10000, got 10001"),
                          ({"method": "fast"}, 'method: expected "single"'),
                          ({"threshold": "high"}, "threshold: expected an integer")):
        with pytest.raises(ValueError, match=words):
            msmface.TrackRecognition(g, **kwargs)
    # The Cmsm methods need the gallery's constraint space.
    with pytest.raises(ValueError):
        msmface.TrackRecognition(g, method="cmsm")


def test_a_seed_gallery_takes_frames_with_their_points(two_person_gallery_dir, synth):
    g = msmface.Gallery(two_person_gallery_dir)
    r = msmface.TrackRecognition(g, confirm_frames=3, threshold=900)
    take = synth(1, 301, 14)
    events = []
    for i, (frame, points) in enumerate(take):
        events.append(r.observe(4, i, i / 25, image=frame, points=points))
    # The input needs a few faces before its subspace points anywhere; then bob, above 900, is
    # named once at the third face that agrees.
    named = [(i, e) for i, call in enumerate(events) for e in call if e.kind == Kind.IDENTIFIED]
    assert [(e.person, e.name) for _, e in named] == [(2, "bob")]
    assert named[0][1].score > 900 and 2 <= named[0][0] < len(take)
    # Colour frames in RGB order are taken too; a descriptor is the other kind here.
    colour = np.repeat(take[0][0][:, :, None], 3, axis=2)
    r.observe(4, 100, 5.0, image=colour, points=take[0][1], format="rgb")
    with pytest.raises(ValueError, match="seed"):
        r.observe(4, 101, 5.0, descriptor=np.ones(128, np.float32))
    with pytest.raises(ValueError, match="points"):
        r.observe(4, 101, 5.0, image=take[1][0], points=np.zeros((3, 2)))
    assert r.tracks()[0].last_frame == 100


# --- Videos assembled from the shared real faces ---------------------------------------------

CUT, FRAMES = 24, 40  # a hard cut from one group to another at frame 24 of 40


def clear_faces(manifest, detector, count):
    """(identity, row) of the first frame of each of `count` persons whose face is large, found
    alone by the detector and fitted where the manifest's points are."""
    chosen = []
    for who in manifest.identities():
        for row in (r for r in manifest.rows if r["identity"] == who):
            p, image = row["points"], manifest._image(row["image"])
            eyes = np.linalg.norm(p[0] - p[1])
            if eyes < 35 or image.shape[0] > 230:
                continue
            found = detector.detect(image)
            if len(found) == 1 and found[0].score > 0.5 and \
                    np.mean(np.linalg.norm(found[0].points - p, axis=1)) < 0.1 * eyes:
                chosen.append((who, row))
                break
        if len(chosen) == count:
            return chosen
    pytest.skip("too few clear faces in the shared folder")


def cut_out(image, points):
    """The face and a margin (at most 150 x 170), and where the eyes' midpoint lies in it."""
    ex, ey = (points[0] + points[1]) / 2
    h, w = image.shape
    cw, ch = min(w, 150), min(h, 170)
    left = int(np.clip(int(ex) - cw // 2, 0, w - cw))
    top = int(np.clip(int(ey) - ch // 3, 0, h - ch))
    return image[top:top + ch, left:left + cw], (ex - left, ey - top)


def compose(pictures, shown, count, backdrop):
    """640 x 480 frames with the persons moving a few pixels about their places; shown holds
    (person, first frame, last frame, left, top). Returns the frames and, per frame, where each
    shown person's eyes are."""
    frames, eyes = [], []
    for t in range(count):
        frame = np.full((480, 640), backdrop(t), np.uint8)
        placed = {}
        for k, first, last, left, top in shown:
            if first <= t <= last:
                picture, (ex, ey) = pictures[k]
                x = int(round(left + 6 * np.sin(0.3 * t + k)))
                y = int(round(top + 4 * np.cos(0.2 * t + k)))
                frame[y:y + picture.shape[0], x:x + picture.shape[1]] = picture
                placed[k] = (x + ex, y + ey)
        frames.append(frame)
        eyes.append(placed)
    return frames, eyes


@pytest.fixture(scope="module")
def stage(shared_faces, network, tmp_path_factory):
    """Three persons side by side (the third entering at frame 4), a hard cut at CUT to three
    others on a lighter backdrop (the last entering two frames later), and a gallery of
    descriptors enrolled from the other videos of five of the six and of one more person who is
    never shown. Person 5 is shown but not enrolled: nobody's name may land on them."""
    detector, descriptor = network
    cast = clear_faces(shared_faces, detector, 7)
    pictures = [cut_out(shared_faces._image(row["image"]), row["points"]) for _, row in cast]
    shown = [(0, 0, CUT - 1, 30, 150), (1, 0, CUT - 1, 245, 140), (2, 4, CUT - 1, 460, 160),
             (3, CUT, FRAMES - 1, 60, 140), (4, CUT, FRAMES - 1, 400, 150),
             (5, CUT + 2, FRAMES - 1, 230, 290)]
    frames, eyes = compose(pictures, shown, FRAMES, lambda t: 96 if t < CUT else 170)
    g = msmface.Gallery(str(tmp_path_factory.mktemp("stage") / "g"), create=True,
                        patterns="descriptor")
    for k, (who, row) in enumerate(cast):
        if k == 5:
            continue
        described = []
        for r in shared_faces.rows:
            if r["identity"] == who and r["video"] != row["video"]:
                image = shared_faces._image(r["image"])
                found = detector.detect(image)
                try:
                    described.append(descriptor.compute(image, found[0]))
                except (IndexError, ValueError):
                    pass  # no face, or one too small to describe
        g.enrol(k + 1, who, descriptors=np.vstack(described))
    return {"detector": detector, "gallery": g, "frames": frames, "eyes": eyes,
            "names": [who for who, _ in cast], "shown": shown}


def under(box, eyes):
    """The placed persons whose eyes lie inside box."""
    left, top, width, height = box
    return [k for k, (x, y) in eyes.items() if left <= x < left + width and top <= y < top + height]


def check_watched(steps, stage):
    """What every watch of the stage must show; returns {track: person} and the names given."""
    names, eyes = stage["names"], stage["eyes"]
    person_of, named = {}, {}
    assert [s.index for s in steps] == list(range(FRAMES + 1))
    assert [s.finished for s in steps] == [False] * FRAMES + [True]
    for step in steps[:-1]:
        t = step.index
        assert step.cut == (t == CUT), t
        for face in step.tracks:
            (k,) = under(tuple(face.box), eyes[t])  # one person under each track's box
            assert person_of.setdefault(face.track, k) == k, f"track {face.track} changed person"
            if face.identified:
                assert face.name == names[k], f"frame {t}: {names[k]} shown as {face.name}"
        for e in step.events:
            if e.kind == Kind.IDENTIFIED:
                assert e.frame == t and e.name == names[person_of[e.track]]
                assert named.setdefault(e.track, e.name) == e.name
            if e.kind == Kind.ENDED and t == CUT:
                assert person_of[e.track] in (0, 1, 2)
        if t == CUT:
            ended = {e.track for e in step.events if e.kind == Kind.ENDED}
            assert ended == {tr for tr, k in person_of.items() if k in (0, 1, 2)}
            assert all(person_of[f.track] in (3, 4) for f in step.tracks)
    return person_of, named


def test_watch_names_each_person_on_their_own_track_and_ends_tracks_at_the_cut(stage):
    steps = list(msmface.detect.watch(stage["frames"], stage["gallery"],
                                      detector=stage["detector"], threads=1))
    person_of, named = check_watched(steps, stage)
    # One track per person shown; every enrolled person shown is named on it, the stranger never.
    assert sorted(person_of.values()) == [0, 1, 2, 3, 4, 5]
    track_of = {k: tr for tr, k in person_of.items()}
    assert named == {track_of[k]: stage["names"][k] for k in (0, 1, 2, 3, 4)}
    # Tracks after the cut have new numbers; the end ends the second group, naming whom it named.
    assert min(track_of[k] for k in (3, 4, 5)) > max(track_of[k] for k in (0, 1, 2))
    last = steps[-1]
    assert last.tracks == [] and last.frame is None and last.time == pytest.approx(39 / 25)
    assert {e.track: e.name for e in last.events} == {
        track_of[3]: stage["names"][3], track_of[4]: stage["names"][4], track_of[5]: ""}
    assert all(e.kind == Kind.ENDED for e in last.events)
    # Times come from the rate given.
    assert [s.time for s in steps[:-1]] == pytest.approx([t / 25 for t in range(FRAMES)])


def test_the_tracker_follows_each_face_and_refuses_bad_frames(stage, gil_probe):
    tracker = msmface.detect.Tracker(stage["detector"])
    frames, eyes = stage["frames"], stage["eyes"]
    TrackerKind = msmface.detect.TrackerEventKind
    person_of, started, ended = {}, {}, {}
    for t, frame in enumerate(frames):
        if t == 10:
            # A bad frame in between is refused and neither counted nor changes a track.
            live = tracker.live_tracks
            for bad, words in ((frame.astype(np.float32), "frame: expected a uint8 array"),
                               (frame[:1], "at least 2 x 2"), ([[1, 2], [3, 4]], "numpy array")):
                with pytest.raises(ValueError, match=words):
                    tracker.update(bad)
            assert tracker.live_tracks == live
        step = tracker.update(frame)
        assert step.index == t and step.cut == (t == CUT)
        for face in step.faces:
            (k,) = under(tuple(face.face.box), eyes[t])
            assert person_of.setdefault(face.track, k) == k
            assert face.face.points.shape == (14, 2) and face.face.landmarks.shape == (68, 2)
        for e in step.events:
            assert e.frame == t
            (started if e.kind == TrackerKind.STARTED else ended)[e.track] = e
    assert {tr for tr, e in ended.items()} == {tr for tr, k in person_of.items() if k < 3}
    assert all(e.frame == CUT and e.last_frame == CUT - 1 for e in ended.values())
    finished = tracker.finish()
    assert [e.track for e in finished] == sorted(tr for tr, k in person_of.items() if k >= 3)
    assert all(e.kind == TrackerKind.ENDED and e.frames_seen > 0 for e in finished)
    assert tracker.live_tracks == 0 and len(started) == 6
    # A frame's search runs without the GIL: other Python threads go on meanwhile.
    assert gil_probe(lambda: tracker.update(frames[0]))
    for kwargs, words in (({"max_faces": 0}, "max_faces: expected 1 to 64, got 0"),
                          ({"detect_every": 1001}, "detect_every: expected 1 to 1000"),
                          ({"keep_unseen": -1}, "keep_unseen: expected 0 to 1000"),
                          ({"cut_threshold": "high"}, "cut_threshold: expected a number"),
                          ({"min_face_side": 1.5}, "min_face_side: expected an integer")):
        with pytest.raises(ValueError, match=words):
            msmface.detect.Tracker(stage["detector"], **kwargs)


def test_a_video_file_is_watched_with_its_own_times(stage, tmp_path):
    testing = pytest.importorskip("_msmface_testing")
    if not msmface.HAVE_VIDEO or not hasattr(testing, "write_video"):
        pytest.skip("built without OpenCV's video reading")
    path = str(tmp_path / "stage.avi")
    testing.write_video(path, [np.repeat(f[:, :, None], 3, axis=2) for f in stage["frames"]], 10.0)
    steps = list(msmface.detect.watch(path, stage["gallery"], detector=stage["detector"],
                                      threads=1))
    # The compressed frames are not the originals to the pixel: the same persons, tracks and cut.
    person_of, named = check_watched(steps, stage)
    assert sorted(set(person_of.values())) == [0, 1, 2, 3, 4, 5]
    assert sorted(named.values()) == sorted(stage["names"][k] for k in range(5))
    assert [s.time for s in steps[:-1]] == pytest.approx([t / 10 for t in range(FRAMES)])
    with pytest.raises(ValueError, match="rate: a video file's times come from its own"):
        msmface.detect.watch(path, stage["gallery"], detector=stage["detector"], rate=30)
    notes = tmp_path / "notes.avi"
    notes.write_text("these are notes, not a video")
    with pytest.raises(OSError, match="notes.avi: not a video that can be decoded"):
        msmface.detect.watch(str(notes), stage["gallery"], detector=stage["detector"])


def test_watch_refuses_bad_input_in_one_line_and_breaks_tracks_at_a_time_going_back(stage,
                                                                                  gil_probe):
    g, detector, frames = stage["gallery"], stage["detector"], stage["frames"][:8]
    for kwargs, words in (({"confirm_frames": 0}, "confirm_frames: expected 1 to 1000, got 0"),
                          ({"threads": 17}, "threads: expected 0 to 16, got 17"),
                          ({"rate": 0}, "rate: expected a positive number"),
                          ({"rate": float("nan")}, "rate: expected a positive number"),
                          ({"format": "cmyk"}, 'format: expected "bgr" or "rgb", got \'cmyk\'')):
        with pytest.raises(ValueError, match=words):
            msmface.detect.watch(frames, g, detector=detector, **kwargs)
    with pytest.raises(TypeError):
        msmface.detect.watch(frames, g, detector=detector, colour="bgr")
    # A bad frame is reported by its number after the good ones before it were watched.
    broken = frames[:3] + [frames[3].astype(np.int16)] + frames[4:]
    steps = msmface.detect.watch(broken, g, detector=detector, threads=1)
    assert [next(steps).index for _ in range(3)] == [0, 1, 2]
    with pytest.raises(ValueError, match="^frame 3: frame: expected a uint8 array"):
        next(steps)
    with pytest.raises(ValueError, match=r"source\[1\]: expected a frame array or a \(frame, "):
        list(msmface.detect.watch([frames[0], "frame"], g, detector=detector, threads=1))
    # Times given with the frames: going back breaks the video as a cut does, and a time that is
    # not a number is refused.
    times = [0.0, 0.04, 0.08, 0.12, 0.02, 0.06, 0.10, 0.14]
    steps = list(msmface.detect.watch(list(zip(frames, times)), g, detector=detector, threads=1))
    before = {f.track for f in steps[3].tracks}
    assert len(before) == 2 and not steps[3].cut and steps[4].cut
    assert {e.track for e in steps[4].events if e.kind == Kind.ENDED} == before
    assert not before & {f.track for f in steps[4].tracks}
    assert [s.time for s in steps[:-1]] == pytest.approx(times)
    with pytest.raises(ValueError, match="^frame 0: time: expected a number, got str"):
        next(msmface.detect.watch([(frames[0], "noon")], g, detector=detector))
    watcher = msmface.detect.Watcher(detector, g, threads=1)
    with pytest.raises(ValueError, match="frame: expected a uint8 array of shape"):
        watcher.update(np.zeros((4, 4, 2), np.uint8), 0.0)
    first = watcher.update(frames[0], 0.0)
    assert gil_probe(lambda: watcher.update(frames[1], 0.04))
    assert first.index == 0 and len(first.faces) == 2
    assert [t.track for t in watcher.tracks] == [f.track for f in first.faces]
    assert all(t.first_frame == 0 and t.last_frame == 1 for t in watcher.tracks)
    assert [e.track for e in watcher.finish()] == [f.track for f in first.faces]
    assert watcher.tracks == []


def test_watch_names_the_faces_of_a_seed_gallery_side_by_side(synth, tmp_path):
    if not msmface.HAVE_DETECT:
        pytest.skip("built without the detector")
    try:
        detector = msmface.detect.Detector()
    except (ValueError, OSError) as e:
        pytest.skip(f"no landmark model: {e}")
    # Enrolled with the points the detector finds, as the watcher will find them.
    g = msmface.Gallery(str(tmp_path / "seed"), create=True)
    g.set_point_finder(msmface.detect.Follower(detector, redetect_every=1))
    g.enrol(1, "alice", [f for f, _ in synth(0, 100, 50)])
    g.enrol(2, "bob", [f for f, _ in synth(1, 101, 50)])
    # Fresh takes of alice (left half) and bob (right half) in one frame.
    frames = [np.hstack([a, b]) for (a, _), (b, _) in zip(synth(0, 302, 30), synth(1, 301, 30))]
    side_of, named = {}, {}
    for step in msmface.detect.watch(frames, g, detector=detector, threads=1):
        for face in step.tracks:
            side = "alice" if face.box.left + face.box.width / 2 < 320 else "bob"
            assert side_of.setdefault(face.track, side) == side
            assert face.name in ("", side)
        for e in step.events:
            if e.kind == Kind.IDENTIFIED:
                named[e.track] = e.name
    assert sorted(side_of.values()) == ["alice", "bob"]
    # Bob's fresh take scores far above the stored threshold (850); alice's take may not, but
    # nobody's name ever lands on the other's track.
    assert "bob" in named.values()
    assert all(name == side_of[track] for track, name in named.items())
