// Rendering a person into a camera frame: an orthographic camera, a z-buffered triangle mesh
// with the shade interpolated from the vertices and the skin looked up per pixel.
#include <algorithm>
#include <cmath>
#include <limits>

#include "synth_face.h"
#include "synth_random.h"

namespace msmsynth {
namespace {

constexpr float kDegree = 3.14159265358979f / 180.0f;
constexpr float kMeanEyeDistance = 86.0f / 128.0f;  // face units between the mean eye centres
// The head turns about a point behind the face, as on a neck, not about the nose.
constexpr float kPivotDepth = -0.2f;

struct Camera {
    float r[3][3];
    float scale, cx, cy;

    // Rotation roll * pitch * yaw, applied to a point relative to the pivot.
    explicit Camera(const SynthPose& pose) {
        const float cy_ = std::cos(pose.yaw * kDegree), sy = std::sin(pose.yaw * kDegree);
        const float cp = std::cos(pose.pitch * kDegree), sp = std::sin(pose.pitch * kDegree);
        const float cr = std::cos(pose.roll * kDegree), sr = std::sin(pose.roll * kDegree);
        const float yaw[3][3] = {{cy_, 0, sy}, {0, 1, 0}, {-sy, 0, cy_}};
        const float pitch[3][3] = {{1, 0, 0}, {0, cp, sp}, {0, -sp, cp}};
        const float roll[3][3] = {{cr, -sr, 0}, {sr, cr, 0}, {0, 0, 1}};
        float py[3][3];
        Multiply(pitch, yaw, py);
        Multiply(roll, py, r);
        scale = pose.eyeDistance / kMeanEyeDistance;
        cx = pose.centreX;
        cy = pose.centreY;
    }

    // Frame x, y and the depth toward the viewer (larger is nearer).
    void Project(const float* p, float& x, float& y, float& z) const {
        const float px = p[0], py = p[1], pz = p[2] - kPivotDepth;
        x = cx + scale * (r[0][0] * px + r[0][1] * py + r[0][2] * pz);
        y = cy + scale * (r[1][0] * px + r[1][1] * py + r[1][2] * pz);
        z = r[2][0] * px + r[2][1] * py + r[2][2] * pz;
    }
    float RotatedDot(const float* n, const float* light) const {
        float d = 0.0f;
        for (int i = 0; i < 3; ++i)
            d += (r[i][0] * n[0] + r[i][1] * n[1] + r[i][2] * n[2]) * light[i];
        return d;
    }

