#!/usr/bin/env python3
"""What makes the subspace methods pay over face descriptors, measured on a descriptor table.

Reads the table that descriptor_table writes (one descriptor per manifest frame) and evaluates,
with the split of `msmface eval` (a person is enrolled from all but the last video and probed
with the last), the comparison of one mean descriptor per person by cosine beside MSM and CMSM
over descriptors, with and without centring, and prints one row per setting: rank-1, EER and
TAR at 1 % FAR, and the probe count. Needs numpy.

usage: descriptor_study.py <table.csv> [--section NAME ...] [--splits N] [--rotations N]
                           [--scores FILE]

Sections: msm (basis counts and distNum), centring (by the gallery's mean), halves (the mean
from other persons), cmsm (constraint dimensions), one_photo, small (galleries of four from one
photo each), decide (the candidates with bootstrap intervals), scores (distributions). The table
comes from `descriptor_table <manifest.csv> <table.csv>`; run with Debian's python3-numpy.

Scores are in thousandths as the engine gives them (truncated); rank-1 counts a tie against the
true person, EER and the 1 % FAR threshold are found over whole thresholds -1 .. 1000, as eval
computes its figures.
"""

import argparse
import csv
import sys

import numpy as np

DIM = 128


def video_key(v):
    return (0, int(v), "") if v.isdigit() else (1, 0, v)


def read_table(path):
    """{identity: {video: [unit descriptors]}}, in the table's order, and the missing count."""
    persons, missing = {}, 0
    with open(path, newline="") as f:
        reader = csv.reader(f)
        header = next(reader)
        if header[:5] != ["identity", "video", "split", "image", "status"]:
            sys.exit(f"{path}: expected the header of descriptor_table, found {header[:5]}")
        for line, row in enumerate(reader, start=2):
            if len(row) != 5 + DIM:
                sys.exit(f"{path}: line {line}: expected {5 + DIM} fields, found {len(row)}")
            videos = persons.setdefault(row[0], {})
            frames = videos.setdefault(row[1], [])
            if row[4] != "ok":
                missing += 1
                continue
            d = np.array([float(x) for x in row[5:]])
            frames.append(d / np.linalg.norm(d))
    return persons, missing


def split_by_video(persons, rotation=0):
    """[(identity, enrol array, probe array)] for persons of two or more videos whose both sides
    have a descriptor; and how many persons each reason left out. Rotation 0 probes with the
    last video, as eval does; rotation r with the r-th before it (more probes of the same
    persons, each enrolled from the videos it is not)."""
    out, left = [], {"too few videos": 0, "no enrolment face": 0, "no probe face": 0}
    for identity, videos in persons.items():
        order = sorted(videos, key=video_key)
        if len(order) < max(2, rotation + 1):
            left["too few videos"] += 1
            continue
        probe_video = order[len(order) - 1 - rotation]
        enrol = [d for v in order if v != probe_video for d in videos[v]]
        probe = videos[probe_video]
        if not enrol:
            left["no enrolment face"] += 1
            continue
        if not probe:
            left["no probe face"] += 1
            continue
        out.append((identity, np.array(enrol), np.array(probe)))
    return out, left


# --- Subspaces ------------------------------------------------------------------------------


def unit_rows(x):
    return x / np.linalg.norm(x, axis=1, keepdims=True)


def centred(x, mean):
    return unit_rows(x) if mean is None else unit_rows(x - mean)


def subspace(x, k, complete=False, rng=None):
    """DIM x k basis: the leading eigenvectors of the autocorrelation of the rows of x. As the
    engine's KL expansion, eigenvalues at most 1e-7 of the trace are no directions: a set of
    lower rank gets zero columns (compared as zero vectors), or with complete=True random
    directions orthogonal to the rest (an input subspace that always holds k vectors)."""
    r = x.T @ x / len(x)
    w, v = np.linalg.eigh(r)
    w, v = w[::-1], v[:, ::-1]
    keep = int(np.sum(w[:k] > 1e-7 * max(np.trace(r), 1e-30)))
    basis = np.zeros((DIM, k))
    basis[:, :keep] = v[:, :keep]
    if complete and keep < k:
        extra = rng.standard_normal((DIM, k - keep))
        extra -= basis[:, :keep] @ (basis[:, :keep].T @ extra)
        q, _ = np.linalg.qr(extra)
        basis[:, keep:] = q
    return basis


