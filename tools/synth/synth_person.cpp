// A person: the mean face bent into a shape of its own and covered with a skin of its own. The
// shape moves whole regions smoothly, so the feature points, which are surface points, move with
// the features painted on them.
#include <algorithm>
#include <cmath>

#include "mean_face.h"
#include "synth_face.h"
#include "synth_random.h"

namespace msmsynth {
namespace {

constexpr int kGrid = kTextureSize;
constexpr float kEyeRow = -0.1484375f;  // face-unit row of the mean eye centres (grid row 109)
// Mean-face heights at or below this lie off the head: the table's floor and the slope into it.
constexpr float kHeadDepth = 0.12f;

float GridToUnit(float g) {
    return (g / 256.0f - 0.5f) * 2.0f;
}
float Square(float x) {
    return x * x;
}
float Bump(float a, float b) {
    return std::exp(-(a * a + b * b));
}
float SmoothStep(float edge0, float edge1, float x) {
    const float t = std::clamp((x - edge0) / (edge1 - edge0), 0.0f, 1.0f);
    return t * t * (3.0f - 2.0f * t);
}
// 1 well inside (distance below -soft), 0 well outside, smooth in between.
float Inside(float signedDistance, float soft) {
    return 1.0f - SmoothStep(-soft, soft, signedDistance);
}

// The head's outline over the grid: a dome above the eyes and a narrower jaw down to the chin,
// so that the table's neck and the grid's straight edges stay hidden.
bool InsideOutline(float X, float Y) {
    const float width = Y < 0.0f ? 0.93f : 0.93f - 0.2f * Y;
    const float reach = Y < 0.0f ? 1.0f : 0.85f;
    return Square(X / width) + Square(Y / reach) < 1.0f;
}

struct Shape {
    float width, height, lowerLength, eyeSpread, jaw, depth, nose, chin, cheeks, brow;
};

Shape DrawShape(Random& rng) {
    Shape s;
    s.width = rng.Symmetric(0.07f);
    s.height = rng.Symmetric(0.06f);
    s.lowerLength = rng.Symmetric(0.08f);
    s.eyeSpread = rng.Symmetric(0.12f);
    s.jaw = rng.Symmetric(0.25f);
    s.depth = rng.Symmetric(0.12f);
    s.nose = rng.Uniform(-0.04f, 0.08f);
    s.chin = rng.Symmetric(0.06f);
    s.cheeks = rng.Symmetric(0.04f);
    s.brow = rng.Symmetric(0.03f);
    return s;
}

void Deform(const Shape& s, float X, float Y, float Z, float* out) {
    const float dy = Y - kEyeRow;
    const float below = std::max(0.0f, dy);
    out[0] = X * (1.0f + s.width) + s.eyeSpread * X * Bump(dy / 0.3f, X / 0.7f) +
             s.jaw * X * Square(std::max(0.0f, Y - 0.1f));
    out[1] = kEyeRow + dy * (1.0f + s.height) + s.lowerLength * below * below;
    out[2] = Z * (1.0f + s.depth) + s.nose * Bump(X / 0.13f, (Y - 0.05f) / 0.22f) +
             s.chin * Bump(X / 0.35f, (Y - 0.8f) / 0.2f) +
             s.cheeks * (Bump((X - 0.45f) / 0.2f, (Y - 0.2f) / 0.2f) +
                         Bump((X + 0.45f) / 0.2f, (Y - 0.2f) / 0.2f)) +
             s.brow * Bump(X / 0.5f, (Y + 0.35f) / 0.12f);
}

void BuildSurface(const Shape& shape, SynthPerson& person) {
    const int n = kMeshSize;
    person.vertices.assign(static_cast<size_t>(n) * n * 3, 0.0f);
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
            const int u = 2 * i, v = 2 * j;
            Deform(shape, GridToUnit(static_cast<float>(u)), GridToUnit(static_cast<float>(v)),
                   kMeanFaceDepth[v * kGrid + u],
                   &person.vertices[(static_cast<size_t>(j) * n + i) * 3]);
        }
    person.normals.assign(person.vertices.size(), 0.0f);
    auto at = [&](int i, int j) {
        i = std::clamp(i, 0, n - 1);
        j = std::clamp(j, 0, n - 1);
        return &person.vertices[(static_cast<size_t>(j) * n + i) * 3];
    };
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
            const float *l = at(i - 1, j), *r = at(i + 1, j), *t = at(i, j - 1), *b = at(i, j + 1);
            const float du[3] = {r[0] - l[0], r[1] - l[1], r[2] - l[2]};
            const float dv[3] = {b[0] - t[0], b[1] - t[1], b[2] - t[2]};
            // Columns run right and rows down, so du x dv points at the viewer.
            float nx = du[1] * dv[2] - du[2] * dv[1];
            float ny = du[2] * dv[0] - du[0] * dv[2];
            float nz = du[0] * dv[1] - du[1] * dv[0];
            const float len = std::sqrt(nx * nx + ny * ny + nz * nz);
            float* out = &person.normals[(static_cast<size_t>(j) * n + i) * 3];
            if (len > 0.0f) {
                out[0] = nx / len, out[1] = ny / len, out[2] = nz / len;
            } else {
                out[2] = 1.0f;
            }
        }
    person.cells.assign(static_cast<size_t>(n - 1) * (n - 1), 0);
    for (int j = 0; j + 1 < n; ++j)
        for (int i = 0; i + 1 < n; ++i) {
            bool head = true;
            for (int k = 0; k < 4; ++k) {
                const int u = 2 * (i + (k & 1)), v = 2 * (j + (k >> 1));
                head = head && kMeanFaceDepth[v * kGrid + u] > kHeadDepth &&
                       InsideOutline(GridToUnit(static_cast<float>(u)),
                                     GridToUnit(static_cast<float>(v)));
            }
            person.cells[static_cast<size_t>(j) * (n - 1) + i] = head ? 1 : 0;
        }
    for (int k = 0; k < kPointCount; ++k) {
        const int u = kGridPoints[k][0], v = kGridPoints[k][1];
        Deform(shape, GridToUnit(static_cast<float>(u)), GridToUnit(static_cast<float>(v)),
               kMeanFaceDepth[v * kGrid + u], &person.landmarks[3 * k]);
    }
}