  private:
    static void Multiply(const float a[3][3], const float b[3][3], float out[3][3]) {
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                out[i][j] = a[i][0] * b[0][j] + a[i][1] * b[1][j] + a[i][2] * b[2][j];
    }
};

struct Vertex {
    float x, y, z, shade, u, v;
};

struct Canvas {
    int width, height;
    std::vector<float> radiance;  // grey levels before noise
    std::vector<float> depth;
};

bool Finite(float x) {
    return std::isfinite(x);
}

bool PoseIsUsable(const SynthPose& p, int width, int height) {
    const float values[] = {p.yaw,     p.pitch,   p.roll,         p.eyeDistance,
                            p.centreX, p.centreY, p.lightAzimuth, p.lightElevation,
                            p.ambient, p.diffuse, p.noise};
    for (float v : values)
        if (!Finite(v)) return false;
    const float side = static_cast<float>(std::max(width, height));
    if (p.eyeDistance < 1.0f || p.eyeDistance > 2.0f * side) return false;
    if (std::fabs(p.centreX) > 5.0f * side || std::fabs(p.centreY) > 5.0f * side) return false;
    for (float v : {p.ambient, p.diffuse, p.noise})
        if (v < 0.0f || v > 1000.0f) return false;
    return true;
}

// Sizes, and coordinates within the head's reach, so that a hand-made person cannot make a
// triangle cover the frame thousands of times over.
bool PersonIsUsable(const SynthPerson& person) {
    const size_t n = static_cast<size_t>(kMeshSize) * kMeshSize;
    if (person.vertices.size() != 3 * n || person.normals.size() != 3 * n ||
        person.cells.size() != static_cast<size_t>(kMeshSize - 1) * (kMeshSize - 1) ||
        person.albedo.size() != static_cast<size_t>(kTextureSize) * kTextureSize)
        return false;
    auto within = [](float v, float limit) { return v >= -limit && v <= limit; };
    for (float v : person.vertices)
        if (!within(v, 4.0f)) return false;
    for (float v : person.normals)
        if (!within(v, 1.001f)) return false;
    for (float v : person.landmarks)
        if (!within(v, 4.0f)) return false;
    for (float v : person.albedo)
        if (!within(v, 1.0f)) return false;
    return true;
}

// A room behind the person: a lit gradient, a few soft-edged panels and a gentle ripple, all
// from the background seed so that a take keeps its room.
void PaintBackground(uint32_t seed, Canvas& canvas) {
    Random rng(StreamSeed(seed, 0x726f6f6dull));
    const int w = canvas.width, h = canvas.height;
    const float base = rng.Uniform(60.0f, 190.0f);
    const float gx = rng.Symmetric(50.0f), gy = rng.Symmetric(50.0f);
    const float fx = rng.Uniform(0.01f, 0.05f), fy = rng.Uniform(0.01f, 0.05f);
    const float ax = rng.Symmetric(10.0f), ay = rng.Symmetric(10.0f);
    const float px = rng.Uniform(0.0f, 6.283f), py = rng.Uniform(0.0f, 6.283f);
    std::vector<float> columns(static_cast<size_t>(w)), rows(static_cast<size_t>(h));
    for (int x = 0; x < w; ++x)
        columns[x] = gx * static_cast<float>(x) / static_cast<float>(w) +
                     ax * std::sin(fx * static_cast<float>(x) + px);
    for (int y = 0; y < h; ++y)
        rows[y] = base + gy * static_cast<float>(y) / static_cast<float>(h) +
                  ay * std::sin(fy * static_cast<float>(y) + py);
    for (int y = 0; y < h; ++y) {
        float* row = &canvas.radiance[static_cast<size_t>(y) * w];
        for (int x = 0; x < w; ++x) row[x] = rows[y] + columns[x];
    }
    const int panels = 2 + static_cast<int>(rng.NextU32() % 3u);
    for (int k = 0; k < panels; ++k) {
        const int x0 = static_cast<int>(rng.Uniform(-0.2f, 0.9f) * static_cast<float>(w));
        const int y0 = static_cast<int>(rng.Uniform(-0.2f, 0.9f) * static_cast<float>(h));
        const int x1 = x0 + static_cast<int>(rng.Uniform(0.1f, 0.5f) * static_cast<float>(w));
        const int y1 = y0 + static_cast<int>(rng.Uniform(0.1f, 0.6f) * static_cast<float>(h));
        const float offset = rng.Symmetric(45.0f);
        for (int y = std::max(0, y0); y < std::min(h, y1); ++y)
            for (int x = std::max(0, x0); x < std::min(w, x1); ++x)
                canvas.radiance[static_cast<size_t>(y) * w + x] += offset;
    }
}

// Neck and shoulders under the head, in the head's roll so that they follow a tilt.
void PaintBody(const SynthPerson& person, const SynthPose& pose, const Camera& camera,
               const float* light, Canvas& canvas) {
    const float s = camera.scale;
    const float cr = std::cos(pose.roll * kDegree), sr = std::sin(pose.roll * kDegree);
    const float lit = pose.ambient + pose.diffuse * std::max(0.0f, light[2]) * 0.8f;
    const float neckTone = 255.0f * person.skinTone * (pose.ambient + 0.5f * pose.diffuse) * 0.8f;
    const float shirtTone = 255.0f * person.clothingTone * lit;
    const int y0 = std::max(0, static_cast<int>(camera.cy + 0.3f * s));
    for (int y = y0; y < canvas.height; ++y)
        for (int x = 0; x < canvas.width; ++x) {
            const float dx = static_cast<float>(x) - camera.cx,
                        dy = static_cast<float>(y) - camera.cy;
            const float across = (cr * dx + sr * dy) / s, down = (-sr * dx + cr * dy) / s;
            const float shoulders = 1.2f + 0.3f * across * across;
            float& out = canvas.radiance[static_cast<size_t>(y) * canvas.width + x];
            if (down > shoulders && std::fabs(across) < 2.6f) {
                out = shirtTone;
            } else if (down > 0.5f && std::fabs(across) < 0.45f) {
                out = neckTone;
            }
        }
}

void DrawTriangle(const Vertex& a, const Vertex& b, const Vertex& c, const float* albedo,
                  Canvas& canvas) {
    const float area = (b.x - a.x) * (c.y - a.y) - (b.y - a.y) * (c.x - a.x);
    if (!(area > 0.0f)) return;  // facing away, or seen edge on
    const float left = std::max(0.0f, std::ceil(std::min({a.x, b.x, c.x})));
    const float right =
        std::min(static_cast<float>(canvas.width - 1), std::floor(std::max({a.x, b.x, c.x})));
    const float top = std::max(0.0f, std::ceil(std::min({a.y, b.y, c.y})));
    const float bottom =
        std::min(static_cast<float>(canvas.height - 1), std::floor(std::max({a.y, b.y, c.y})));
    if (left > right || top > bottom) return;
    const float inv = 1.0f / area;
    const int x0 = static_cast<int>(left), x1 = static_cast<int>(right);
    const int y0 = static_cast<int>(top), y1 = static_cast<int>(bottom);
    for (int y = y0; y <= y1; ++y) {
        const float py = static_cast<float>(y);
        for (int x = x0; x <= x1; ++x) {
            const float px = static_cast<float>(x);
            const float wa = ((b.x - px) * (c.y - py) - (b.y - py) * (c.x - px)) * inv;
            const float wb = ((c.x - px) * (a.y - py) - (c.y - py) * (a.x - px)) * inv;
            const float wc = 1.0f - wa - wb;
            if (wa < 0.0f || wb < 0.0f || wc < 0.0f) continue;
            const size_t at = static_cast<size_t>(y) * canvas.width + x;
            const float z = wa * a.z + wb * b.z + wc * c.z;
            if (z <= canvas.depth[at]) continue;
            canvas.depth[at] = z;
            const float u = std::clamp(wa * a.u + wb * b.u + wc * c.u, 0.0f, kTextureSize - 1.001f);
            const float v = std::clamp(wa * a.v + wb * b.v + wc * c.v, 0.0f, kTextureSize - 1.001f);
            const int iu = static_cast<int>(u), iv = static_cast<int>(v);
            const float fu = u - static_cast<float>(iu), fv = v - static_cast<float>(iv);
            const float* t = albedo + static_cast<size_t>(iv) * kTextureSize + iu;
            const float skin = (1 - fv) * ((1 - fu) * t[0] + fu * t[1]) +
                               fv * ((1 - fu) * t[kTextureSize] + fu * t[kTextureSize + 1]);
            canvas.radiance[at] = 255.0f * skin * (wa * a.shade + wb * b.shade + wc * c.shade);
        }
    }
}

void DrawHead(const SynthPerson& person, const SynthPose& pose, const Camera& camera,
              const float* light, Canvas& canvas) {
    const int n = kMeshSize;
    std::vector<Vertex> vertices(static_cast<size_t>(n) * n);
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
            const size_t k = static_cast<size_t>(j) * n + i;
            Vertex& out = vertices[k];
            camera.Project(&person.vertices[3 * k], out.x, out.y, out.z);
            out.shade =
                pose.ambient +
                pose.diffuse * std::max(0.0f, camera.RotatedDot(&person.normals[3 * k], light));
            out.u = static_cast<float>(2 * i);
            out.v = static_cast<float>(2 * j);
        }
    for (int j = 0; j + 1 < n; ++j)
        for (int i = 0; i + 1 < n; ++i) {
            if (!person.cells[static_cast<size_t>(j) * (n - 1) + i]) continue;
            const Vertex& a = vertices[static_cast<size_t>(j) * n + i];
            const Vertex& b = vertices[static_cast<size_t>(j) * n + i + 1];
            const Vertex& c = vertices[static_cast<size_t>(j + 1) * n + i];
            const Vertex& d = vertices[static_cast<size_t>(j + 1) * n + i + 1];
            DrawTriangle(a, b, c, person.albedo.data(), canvas);
            DrawTriangle(b, d, c, person.albedo.data(), canvas);
        }
}

}  // namespace