def msm_scores(probes, gallery, dist_num):
    """Thousandths: the mean of the dist_num largest squared canonical cosines of every probe
    basis (P x DIM x k) with every gallery basis (G x DIM x k)."""
    m = np.einsum("pdi,gdj->pgij", probes, gallery)
    s = np.linalg.svd(m, compute_uv=False)
    sim = np.mean(s[..., :dist_num] ** 2, axis=-1)
    return np.trunc(sim * 1000.0 + 1e-9).astype(int)


def constraint_space(gallery, d, whiten):
    """DIM x d: the eigenvectors of the sum of the gallery's projection matrices with the d
    smallest eigenvalues, each weighted by 1/sqrt(eigenvalue) when whiten (as the engine's
    projection does)."""
    g = np.einsum("gdi,gei->de", gallery, gallery)
    w, v = np.linalg.eigh(g)  # ascending
    c = v[:, :d]
    if whiten:
        lam = w[:d] / len(gallery)
        c = c / np.sqrt(np.maximum(lam, 1e-7))
    return c


def project(bases, c):
    """Each basis projected by c (DIM x d) and orthonormalised again (columns that vanish stay
    zero); returned in d dimensions."""
    out = np.zeros((len(bases), c.shape[1], bases.shape[2]))
    for i, b in enumerate(bases):
        p = c.T @ b
        norms = np.linalg.norm(p, axis=0)
        live = norms > 1e-8
        if live.any():
            q, _ = np.linalg.qr(p[:, live])
            out[i][:, : q.shape[1]] = q
    return out


# --- Figures --------------------------------------------------------------------------------


def figures(scores, truth):
    """rank-1, EER, its threshold, the 1 % FAR threshold and TAR there, of a P x G score matrix
    whose probe p's true person is truth[p]."""
    p_idx = np.arange(len(truth))
    own = scores[p_idx, truth]
    mask = np.ones_like(scores, dtype=bool)
    mask[p_idx, truth] = False
    rank = 1 + np.sum((scores >= own[:, None]) & mask, axis=1)
    genuine = own
    impostor = scores[mask]
    thresholds = np.arange(-1, 1001)
    g_sorted, i_sorted = np.sort(genuine), np.sort(impostor)
    tar = 1.0 - np.searchsorted(g_sorted, thresholds, side="right") / len(g_sorted)
    far = 1.0 - np.searchsorted(i_sorted, thresholds, side="right") / len(i_sorted)
    gap = np.abs(far - (1.0 - tar))
    e = int(np.argmin(gap))
    eer = (far[e] + 1.0 - tar[e]) / 2.0
    allowed = np.floor(0.01 * len(impostor))
    above = len(i_sorted) - np.searchsorted(i_sorted, thresholds, side="right")
    t1 = int(np.argmax(above <= allowed))
    return {
        "rank1": float(np.mean(rank == 1)),
        "rank1_count": int(np.sum(rank == 1)),
        "eer": float(eer),
        "eer_threshold": int(thresholds[e]),
        "far1_threshold": int(thresholds[t1]),
        "tar_at_far1": float(tar[t1]),
        "probes": len(truth),
        "genuine": genuine,
        "impostor": impostor,
    }


def row(name, f):
    return (
        f"| {name} | {100 * f['rank1']:.1f} ({f['rank1_count']}/{f['probes']}) | "
        f"{100 * f['eer']:.2f} @ {f['eer_threshold']} | {100 * f['tar_at_far1']:.1f} @ "
        f"{f['far1_threshold']} |"
    )


HEADER = "| setting | rank-1 % (probes) | EER % @ threshold | TAR % at 1 % FAR @ threshold |\n|---|---|---|---|"


# --- Methods over one split ------------------------------------------------------------------


