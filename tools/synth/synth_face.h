// Synthetic faces for the demo and the tests: persons made from the mean-face depth table with a
// shape and skin of their own, rendered into grey camera frames together with the exact
// positions of their fourteen feature points. Everything is deterministic: the same seeds give
// the same bytes on the same build.
//
// Threads: every function works only on its arguments and read-only tables; any number of
// threads may call them at once.
#ifndef MSMFACE_TOOLS_SYNTH_SYNTH_FACE_H
#define MSMFACE_TOOLS_SYNTH_SYNTH_FACE_H

#include <array>
#include <cstdint>
#include <vector>

namespace msmsynth {

inline constexpr int kPointCount = 14;
inline constexpr int kTextureSize = 256;  // the grid of the mean-face depth table
inline constexpr int kMeshSize = 128;     // vertices per side of the rendered surface
inline constexpr int kMaxFrameSide = 4096;
inline constexpr int kMaxSequenceLength = 100000;

// The fourteen grid positions (column, row) of the mean face, in the host's point order:
// 0/1 eye centres, 2/3 nostrils, 4/5 mouth corners, 6 outer and 7 inner corner of the image-left
// eye, 8 inner and 9 outer corner of the image-right eye, 10/11 inner eyebrow ends, 12 nose tip,
// 13 mouth centre.
extern const int kGridPoints[kPointCount][2];

// One person: a surface and a skin of their own over the mean face's grid.
struct SynthPerson {
    uint32_t seed = 0;
    int index = 0;
    // kMeshSize^2 vertices (x, y, z in face units, y down, z toward the viewer) of the grid
    // positions 2i, 2j, and their unit normals.
    std::vector<float> vertices;
    std::vector<float> normals;
    // (kMeshSize - 1)^2 cells: 1 where the cell belongs to the head and is drawn.
    std::vector<unsigned char> cells;
    float skinTone = 0.6f;      // reflectance of the bare skin, before blotches
    float clothingTone = 0.5f;  // reflectance of the shirt below the neck
    // kTextureSize^2 reflectances in (0, 1], row-major over the grid.
    std::vector<float> albedo;
    // The fourteen feature points on the surface, host order, x y z each.
    std::array<float, 3 * kPointCount> landmarks{};
};

// Where and how a person is seen. Angles are in degrees.
struct SynthPose {
    float yaw = 0.0f;    // turn about the vertical axis; positive turns the nose to image right
    float pitch = 0.0f;  // nod; positive lowers the nose
    float roll = 0.0f;   // in-plane tilt; positive turns clockwise on screen
    float eyeDistance = 60.0f;  // pixels between the mean face's eye centres, seen frontally
    float centreX = 160.0f;     // frame position of the head's centre of rotation
    float centreY = 120.0f;
    float lightAzimuth = 0.0f;     // light direction: positive comes from image right
    float lightElevation = 20.0f;  // positive comes from above
    float ambient = 0.45f;         // shade of surfaces the light does not reach
    float diffuse = 0.55f;         // added shade of a surface facing the light
    float noise = 2.0f;            // sensor noise, standard deviation in grey levels
    uint32_t noiseSeed = 1;
    uint32_t backgroundSeed = 1;
};

// A rendered camera frame and the fourteen feature points in it.
struct SynthFrame {
    int width = 0;
    int height = 0;
    std::vector<unsigned char> pixels;            // width * height grey bytes, rows top-down
    std::array<float, 2 * kPointCount> points{};  // host order, x (column) then y (row)

    bool valid() const { return !pixels.empty(); }
    // The points rounded to whole pixels, as a host's detector reports them.
    std::array<int32_t, 2 * kPointCount> roundedPoints() const;
};

// Returns the person number index of the population seed: a shape (face width and height,
// lower face length, eye spacing, nose, cheek and chin depth) and a skin (tone, blotches,
// eyes, brows, nostrils, lips, hair line, moles) drawn from (seed, index). Any values are valid.
SynthPerson makePerson(uint32_t seed, int index);

// Renders person into a width x height frame: background, head with Lambertian shading under the
// pose's light, then sensor noise. The points are the projections of the person's feature
// points with the same camera (orthographic, scale eyeDistance per mean eye distance); pixel
// centres sit on whole coordinates.
//
// Returns an invalid (empty) frame when the size is outside 1 ... kMaxFrameSide; when the person
// does not look made by makePerson (wrong sizes, a coordinate beyond 4 face units, a reflectance
// outside [-1, 1], or a value that is not a number); or when the pose has a value that is not a
// finite number, an eyeDistance outside [1, 2 * max(width, height)], a centre farther than 4
// frame sizes outside the frame, or an ambient, diffuse or noise value outside [0, 1000].
SynthFrame renderFrame(const SynthPerson& person, const SynthPose& pose, int width, int height);

// One independent pose for a width x height frame: yaw up to 15 degrees, pitch and roll up to
// 10, eye distance 40 to 90 pixels (less in small frames, so that the face fits), a centre that
// keeps the face inside the frame, light from a random side and elevation.
// Returns the default pose for a size outside 1 ... kMaxFrameSide.
SynthPose randomPose(uint32_t seed, int width, int height);

// frameCount poses of one live-camera take: pose, scale, position and light drift smoothly
// from frame to frame around values drawn from seed; the background stays, the noise changes.
// Returns an empty list for a count outside 0 ... kMaxSequenceLength or a size outside
// 1 ... kMaxFrameSide.
std::vector<SynthPose> makeSequence(uint32_t seed, int frameCount, int width, int height);

}  // namespace msmsynth

#endif  // MSMFACE_TOOLS_SYNTH_SYNTH_FACE_H
