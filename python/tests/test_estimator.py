"""MSMClassifier: scikit-learn's conventions, on synthetic persons and on the shared faces."""

import numpy as np
import pytest

import msmface


@pytest.fixture(scope="module")
def synthetic_sets(synth):
    # Two takes per person: the first to fit, the second to predict.
    fit = [synth(p, 400 + p, 20) for p in range(3)]
    probe = [synth(p, 500 + p, 10) for p in range(3)]
    return fit, probe


def test_params_follow_the_conventions():
    c = msmface.MSMClassifier(method="cmsm", constraint_dimension=30)
    params = c.get_params()
    assert params == {"method": "cmsm", "enrol_frames": 60, "probe_frames": 15, "jitter": 1.5,
                      "constraint_dimension": 30, "seed": 0, "patterns": "seed"}
    assert c.set_params(method="single", seed=3) is c
    assert (c.method, c.seed) == ("single", 3)
    assert type(c)(**c.get_params()).get_params() == c.get_params()
    with pytest.raises(ValueError, match="Invalid parameter 'kernel'"):
        c.set_params(kernel="rbf")
    with pytest.raises(RuntimeError, match="not fitted"):
        c.predict([[np.zeros((8, 8), np.uint8)]])


@pytest.mark.parametrize("method", ["single", "msm", "cmsm"])
def test_fit_and_predict_synthetic_persons(synthetic_sets, method):
    fit, probe = synthetic_sets
    labels = np.array(["ann", "ben", "cat"])
    c = msmface.MSMClassifier(method=method, constraint_dimension=20).fit(fit, labels)
    assert list(c.classes_) == ["ann", "ben", "cat"]
    scores = c.decision_function(probe)
    assert scores.shape == (3, 3) and (scores >= 0).all() and (scores <= 1000).all()
    predicted = c.predict(probe)
    np.testing.assert_array_equal(predicted, c.classes_[scores.argmax(axis=1)])
    assert c.score(probe, labels) == np.mean(predicted == labels)
    if method != "cmsm":
        # Three persons span too little for a constraint space to separate them; the other
        # methods tell these synthetic persons apart.
        np.testing.assert_array_equal(predicted, labels)


def test_bad_input_is_refused(synthetic_sets):
    fit, _ = synthetic_sets
    with pytest.raises(ValueError, match=r"len\(X\)=3, len\(y\)=2"):
        msmface.MSMClassifier().fit(fit, [0, 1])
    with pytest.raises(ValueError, match="method: expected one of single, msm, cmsm"):
        msmface.MSMClassifier(method="pca").fit(fit, [0, 1, 2])
    with pytest.raises(ValueError, match=r"X\[1\]: a frame set holds at least one frame"):
        msmface.MSMClassifier().fit([fit[0], []], [0, 1])


def video_sets(faces, identities):
    """One frame set per video of each identity: (sets, labels, video index within identity)."""
    sets, labels, order = [], [], []
    for who in identities:
        for k, v in enumerate(faces.videos(who)):
            sets.append(faces.samples(who, videos=[v]))
            labels.append(who)
            order.append(k)
    return sets, np.array(labels), np.array(order)


def test_on_the_shared_faces_held_out_videos(shared_faces):
    identities = [w for w in shared_faces.identities() if len(shared_faces.videos(w)) >= 3][:10]
    sets, labels, order = video_sets(shared_faces, identities)
    last = np.array([order[i] == max(order[labels == labels[i]]) for i in range(len(labels))])
    train = [s for s, held in zip(sets, last) if not held]
    test = [s for s, held in zip(sets, last) if held]
    c = msmface.MSMClassifier(method="msm").fit(train, labels[~last])
    # The enrolled videos themselves are recognised; held-out videos well above chance (10 %;
    # measured: 80 % by each method).
    assert c.score(train, labels[~last]) >= 0.9
    assert c.score(test, labels[last]) >= 0.5


def test_scikit_learn_model_selection_drives_it(shared_faces):
    model_selection = pytest.importorskip("sklearn.model_selection")
    base = pytest.importorskip("sklearn.base")
    identities = [w for w in shared_faces.identities() if len(shared_faces.videos(w)) >= 3][:4]
    sets, labels, _ = video_sets(shared_faces, identities)
    c = msmface.MSMClassifier()
    clone = base.clone(c)
    assert clone.get_params() == c.get_params() and clone is not c
    assert base.is_classifier(c)
    cv = model_selection.StratifiedKFold(n_splits=3)
    folds = list(cv.split(sets, labels))

    def own_class_score(estimator, X, y):
        """Mean score of each set against its own class: unlike the accuracy (the same for both
        methods on these folds), it differs between the methods."""
        scores = estimator.decision_function(X)
        return float(np.mean(scores[np.arange(len(y)), np.searchsorted(estimator.classes_, y)]))

    # Each fold by hand: what the search and the cross-validation must report.
    by_hand = {}
    for method in ("single", "msm"):
        for f, (train, test) in enumerate(folds):
            fitted = msmface.MSMClassifier(method=method).fit([sets[i] for i in train],
                                                              labels[train])
            test_sets = [sets[i] for i in test]
            by_hand[method, f] = (own_class_score(fitted, test_sets, labels[test]),
                                  fitted.score(test_sets, labels[test]))
    own = {m: [by_hand[m, f][0] for f in range(3)] for m in ("single", "msm")}
    assert own["single"] != own["msm"], own  # else a search that ignored the method would pass

    search = model_selection.GridSearchCV(c, {"method": ["single", "msm"]}, cv=cv,
                                          scoring=own_class_score)
    search.fit(sets, labels)
    results = search.cv_results_
    for k, method in enumerate(results["param_method"]):
        assert [results[f"split{f}_test_score"][k] for f in range(3)] == own[method], method
    means = {m: float(np.mean(v)) for m, v in own.items()}
    best = max(means, key=means.get)  # the first of equals, as the search takes
    assert search.best_params_ == {"method": best}
    assert search.best_score_ == pytest.approx(means[best], abs=1e-9)
    # Refitted on every set with the best method.
    np.testing.assert_array_equal(
        search.best_estimator_.decision_function(sets),
        msmface.MSMClassifier(method=best).fit(sets, labels).decision_function(sets))
    # The default scoring is the accuracy of the default method.
    scores = model_selection.cross_val_score(msmface.MSMClassifier(), sets, labels, cv=cv)
    assert list(scores) == [by_hand["msm", f][1] for f in range(3)]


@pytest.mark.skipif(not msmface.HAVE_DETECT, reason="built without the detector")
def test_frame_sets_without_points_go_through_the_detector(shared_faces):
    identities = [w for w in shared_faces.identities() if len(shared_faces.videos(w)) >= 3][:4]
    sets, labels, order = video_sets(shared_faces, identities)
    frames_only = [[frame for frame, _ in s] for s in sets]
    last = np.array([order[i] == max(order[labels == labels[i]]) for i in range(len(labels))])
    train = [s for s, held in zip(frames_only, last) if not held]
    test = [s for s, held in zip(frames_only, last) if held]
    c = msmface.MSMClassifier().fit(train, labels[~last])
    scores = c.decision_function(test + [[np.full((120, 160), 90, np.uint8)]])
    assert scores.shape == (5, 4) and not scores[4].any()  # a set without any face scores 0
    # Measured: all four held-out videos right.
    assert (c.predict(test) == labels[last]).sum() >= 3