// The skin over the grid. Features are painted in grid units around the feature points.
class Skin {
  public:
    explicit Skin(float tone) : albedo_(static_cast<size_t>(kGrid) * kGrid, tone) {}

    // Mixes every cell of the box toward target (times the cell's own value when relative) by
    // weight(u, v), clamped to 1.
    template <class F>
    void Apply(float u0, float v0, float u1, float v1, float target, bool relative, F weight) {
        const int c0 = std::max(0, static_cast<int>(std::floor(u0)));
        const int c1 = std::min(kGrid - 1, static_cast<int>(std::ceil(u1)));
        const int r0 = std::max(0, static_cast<int>(std::floor(v0)));
        const int r1 = std::min(kGrid - 1, static_cast<int>(std::ceil(v1)));
        for (int r = r0; r <= r1; ++r)
            for (int c = c0; c <= c1; ++c) {
                const float w = weight(static_cast<float>(c), static_cast<float>(r));
                if (w <= 0.0f) continue;
                float& a = albedo_[static_cast<size_t>(r) * kGrid + c];
                const float goal = relative ? a * target : target;
                a += (goal - a) * std::min(w, 1.0f);
            }
    }
    std::vector<float> Finish() {
        for (float& a : albedo_) a = std::clamp(a, 0.02f, 1.0f);
        return std::move(albedo_);
    }

  private:
    std::vector<float> albedo_;
};

void PaintBlotches(Skin& skin, Random& rng) {
    for (int k = 0; k < 10; ++k) {
        const float cu = rng.Uniform(30.0f, 226.0f), cv = rng.Uniform(40.0f, 240.0f);
        const float sigma = rng.Uniform(8.0f, 35.0f);
        const float factor = 1.0f + rng.Symmetric(0.2f);
        skin.Apply(cu - 3 * sigma, cv - 3 * sigma, cu + 3 * sigma, cv + 3 * sigma, factor, true,
                   [&](float u, float v) { return Bump((u - cu) / sigma, (v - cv) / sigma); });
    }
}