class Split:
    """A gallery (persons enrolled from their enrolment sides) and probes of the same persons;
    `mean` is subtracted from every descriptor before it is normalised (None: no centring)."""

    def __init__(self, people, mean=None):
        self.people = people
        self.mean = mean
        self.enrol = [centred(e, mean) for _, e, _ in people]
        self.probe = [centred(p, mean) for _, _, p in people]
        self.truth = np.arange(len(people))

    def mean_descriptor(self):
        g = unit_rows(np.array([e.mean(axis=0) for e in self.enrol]))
        p = unit_rows(np.array([x.mean(axis=0) for x in self.probe]))
        return np.trunc(p @ g.T * 1000.0 + 1e-9).astype(int)

    def bases(self, k_dict, k_input, complete_input=False, seed=5):
        rng = np.random.default_rng(seed)
        g = np.array([subspace(e, k_dict) for e in self.enrol])
        p = np.array([subspace(x, k_input, complete_input, rng) for x in self.probe])
        k = max(k_dict, k_input)
        return pad(g, k), pad(p, k)

    def msm(self, k_dict, k_input, dist_num, complete_input=False):
        g, p = self.bases(k_dict, k_input, complete_input)
        return msm_scores(p, g, dist_num)

    def cmsm(self, k_dict, k_input, dist_num, d, whiten):
        g, p = self.bases(k_dict, k_input)
        c = constraint_space(g, d, whiten)
        return msm_scores(project(p, c), project(g, c), dist_num)


def pad(bases, k):
    if bases.shape[2] == k:
        return bases
    out = np.zeros((bases.shape[0], DIM, k))
    out[:, :, : bases.shape[2]] = bases
    return out


def all_descriptors(people):
    return np.concatenate([np.concatenate([e, p]) for _, e, p in people])


def gallery_mean(people):
    return np.concatenate([e for _, e, _ in people]).mean(axis=0)


# --- Sections --------------------------------------------------------------------------------


def section_msm(people, out):
    s = Split(people)
    out.append("\n## MSM over the whole gallery (no centring)\n")
    out.append(HEADER)
    out.append(row("mean descriptor, cosine", figures(s.mean_descriptor(), s.truth)))
    for k in range(1, 8):
        for dn in (1, 2, 3):
            if dn > k:
                continue
            out.append(row(f"MSM k={k} distNum={dn}", figures(s.msm(k, k, dn), s.truth)))
    out.append("\nDictionary and input of different sizes (distNum 1):\n")
    out.append(HEADER)
    for kd, ki in ((7, 1), (7, 3), (3, 7), (1, 7), (5, 3), (3, 5)):
        out.append(row(f"MSM k_dict={kd} k_input={ki}", figures(s.msm(kd, ki, 1), s.truth)))
    out.append("\nThe input always holding k vectors (random directions past its rank):\n")
    out.append(HEADER)
    for k in (3, 5, 7):
        for dn in (1, 2):
            f = figures(s.msm(k, k, dn, complete_input=True), s.truth)
            out.append(row(f"MSM k={k} distNum={dn}, input completed", f))


def section_centring(people, out):
    gm = gallery_mean(people)
    s = Split(people, gm)
    out.append("\n## Centring by the gallery's mean descriptor (whole gallery)\n")
    out.append(HEADER)
    out.append(row("mean descriptor, cosine, centred", figures(s.mean_descriptor(), s.truth)))
    for k in (1, 2, 3, 4, 5, 7):
        for dn in (1, 2, 3):
            if dn > k:
                continue
            f = figures(s.msm(k, k, dn), s.truth)
            out.append(row(f"MSM k={k} distNum={dn}, gallery mean", f))


def centring_mean(key, mine, other):
    """The mean a centring key names: "none", or "<source> <strength>" with source "gallery"
    (the evaluated persons' enrolment sides) or "population" (every descriptor of the other
    persons), scaled by strength (1: full centring)."""
    if key == "none":
        return None
    source, strength = key.split()
    mean = gallery_mean(mine) if source == "gallery" else all_descriptors(other).mean(axis=0)
    return float(strength) * mean