std::array<int32_t, 2 * kPointCount> SynthFrame::roundedPoints() const {
    std::array<int32_t, 2 * kPointCount> out{};
    for (int k = 0; k < 2 * kPointCount; ++k) out[k] = static_cast<int32_t>(std::lround(points[k]));
    return out;
}

SynthFrame renderFrame(const SynthPerson& person, const SynthPose& pose, int width, int height) {
    SynthFrame frame;
    if (width < 1 || height < 1 || width > kMaxFrameSide || height > kMaxFrameSide ||
        !PersonIsUsable(person) || !PoseIsUsable(pose, width, height))
        return frame;

    const Camera camera(pose);
    const float ce = std::cos(pose.lightElevation * kDegree);
    const float light[3] = {std::sin(pose.lightAzimuth * kDegree) * ce,
                            -std::sin(pose.lightElevation * kDegree),
                            std::cos(pose.lightAzimuth * kDegree) * ce};

    const size_t count = static_cast<size_t>(width) * height;
    Canvas canvas{width, height, std::vector<float>(count),
                  std::vector<float>(count, -std::numeric_limits<float>::infinity())};
    PaintBackground(pose.backgroundSeed, canvas);
    PaintBody(person, pose, camera, light, canvas);
    DrawHead(person, pose, camera, light, canvas);

    frame.width = width;
    frame.height = height;
    frame.pixels.resize(count);
    Random noise(StreamSeed(pose.noiseSeed, 0x6e6f697365ull));
    for (size_t k = 0; k < count; ++k) {
        const float value = canvas.radiance[k] + pose.noise * noise.Gaussianish();
        frame.pixels[k] = static_cast<unsigned char>(std::clamp(value, 0.0f, 255.0f) + 0.5f);
    }
    for (int k = 0; k < kPointCount; ++k) {
        float z;
        camera.Project(&person.landmarks[3 * k], frame.points[2 * k], frame.points[2 * k + 1], z);
    }
    return frame;
}

}  // namespace msmsynth