void PaintHair(Skin& skin, Random& rng) {
    const bool bald = rng.Chance(0.1f);
    const float line = bald ? -0.92f : rng.Uniform(-0.72f, -0.5f);
    const float curve = rng.Uniform(0.2f, 0.9f);
    const float sides = rng.Uniform(0.1f, 0.7f);
    const float wave = rng.Uniform(0.0f, 0.05f), waveFreq = rng.Uniform(4.0f, 10.0f);
    const float phase = rng.Uniform(0.0f, 6.283f);
    const float tone = rng.Uniform(0.05f, 0.45f);
    skin.Apply(0, 0, kGrid - 1, kGrid - 1, tone, false, [&](float u, float v) {
        const float X = GridToUnit(u), Y = GridToUnit(v);
        const float top = line + curve * X * X + wave * std::sin(waveFreq * X + phase);
        const float crown = Inside(Y - top, 0.03f);
        const float side = Inside(0.8f - std::fabs(X), 0.04f) * Inside(Y - sides, 0.08f);
        return std::max(crown, side);
    });
}

struct EyeShape {
    float opening, lowerRatio, iris, irisTone, scleraTone, lidWidth, lidTone, socket;
};

void PaintEye(Skin& skin, const EyeShape& e, const int centre[2], const int outer[2],
              const int inner[2]) {
    const float ou = static_cast<float>(outer[0]), ov = static_cast<float>(outer[1]);
    const float du = static_cast<float>(inner[0]) - ou, dv = static_cast<float>(inner[1]) - ov;
    const float length = std::sqrt(du * du + dv * dv);
    const float ax = du / length, ay = dv / length;
    const float cu = static_cast<float>(centre[0]), cv = static_cast<float>(centre[1]);
    const float u0 = std::min(ou, ou + du) - 12, u1 = std::max(ou, ou + du) + 12;
    const float v0 = cv - 3.0f * e.opening, v1 = cv + 3.0f * e.opening;
    // Position along the corner line (0 at the outer corner, 1 at the inner) and across it
    // (positive downward), and the lids' distance from the line there.
    auto frame = [&](float u, float v, float& t, float& across) {
        t = ((u - ou) * ax + (v - ov) * ay) / length;
        across = -(u - ou) * ay + (v - ov) * ax;
        if (ax < 0) across = -across;
    };
    auto upperLid = [&](float t) {
        return e.opening * std::pow(std::max(0.0f, std::sin(3.14159265f * t)), 0.7f);
    };
    auto opening = [&](float u, float v) {
        float t, across;
        frame(u, v, t, across);
        if (t <= 0.0f || t >= 1.0f) return 0.0f;
        const float up = upperLid(t), down = e.lowerRatio * up;
        return Inside(-across - up, 0.8f) * Inside(across - down, 0.8f);
    };
    skin.Apply(u0, v0, u1, v1, e.socket, true, [&](float u, float v) {
        return Bump((u - cu) / (0.6f * length), (v - cv) / (2.2f * e.opening));
    });
    skin.Apply(u0, v0, u1, v1, e.scleraTone, false, opening);
    skin.Apply(cu - e.iris - 1, cv - e.iris - 1, cu + e.iris + 1, cv + e.iris + 1, e.irisTone,
               false, [&](float u, float v) {
                   const float r = std::hypot(u - cu, v - cv);
                   return opening(u, v) * Inside(r - e.iris, 0.7f);
               });
    const float pupil = 0.4f * e.iris;
    skin.Apply(cu - pupil - 1, cv - pupil - 1, cu + pupil + 1, cv + pupil + 1, 0.05f, false,
               [&](float u, float v) {
                   return opening(u, v) * Inside(std::hypot(u - cu, v - cv) - pupil, 0.5f);
               });
    skin.Apply(u0, v0, u1, v1, e.lidTone, true, [&](float u, float v) {
        float t, across;
        frame(u, v, t, across);
        if (t <= -0.12f || t >= 1.0f) return 0.0f;
        const float lid = -upperLid(std::max(t, 0.0f)) - 0.3f * std::max(0.0f, -t) * length;
        return Inside(std::fabs(across - lid) - 0.5f * e.lidWidth, 0.6f);
    });
}

struct BrowShape {
    float length, arch, tilt, thickness, taper, tone, lift;
};

