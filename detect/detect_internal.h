// What the detector's parts share inside the library: the grey frame, the model and the steps
// from pixels to fitted faces.
#ifndef MSMFACE_DETECT_DETECT_INTERNAL_H
#define MSMFACE_DETECT_DETECT_INTERNAL_H

#include <msmface/detect.h>

#include <dlib/image_processing.h>
#include <dlib/image_processing/frontal_face_detector.h>

#include <vector>

namespace msmface {

namespace detail {
class FaceNetwork;
}

class Detector::Impl {
  public:
    dlib::shape_predictor shapes;  // read-only once loaded: shared by every user
    // The search keeps state in the object, so each user (the Detector, each Follower) searches
    // with a copy of its own.
    dlib::frontal_face_detector faces;
    int upsampleBelowWidth = 0;
    // The network finder, when chosen; it serialises its users itself.
    std::shared_ptr<const detail::FaceNetwork> network;
};

namespace detail {

using GreyImage = dlib::array2d<unsigned char>;

inline constexpr unsigned long kLandmarkCount = 68;
// Sides beyond this are no camera frame; refusing them keeps a wrong size from driving a huge
// grey copy.
inline constexpr int kMaxFrameSide = 16384;

// Success, or one message naming what is wrong with the view.
Status checkFrame(const FrameView& frame);
// requires: checkFrame(frame).ok().
void toGrey(const FrameView& frame, GreyImage& grey);

// Every face in the frame, the largest first, in frame pixels. Frames no wider and no taller than
// upsampleBelowWidth are searched again at twice the size when nothing was found.
std::vector<dlib::rect_detection> findFaces(dlib::frontal_face_detector& detector,
                                            const GreyImage& grey, int upsampleBelowWidth);

// The network finder: boxes of faces in a grey frame, in frame pixels, the largest first, each
// already mapped to the box the landmark model expects (the HOG detector's framing), with the
// network's confidence (0.5 to 1 at the default threshold). A network is shared: find() takes a
// lock, so Followers on several threads take turns.
class FaceNetwork {
  public:
    virtual ~FaceNetwork() = default;
    virtual std::vector<dlib::rect_detection> find(const GreyImage& grey) const = 0;
};

// The network of options (finder Network): its weights read and its layers built. Fails with one
// line naming the file and what is wrong, or that the library was built without OpenCV's dnn.
Result<std::shared_ptr<const FaceNetwork>> loadFaceNetwork(const DetectorOptions& options);

// Every face in the frame by the finder the Detector was created with: the network's when it has
// one (upsampleBelowWidth unused: the network sees small faces at the frame's size), else hog's
// search as findFaces below.
std::vector<dlib::rect_detection> findFaces(const Detector::Impl& impl,
                                            dlib::frontal_face_detector& hog, const GreyImage& grey,
                                            int upsampleBelowWidth);

// The detector's window: faces with a smaller box are found only in a doubled copy of the frame.
inline constexpr int kDetectorWindow = 80;

// Every face in a copy of the frame at twice its size, which finds faces down to half the
// detector's window (and the larger ones too, at several times the cost), in frame pixels, the
// largest first.
std::vector<dlib::rect_detection> findFacesDoubled(dlib::frontal_face_detector& detector,
                                                   const GreyImage& grey);

// A copy of the detector that searches only a few sizes around kNearFaceWidth: the search near
// a face already known, at a fraction of the cost of a whole frame.
dlib::frontal_face_detector nearSearch(const dlib::frontal_face_detector& detector);

// The faces that nearSearch finds in region, a square about twice as wide as the expected face of
// about faceWidth pixels, in frame pixels, the largest first. adjustThreshold below 0 accepts
// weaker faces than a whole-frame search would.
std::vector<dlib::rect_detection> findFacesNear(dlib::frontal_face_detector& near,
                                                const GreyImage& grey,
                                                const dlib::rectangle& region, double faceWidth,
                                                double adjustThreshold);

// The 68 landmarks inside box and the fourteen points mapped from them.
DetectedFace fitFace(const dlib::shape_predictor& model, const GreyImage& grey,
                     const dlib::rectangle& box, double score);

// The nose tip and the mouth centre below the eyes' line by a plausible share of the eye
// distance: a fit that slid off the face loses these proportions.
bool plausibleFace(const FacePoints& points);

// One face followed from frame to frame: the Follower's face, and each track of a Tracker.
struct FollowedFace {
    DetectedFace last;  // where it was in the previous frame it was seen
    int weak = 0;       // frames in a row it was kept below the usual threshold

    // The face found near last's landmarks in this frame (a square 1.6 times its width, at about
    // its size), kept down to a detector score of -0.5; false when nothing is found there or when
    // it has been kept below 0 for patience frames in a row (then it may be no face at all, and
    // a whole-frame search must decide).
    bool findNear(dlib::frontal_face_detector& near, const GreyImage& grey, int patience,
                  dlib::rect_detection& out);
};

}  // namespace detail
}  // namespace msmface

#endif  // MSMFACE_DETECT_DETECT_INTERNAL_H