def halves_table(rounds, settings, splits, out, title, enrol_side=None):
    """Every setting on random halves: persons split in two, each half evaluated as a gallery of
    its own with a mean from the OTHER half (population) or its own enrolment sides (gallery);
    the probes of both halves pooled, over `splits` random splits of every round (a rotation of
    the probe video). enrol_side, when given, replaces each evaluated person's enrolment
    descriptors (the other half's mean is always made from all of its descriptors)."""
    people = rounds[0]
    out.append(f"\n## {title}\n")
    out.append(
        f"{len(rounds)} probe video(s) per person ({sum(len(r) for r in rounds)} distinct probes); "
        f"persons split into two halves at random ({splits} splits per round); each half is a "
        f"gallery of its own, its probes ranked among its {len(people) // 2} persons; figures "
        "pooled over both halves, all splits and rounds.\n"
    )
    out.append(HEADER)
    pooled = {name: [] for name, _ in settings}
    rng = np.random.default_rng(18)
    for people in rounds:
        for _ in range(splits):
            order = rng.permutation(len(people))
            halves = [order[: len(order) // 2], order[len(order) // 2 :]]
            for h in range(2):
                mine = [people[i] for i in halves[h]]
                if enrol_side is not None:
                    mine = [(i, enrol_side(e), p) for i, e, p in mine]
                other = [people[i] for i in halves[1 - h]]
                cache = {}
                for name, (centring, method) in settings:
                    if centring not in cache:
                        cache[centring] = Split(mine, centring_mean(centring, mine, other))
                    pooled[name].append(method(cache[centring]))
    for name, _ in settings:
        parts = pooled[name]
        rank1 = sum(f["rank1_count"] for f in parts)
        probes = sum(f["probes"] for f in parts)
        # EER and TAR over all scores pooled: the per-half score matrices side by side.
        merged = merge_figures(parts)
        merged["rank1_count"], merged["probes"] = rank1, probes
        merged["rank1"] = rank1 / probes
        out.append(row(name, merged))
    return pooled


def merge_figures(parts):
    genuine = np.concatenate([f["genuine"] for f in parts])
    impostor = np.concatenate([f["impostor"] for f in parts])
    return figures_from_lists(genuine, impostor)


def figures_from_lists(genuine, impostor):
    thresholds = np.arange(-1, 1001)
    g_sorted, i_sorted = np.sort(genuine), np.sort(impostor)
    tar = 1.0 - np.searchsorted(g_sorted, thresholds, side="right") / len(g_sorted)
    far = 1.0 - np.searchsorted(i_sorted, thresholds, side="right") / len(i_sorted)
    e = int(np.argmin(np.abs(far - (1.0 - tar))))
    allowed = np.floor(0.01 * len(impostor))
    above = len(i_sorted) - np.searchsorted(i_sorted, thresholds, side="right")
    t1 = int(np.argmax(above <= allowed))
    return {
        "eer": float((far[e] + 1.0 - tar[e]) / 2.0),
        "eer_threshold": int(thresholds[e]),
        "far1_threshold": int(thresholds[t1]),
        "tar_at_far1": float(tar[t1]),
        "genuine": genuine,
        "impostor": impostor,
    }


def fig(method):
    return lambda s: figures(method(s), s.truth)


CENTRINGS = ("none", "gallery 1", "gallery 0.75", "population 1", "population 0.75")


def section_halves(rounds, splits, out):
    settings = []
    for centring in CENTRINGS:
        settings.append((f"mean descriptor, {centring}", (centring, fig(Split.mean_descriptor))))
        for k, dn in ((1, 1), (2, 1), (2, 2), (3, 1), (3, 2), (5, 1), (5, 2), (7, 1)):
            settings.append(
                (
                    f"MSM k={k} distNum={dn}, {centring}",
                    (centring, fig(lambda s, k=k, dn=dn: s.msm(k, k, dn))),
                )
            )
    halves_table(rounds, settings, splits, out, "Centring: no mean, the gallery's, another half's")


def section_cmsm(people, out):
    out.append("\n## CMSM over the whole gallery\n")
    out.append(HEADER)
    for centring, mean in (("none", None), ("gallery", gallery_mean(people))):
        s = Split(people, mean)
        for whiten in (False, True):
            for k, dn in ((3, 1), (5, 1), (5, 2), (7, 1), (7, 2)):
                for d in (127, 125, 120, 110, 100, 80):
                    f = figures(s.cmsm(k, k, dn, d, whiten), s.truth)
                    w = "whitened" if whiten else "plain"
                    out.append(row(f"CMSM k={k} distNum={dn} d={d} {w}, {centring}", f))


def section_one_photo(rounds, splits, out):
    """Enrolment from one descriptor (the first of the enrolment side) per person; probes as
    before; the halves protocol, so that the population mean comes from other persons."""
    settings = []
    for centring in ("none", "population 1", "population 0.75"):
        settings.append((f"mean descriptor, {centring}", (centring, fig(Split.mean_descriptor))))
        for k, dn in ((1, 1), (2, 1), (3, 1), (3, 2), (5, 1), (5, 2), (7, 1), (7, 3)):
            settings.append(
                (
                    f"MSM k={k} distNum={dn}, {centring}",
                    (centring, fig(lambda s, k=k, dn=dn: s.msm(k, k, dn))),
                )
            )
    halves_table(
        rounds,
        settings,
        splits,
        out,
        "Enrolment from one photo (the first descriptor of the enrolment side)",
        enrol_side=lambda e: e[:1],
    )


def section_small(rounds, splits, out, size=4):
    """Galleries of `size` persons enrolled from one photo each, as a new user starts: every
    other person's probe of the same half is an impostor probe (nobody of theirs is enrolled),
    and the population mean comes from the other half. Pooled over many random galleries."""
    out.append(f"\n## Galleries of {size} persons, each enrolled from one photo\n")
    out.append(
        f"{len(rounds)} probe video(s) per person; persons split in halves ({splits} splits per "
        f"round); in each half, galleries of {size} persons enrolled from ONE descriptor each, "
        "probed by their own probes (genuine) and by every other person of the half (impostors "
        "only); the population mean from the other half. rank-1 among the gallery's persons.\n"
    )
    out.append(HEADER)
    settings = [("mean descriptor", None, 0, 0)] + [
        (f"MSM k={k} distNum=1", None, k, 1) for k in (1, 2, 3, 5)
    ]
    centrings = ("none", "gallery 1", "gallery 0.75", "population 1", "population 0.75")
    pooled = {(c, name): ([], [], 0, 0) for c in centrings for name, *_ in settings}
    rng = np.random.default_rng(4)
    for people in rounds:
        for _ in range(splits):
            order = rng.permutation(len(people))
            for h in range(2):
                half = order[: len(order) // 2] if h == 0 else order[len(order) // 2 :]
                other = [people[i] for i in (order[len(order) // 2 :] if h == 0 else order[: len(order) // 2])]
                for g0 in range(0, len(half) - size + 1, size):
                    chosen = [people[i] for i in half[g0 : g0 + size]]
                    outsiders = [people[i] for i in half if i not in half[g0 : g0 + size]]
                    enrolled = [(i, e[:1], p) for i, e, p in chosen]
                    for c in centrings:
                        mean = centring_mean(c, enrolled, other)
                        gal = [centred(e, mean) for _, e, _ in enrolled]
                        probes = [centred(p, mean) for _, _, p in chosen + outsiders]
                        truth = np.array(list(range(size)) + [-1] * len(outsiders))
                        for name, _, k, dn in settings:
                            if k == 0:
                                g = unit_rows(np.array([x.mean(axis=0) for x in gal]))
                                q = unit_rows(np.array([x.mean(axis=0) for x in probes]))
                                sc = np.trunc(q @ g.T * 1000.0 + 1e-9).astype(int)
                            else:
                                gb = np.array([subspace(x, k) for x in gal])
                                pb = np.array([subspace(x, k) for x in probes])
                                sc = msm_scores(pb, gb, dn)
                            gen, imp, r1, n = pooled[(c, name)]
                            known = truth >= 0
                            own = sc[known, truth[known]]
                            mask = np.ones_like(sc, dtype=bool)
                            mask[np.arange(size), truth[:size]] = False
                            rank = 1 + np.sum((sc[known] >= own[:, None]) & mask[known], axis=1)
                            gen.append(own)
                            imp.append(sc[mask])
                            pooled[(c, name)] = (gen, imp, r1 + int(np.sum(rank == 1)), n + size)
    for c in centrings:
        for name, *_ in settings:
            gen, imp, r1, n = pooled[(c, name)]
            f = figures_from_lists(np.concatenate(gen), np.concatenate(imp))
            f.update(rank1=r1 / n, rank1_count=r1, probes=n)
            out.append(row(f"{name}, {c}", f))


def eer_of(genuine, impostor):
    return figures_from_lists(genuine, impostor)["eer"]


def section_decide(rounds, out, boots=1000):
    """The candidates on whole galleries (every person of a round enrolled), each probe video of
    every round, centring by strength x the gallery's mean; and, against the mean-descriptor
    comparison without centring, the difference in rank-1 and EER with a 90 % interval from a
    bootstrap over persons (a person's probes of every round drawn together)."""
    out.append("\n## Candidates on whole galleries, with intervals against the mean descriptor\n")
    out.append(
        f"{len(rounds)} probe video(s) per person, each round a gallery of every person "
        f"({sum(len(r) for r in rounds)} probes); centring: strength x the gallery's mean. The "
        f"last two columns: the difference to the uncentred mean descriptor and its 90 % "
        f"bootstrap interval ({boots} draws of persons).\n"
    )
    out.append(
        "| setting | rank-1 % (probes) | EER % @ threshold | TAR % at 1 % FAR @ threshold "
        "| rank-1 diff (pt) | EER diff (pt) |\n|---|---|---|---|---|---|"
    )
    settings = [("mean descriptor", None, 0, 0)]
    settings += [("mean descriptor", a, 0, 0) for a in (0.7, 0.8, 0.9, 1.0)]
    for a in (None, 0.6, 0.7, 0.8, 0.9, 1.0):
        for k, dn in ((1, 1), (2, 1), (2, 2), (3, 1)):
            settings.append((f"MSM k={k} distNum={dn}", a, k, dn))
    names = [p[0] for p in rounds[0]]
    records = []
    for name, strength, k, dn in settings:
        per_probe = []  # (person name, rank==1, genuine score, impostor scores)
        for people in rounds:
            mean = None if strength is None else strength * gallery_mean(people)
            s = Split(people, mean)
            sc = s.mean_descriptor() if k == 0 else s.msm(k, k, dn)
            own = sc[s.truth, s.truth]
            for i in range(len(people)):
                others = np.delete(sc[i], i)
                per_probe.append((people[i][0], int(np.sum(others >= own[i])) == 0, own[i], others))
        records.append(per_probe)
    base = records[0]
    rng = np.random.default_rng(7)
    draws = [rng.choice(len(names), len(names)) for _ in range(boots)]
    index = {}
    for j, record in enumerate(base):
        index.setdefault(record[0], []).append(j)

    def stats(rec, js):
        hits = np.array([rec[j][1] for j in js])
        gen = np.array([rec[j][2] for j in js])
        imp = np.concatenate([rec[j][3] for j in js])
        return hits.mean(), eer_of(gen, imp)

    for (name, strength, k, dn), rec in zip(settings, records):
        label = name + ("" if strength is None else f", centred x{strength}")
        gen = np.array([r[2] for r in rec])
        imp = np.concatenate([r[3] for r in rec])
        f = figures_from_lists(gen, imp)
        hits = sum(r[1] for r in rec)
        f.update(rank1=hits / len(rec), rank1_count=hits, probes=len(rec))
        diffs = []
        if rec is not base:
            for d in draws:
                js = [j for i in d for j in index.get(names[i], [])]
                r_a, e_a = stats(rec, js)
                r_b, e_b = stats(base, js)
                diffs.append((r_a - r_b, e_a - e_b))
            diffs = np.array(diffs) * 100
            r_lo, r_hi = np.percentile(diffs[:, 0], [5, 95])
            e_lo, e_hi = np.percentile(diffs[:, 1], [5, 95])
            r_d = 100 * (f["rank1"] - sum(r[1] for r in base) / len(base))
            e_d = 100 * (f["eer"] - figures_from_lists(
                np.array([r[2] for r in base]), np.concatenate([r[3] for r in base]))["eer"])
            extra = f" {r_d:+.1f} [{r_lo:+.1f}, {r_hi:+.1f}] | {e_d:+.2f} [{e_lo:+.2f}, {e_hi:+.2f}] |"
        else:
            extra = " - | - |"
        out.append(row(label, f) + extra)


def histogram(scores, lo, hi, step):
    edges = np.arange(lo, hi + step, step)
    counts, _ = np.histogram(scores, bins=edges)
    return ", ".join(f"{a}-{a + step - 1}: {c}" for a, c in zip(edges[:-1], counts) if c)


def population_centre(persons, strength):
    """strength x the mean over persons of each person's mean descriptor (every person weighs
    alike), from every frame of the table: the centre a library would ship."""
    means = [np.mean([d for f in v.values() for d in f], axis=0) for v in persons.values()
             if any(len(f) for f in v.values())]
    return strength * np.mean(means, axis=0)


def section_scores(persons, people, out, scores_path, strength=0.75, k=3):
    out.append("\n## Score distributions (thousandths), whole gallery\n")
    centre = population_centre(persons, strength)
    full = population_centre(persons, 1.0)
    out.append(
        f"Centre: {strength} x the population mean (every person of the table weighs alike; "
        f"length {np.linalg.norm(centre):.3f}).\n"
    )
    truth = np.arange(len(people))
    # Why squared cosines want a partial centre: cosines of different persons' mean descriptors.
    for label, c in (("none", None), (f"x{strength}", centre), ("x1", full)):
        s = Split(people, c)
        g = unit_rows(np.array([e.mean(axis=0) for e in s.enrol]))
        p = unit_rows(np.array([x.mean(axis=0) for x in s.probe]))
        cos = p @ g.T
        imp = cos[~np.eye(len(people), dtype=bool)]
        out.append(
            f"- centring {label}: cosines of different persons: {100 * np.mean(imp < 0):.1f} % "
            f"negative, percentiles 1/50/99: {np.round(np.percentile(imp, [1, 50, 99]), 3).tolist()}; "
            f"same person median {np.median(np.diag(cos)):.3f}"
        )
    chosen = [
        ("mean descriptor, cosine", Split(people).mean_descriptor()),
        (f"MSM k={k} distNum=1", Split(people).msm(k, k, 1)),
        (f"MSM k={k} distNum=1, centre x{strength}", Split(people, centre).msm(k, k, 1)),
        (f"MSM k={k} distNum=1, centre x1", Split(people, full).msm(k, k, 1)),
    ]
    rows = []
    for name, sc in chosen:
        f = figures(sc, truth)
        g, i = f["genuine"], f["impostor"]
        out.append(f"\n### {name}\n")
        out.append(
            f"- genuine: n={len(g)}, percentiles 5/25/50/75/95: "
            f"{np.percentile(g, [5, 25, 50, 75, 95]).astype(int).tolist()}"
        )
        out.append(
            f"- impostor: n={len(i)}, percentiles 50/90/99/99.9/max: "
            f"{np.percentile(i, [50, 90, 99, 99.9]).astype(int).tolist() + [int(i.max())]}"
        )
        out.append(
            f"- rank-1 {100 * f['rank1']:.1f} %; EER {100 * f['eer']:.2f} % at {f['eer_threshold']}; "
            f"1 % FAR at {f['far1_threshold']} (TAR {100 * f['tar_at_far1']:.1f} %)"
        )
        for t in (200, 300, 400, 500, 600, 700, 800, 900):
            out.append(
                f"  - threshold {t}: FAR {100 * np.mean(i > t):.2f} %, TAR {100 * np.mean(g > t):.1f} %"
            )
        out.append(f"- genuine histogram: {histogram(g, 0, 1000, 50)}")
        out.append(f"- impostor histogram: {histogram(i, 0, 1000, 50)}")
        for p in range(len(truth)):
            for c in range(sc.shape[1]):
                rows.append((name, people[p][0], people[c][0], int(sc[p, c]), int(p == c)))
    if scores_path:
        with open(scores_path, "w", newline="") as f:
            w = csv.writer(f)
            w.writerow(["setting", "probe", "candidate", "score", "genuine"])
            w.writerows(rows)


SECTIONS = ["msm", "centring", "halves", "cmsm", "one_photo", "small", "decide", "scores"]


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("table")
    ap.add_argument("--section", action="append", choices=SECTIONS)
    ap.add_argument("--splits", type=int, default=10)
    ap.add_argument("--scores", help="write the chosen settings' scores as CSV")
    ap.add_argument(
        "--rotations", type=int, default=1, help="probe videos per person in the halves sections"
    )
    a = ap.parse_args()
    persons, missing = read_table(a.table)
    people, left = split_by_video(persons)
    out = [
        f"{len(persons)} persons, {sum(len(f) for v in persons.values() for f in v.values())} "
        f"frames with a descriptor, {missing} without; evaluated: {len(people)} persons "
        f"(left out: {left}); enrolment frames per person {np.mean([len(e) for _, e, _ in people]):.1f} "
        f"(min {min(len(e) for _, e, _ in people)}), probe frames "
        f"{np.mean([len(p) for _, _, p in people]):.1f} (min {min(len(p) for _, _, p in people)})"
    ]
    rounds = [people] + [split_by_video(persons, r)[0] for r in range(1, a.rotations)]
    for name in a.section or SECTIONS:
        if name == "msm":
            section_msm(people, out)
        elif name == "centring":
            section_centring(people, out)
        elif name == "halves":
            section_halves(rounds, a.splits, out)
        elif name == "cmsm":
            section_cmsm(people, out)
        elif name == "one_photo":
            section_one_photo(rounds, a.splits, out)
        elif name == "small":
            section_small(rounds, a.splits, out)
        elif name == "decide":
            section_decide(rounds, out)
        elif name == "scores":
            section_scores(persons, people, out, a.scores)
        print("\n".join(out), flush=True)
        out = []


if __name__ == "__main__":
    main()