void PaintBrow(Skin& skin, const BrowShape& b, const int innerEnd[2], float outward) {
    const float bu = static_cast<float>(innerEnd[0]);
    const float bv = static_cast<float>(innerEnd[1]) - b.lift;
    const float u0 = outward < 0 ? bu - b.length - 4 : bu - 4;
    const float u1 = outward < 0 ? bu + 4 : bu + b.length + 4;
    skin.Apply(u0, bv - b.arch - b.thickness - 6, u1, bv + b.thickness + 8, b.tone, true,
               [&](float u, float v) {
                   const float t = (u - bu) * outward / b.length;
                   if (t < -0.08f || t > 1.05f) return 0.0f;
                   const float centre =
                       bv - b.arch * std::sin(3.14159265f * std::clamp(t, 0.0f, 1.0f) * 0.85f) +
                       b.tilt * t;
                   const float half = 0.5f * b.thickness * (1.0f - b.taper * std::max(t, 0.0f));
                   const float ends =
                       SmoothStep(-0.08f, 0.04f, t) * (1.0f - SmoothStep(0.9f, 1.05f, t));
                   return ends * Inside(std::fabs(v - centre) - half, 0.9f);
               });
}

void PaintNostril(Skin& skin, const int at[2], float a, float b, float tilt, float tone) {
    const float cu = static_cast<float>(at[0]), cv = static_cast<float>(at[1]);
    const float c = std::cos(tilt), s = std::sin(tilt);
    skin.Apply(cu - a - 2, cv - a - 2, cu + a + 2, cv + a + 2, tone, true, [&](float u, float v) {
        const float x = (u - cu) * c + (v - cv) * s, y = -(u - cu) * s + (v - cv) * c;
        const float r = std::sqrt(Square(x / a) + Square(y / b));
        return Inside(r - 1.0f, 0.25f);
    });
}

void PaintMouth(Skin& skin, Random& rng) {
    const float lu = static_cast<float>(kGridPoints[4][0]),
                ru = static_cast<float>(kGridPoints[5][0]);
    const float cornerRow = 0.5f * static_cast<float>(kGridPoints[4][1] + kGridPoints[5][1]);
    const float cu = static_cast<float>(kGridPoints[13][0]),
                cv = static_cast<float>(kGridPoints[13][1]);
    const float upper = rng.Uniform(3.0f, 7.0f), lower = rng.Uniform(4.0f, 9.5f);
    const float bow = rng.Uniform(0.0f, 0.35f);
    const float tone = rng.Uniform(0.55f, 0.8f), lineTone = rng.Uniform(0.25f, 0.5f);
    // The parting runs through both corners and the centre point.
    auto parting = [&](float u, float& s) {
        s = u <= cu ? (u - cu) / (cu - lu) : (u - cu) / (ru - cu);
        return cv + (cornerRow - cv) * s * s;
    };
    skin.Apply(lu - 2, cv - upper - 3, ru + 2, cv + lower + 5, tone, true, [&](float u, float v) {
        float s;
        const float line = parting(u, s);
        if (std::fabs(s) >= 1.0f) return 0.0f;
        const float body = std::sqrt(1.0f - s * s);
        const float top = line - upper * body * (1.0f - bow * Bump(s / 0.15f, 0.0f));
        const float bottom = line + lower * body;
        return Inside(top - v, 0.8f) * Inside(v - bottom, 0.8f);
    });
    skin.Apply(lu - 2, cv - 3, ru + 2, cornerRow + 3, lineTone, true, [&](float u, float v) {
        float s;
        const float line = parting(u, s);
        if (std::fabs(s) >= 1.05f) return 0.0f;
        return Inside(std::fabs(v - line) - 0.7f, 0.6f) *
               (1.0f - SmoothStep(0.9f, 1.05f, std::fabs(s)));
    });
}

void PaintMoles(Skin& skin, Random& rng) {
    const int count = static_cast<int>(rng.NextU32() % 4u);
    for (int k = 0; k < count; ++k) {
        const float cu = rng.Uniform(60.0f, 196.0f), cv = rng.Uniform(95.0f, 215.0f);
        const float radius = rng.Uniform(1.5f, 3.0f), tone = rng.Uniform(0.4f, 0.7f);
        skin.Apply(
            cu - radius - 2, cv - radius - 2, cu + radius + 2, cv + radius + 2, tone, true,
            [&](float u, float v) { return Inside(std::hypot(u - cu, v - cv) - radius, 0.6f); });
    }
}

