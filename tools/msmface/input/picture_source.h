// Where the msmface program's pictures come from when they come without points: image files, a
// video file (through OpenCV's FFmpeg backend) or a camera (V4L2), read one frame at a time.
#ifndef MSMFACE_TOOLS_MSMFACE_PICTURE_SOURCE_H
#define MSMFACE_TOOLS_MSMFACE_PICTURE_SOURCE_H

#include <memory>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

namespace msmcli {

struct PictureSourceOptions {
    std::vector<std::string> images;
    std::string video;
    int camera = -1;  // -1: none
    int frames = 0;   // frames taken at most; 0: every frame (a camera: kDefaultCameraFrames)
};

// A camera never ends by itself: without --frames this many frames are taken.
inline constexpr int kDefaultCameraFrames = 100;
// Video frames larger than this are not a camera's.
inline constexpr int kMaxVideoSide = 8192;

class PictureSource {
  public:
    virtual ~PictureSource() = default;
    // The next frame (8-bit grey or BGR). False at the end or on failure; error() tells which.
    virtual bool next(cv::Mat& frame) = 0;
    // Empty, or the one-line reason the source stopped early.
    const std::string& error() const { return error_; }
    // The file or argument the frames come from, as the user named it.
    virtual std::string name() const = 0;
    // The last frame's name for lists and messages ("photo.jpg", "clip.avi frame 12").
    virtual std::string frameName() const = 0;
    // The last frame's time in seconds from the start of the video (a camera: since opening).
    virtual double seconds() const = 0;
    // Frames per second of a video or camera (25 when it does not say); 0 for image files.
    virtual double rate() const = 0;
    int taken() const { return taken_; }

  protected:
    std::string error_;
    int taken_ = 0;
};

// Opens the one source that options name. Returns an empty string, or a one-line reason naming
// the file or argument (a video that does not open or has no decodable frame, a missing camera).
std::string openPictureSource(const PictureSourceOptions& options,
                              std::unique_ptr<PictureSource>& out);

// True when options name images, a video or a camera.
inline bool namesPictures(const PictureSourceOptions& o) {
    return !o.images.empty() || !o.video.empty() || o.camera >= 0;
}

}  // namespace msmcli

#endif  // MSMFACE_TOOLS_MSMFACE_PICTURE_SOURCE_H
