// Face detection for hosts that do not bring their own feature points: finds faces in a frame,
// fits the 68 landmarks of the iBUG 300-W layout to each, and maps them to the engine's fourteen
// points (<msmface/PartsPosition.h> order). A library of its own, libmsmface_detect, beside the
// engine: a host that brings its own points never links it.
//
// Ownership and threads. A Detector holds the landmark model (about 100 MB loaded); it is
// movable, not copyable, and one thread at a time uses it. A Follower belongs to one camera or
// video and keeps the face of its previous frame; it shares its Detector's model and is used by
// one thread at a time, while another Follower of the same Detector may run on another thread.
#ifndef MSMFACE_DETECT_H
#define MSMFACE_DETECT_H

#include <array>
#include <memory>
#include <string>
#include <vector>

#include <msmface/frame.h>
#include <msmface/result.h>

#define MSMFACE_DETECT_API __attribute__((visibility("default")))

namespace msmface {

// Where the landmark model is looked for when no path is given: the environment variable
// MSMFACE_LANDMARK_MODEL, else this file of Debian's libdlib-data package.
inline constexpr const char* kLandmarkModelEnvironment = "MSMFACE_LANDMARK_MODEL";
inline constexpr const char* kDefaultLandmarkModel =
    "/usr/share/dlib/shape_predictor_68_face_landmarks.dat";

struct FaceBox {
    int left = 0;
    int top = 0;
    int width = 0;
    int height = 0;
};

struct DetectedFace {
    FaceBox box;  // in frame pixels
    // The detector's confidence; larger is surer. Detected faces score 0 or more, a followed face
    // down to -0.5, a face from fit() exactly 0.
    double score = 0;
    std::array<float, 136> landmarks;  // the 68 points x0, y0, ... x67, y67 (iBUG 300-W order)
    FacePoints points;                 // the engine's fourteen, mapped from the 68
};

// What finds the faces whose landmarks are then fitted. Hog: dlib's frontal detector, built in,
// which misses faces turned more than about 30 degrees. Network: a single-shot detector (MobileNet
// v1 at 512 x 512 pixels, through OpenCV's dnn module) whose weights
// tools/fetch_descriptor_model.sh installs beside the descriptor's; it finds turned and small faces
// that Hog misses (detect/README.md has the measurements). Available when the library is built with
// OpenCV's dnn module.
enum class FaceFinder { Hog, Network };

// The network finder's manifest, in the descriptor's model folder.
inline constexpr const char* kFaceNetworkManifestFile =
    "ssd_mobilenetv1_model-weights_manifest.json";

struct DetectorOptions {
    std::string modelPath;  // empty: MSMFACE_LANDMARK_MODEL, else kDefaultLandmarkModel
    // Frames are searched again at twice the size when no face was found at the original size
    // and the frame is at most this wide and this tall (small faces escape the detector's
    // 80-pixel window; on the real faces of ../shared/faces 78 % of frames have their face found
    // at the original size, 97 % with the doubled search). 0: the original size only.
    int upsampleBelowWidth = 1280;
    FaceFinder finder = FaceFinder::Hog;
    // Network only: the weights' folder (holding kFaceNetworkManifestFile and the file it names)
    // or the manifest itself; empty: MSMFACE_DESCRIPTOR_MODEL's folder, else
    // defaultDescriptorModelFolder() (<msmface/descriptor.h>), as the descriptor finds its own.
    std::string networkPath;
    // Network only: the least confidence (0 to 1 exclusive) of a face kept.
    double networkThreshold = 0.5;
};

// The fourteen engine points from the 68 landmarks: each point is the mean of one to six
// landmarks (eye centres: the whole eye contour); the table and the agreement measured on real
// faces are in detect/README.md.
MSMFACE_DETECT_API FacePoints pointsFromLandmarks(const std::array<float, 136>& landmarks);

// The box detect() would give for a face whose fourteen points are known (a host's own points, a
// manifest's), for Detector::fit: a square 2.27 times the distance from the eyes' midpoint to the
// mouth centre, centred 0.42 of that distance below the midpoint across the eye line (measured
// against detect() on the real faces of ../shared/faces; detect/README.md). Needs the eye centres
// (points 0 and 1) and the mouth centre (13); fails (Argument) when one is absent or not finite,
// or when the mouth lies within a pixel of the eyes.
MSMFACE_DETECT_API Result<FaceBox> boxFromPoints(const FacePoints& points);

class MSMFACE_DETECT_API Detector {
  public:
    // Loads the landmark model (about a second). A missing model is a NotFound failure naming the
    // file and the package that installs it; a damaged or truncated one a File failure.
    static Result<Detector> create(const DetectorOptions& options = {});

    Detector(Detector&&) noexcept;
    Detector& operator=(Detector&&) noexcept;
    ~Detector();

    // Every face in the frame, the largest first; an empty list when there is none. A frame
    // view that breaks FrameView's requirements, or whose sides are outside 1 to 16384, is an
    // Argument failure naming what is wrong.
    Result<std::vector<DetectedFace>> detect(const FrameView& frame) const;
    // The landmarks of the face inside box (no detection). requires: a box of positive size that
    // overlaps the frame (else an Argument failure); a box like detect()'s fits best.
    Result<DetectedFace> fit(const FrameView& frame, const FaceBox& box) const;

    class Impl;

  private:
    explicit Detector(std::shared_ptr<const Impl> impl);
    std::shared_ptr<const Impl> impl_;
    friend class Follower;
    friend class Tracker;
};

struct FollowerOptions {
    // Frames between full detections while a face is followed; 1: every frame is detected afresh
    // (still images that are not a sequence).
    int redetectEvery = 10;
};

// Follows the largest face of a video: full detection on the first frame, every redetectEvery
// frames and whenever the landmark fit degrades; between them the face is searched only near
// where the previous frame's landmarks put it, at about its previous size, which is several
// times cheaper and notices at once a face that left. While no face is seen, small faces (the
// doubled search) are looked for once every redetectEvery frames. detect/README.md has the
// details. A PointFinder, so it can be handed to a Gallery or a Stream.
class MSMFACE_DETECT_API Follower : public PointFinder {
  public:
    explicit Follower(const Detector& detector, const FollowerOptions& options = {});
    ~Follower() override;

    // The face in this frame, or false when there is none (or the frame view is not valid; the
    // Follower then starts afresh). A frame of another size than the last starts afresh too.
    bool track(const FrameView& frame, DetectedFace& out);
    bool findPoints(const FrameView& frame, FacePoints& out) override;
    void reset() override;

  private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace msmface

#endif  // MSMFACE_DETECT_H