// Faint spots and pores of a size the normaliser's band-pass keeps: the most personal part of
// a skin.
void PaintSpots(Skin& skin, Random& rng) {
    const int count = 30 + static_cast<int>(rng.NextU32() % 40u);
    for (int k = 0; k < count; ++k) {
        const float cu = rng.Uniform(50.0f, 206.0f), cv = rng.Uniform(60.0f, 215.0f);
        const float radius = rng.Uniform(2.0f, 5.0f), factor = 1.0f + rng.Symmetric(0.12f);
        skin.Apply(cu - 2 * radius, cv - 2 * radius, cu + 2 * radius, cv + 2 * radius, factor, true,
                   [&](float u, float v) { return Bump((u - cu) / radius, (v - cv) / radius); });
    }
}

void PaintBeardShadow(Skin& skin, Random& rng) {
    if (!rng.Chance(0.3f)) return;
    const float factor = rng.Uniform(0.7f, 0.9f);
    skin.Apply(0, 150, kGrid - 1, kGrid - 1, factor, true, [&](float u, float v) {
        const float X = GridToUnit(u), Y = GridToUnit(v);
        return SmoothStep(0.22f, 0.38f, Y) * Inside(std::fabs(X) - 0.62f, 0.08f);
    });
}

}  // namespace

SynthPerson makePerson(uint32_t seed, int index) {
    SynthPerson person;
    person.seed = seed;
    person.index = index;
    Random rng(StreamSeed(seed, static_cast<uint32_t>(index), 0x7065727301ull));
    BuildSurface(DrawShape(rng), person);

    person.skinTone = rng.Uniform(0.45f, 0.85f);
    person.clothingTone = rng.Uniform(0.1f, 0.9f);
    Skin skin(person.skinTone);
    PaintBlotches(skin, rng);
    PaintSpots(skin, rng);
    PaintBeardShadow(skin, rng);
    PaintHair(skin, rng);

    EyeShape eye;
    eye.opening = rng.Uniform(6.5f, 9.0f);
    eye.lowerRatio = rng.Uniform(0.35f, 0.6f);
    eye.iris = rng.Uniform(5.5f, 7.5f);
    eye.irisTone = rng.Uniform(0.1f, 0.4f);
    eye.scleraTone = rng.Uniform(0.6f, 0.8f);
    eye.lidWidth = rng.Uniform(1.2f, 2.8f);
    eye.lidTone = rng.Uniform(0.3f, 0.6f);
    eye.socket = rng.Uniform(0.75f, 0.95f);
    PaintEye(skin, eye, kGridPoints[0], kGridPoints[6], kGridPoints[7]);
    PaintEye(skin, eye, kGridPoints[1], kGridPoints[9], kGridPoints[8]);

    BrowShape brow;
    brow.length = rng.Uniform(40.0f, 56.0f);
    brow.arch = rng.Uniform(1.5f, 8.0f);
    brow.tilt = rng.Uniform(-3.0f, 7.0f);
    brow.thickness = rng.Uniform(4.0f, 9.0f);
    brow.taper = rng.Uniform(0.2f, 0.7f);
    brow.tone = rng.Uniform(0.2f, 0.6f);
    brow.lift = rng.Uniform(-1.0f, 2.0f);
    PaintBrow(skin, brow, kGridPoints[10], -1.0f);
    PaintBrow(skin, brow, kGridPoints[11], 1.0f);

    const float na = rng.Uniform(3.0f, 5.5f), nb = rng.Uniform(1.8f, 3.2f);
    const float tilt = rng.Symmetric(0.45f), ntone = rng.Uniform(0.25f, 0.5f);
    PaintNostril(skin, kGridPoints[2], na, nb, tilt, ntone);
    PaintNostril(skin, kGridPoints[3], na, nb, -tilt, ntone);

    PaintMouth(skin, rng);
    PaintMoles(skin, rng);
    person.albedo = skin.Finish();
    return person;
}

}  // namespace msmsynth
