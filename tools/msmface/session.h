// One engine working on one dictionary directory, as the msmface program drives it: the persons of
// the directory's registry loaded into the engine, enrolment and deletion that keep registry and
// files in step, the constraint space, and recognition of a run of frames with the score of every
// person.
#ifndef MSMFACE_TOOLS_MSMFACE_SESSION_H
#define MSMFACE_TOOLS_MSMFACE_SESSION_H

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <msmface/msmface.h>

#include "image_io.h"
#include "registry.h"

namespace msmcli {

// A camera frame with the fourteen feature points of the face in it.
struct Frame {
    std::shared_ptr<const GreyImage> image;
    std::array<double, 28> points{};
};

// copies x frames.size() frames: copy 0 is the frames as they are, every further copy moves each
// point by up to `pixels` in x and y (uniformly, deterministic in seed), as a live camera's
// detector would from frame to frame.
std::vector<Frame> jitterFrames(const std::vector<Frame>& frames, int copies, double pixels,
                                uint32_t seed);

inline constexpr int kMethodSinglePattern = 0;
inline constexpr int kMethodMsm = 1;
inline constexpr int kMethodCmsm = 4;
inline constexpr const char* kConstraintListName = "constraint.list";
inline constexpr const char* kConstraintStem = "cmsm";

struct Recognition {
    std::vector<int> scores;  // per person, in persons() order; -1 where none was computed
    int framesUsed = 0;       // frames whose face could be normalised
    int best = -1;            // index into persons(), -1 when nothing was scored
    int bestScore = 0;
    bool accepted = false;  // bestScore above the identify threshold
};

class Session {
  public:
    Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Opens dir (which must exist and be a directory) and loads the persons of its registry
    // whose dictionary files exist; the others are reported by orphans(). Returns an empty
    // string or a one-line reason.
    std::string open(const std::string& dir);
    const std::vector<Person>& persons() const { return persons_; }
    const std::vector<Person>& orphans() const { return orphans_; }
    const std::string& directory() const { return dir_; }
    int findById(int id) const;  // index into persons(), or -1

    // True when a file can be created in the directory.
    std::string checkWritable() const;

    // Registers a new person from frames (a registration gathers 50 normalised faces; the
    // frames beyond are not used). Writes the person's files, then the registry; on any
    // failure nothing of the person is left. face, when given, receives the 64 x 64 normalised
    // face of the first gathered frame.
    std::string enrol(int id, const std::string& name, const std::vector<Frame>& frames,
                      std::vector<unsigned char>* face = nullptr);

    // Removes a person: the registry first, then the files.
    std::string remove(int id);

    // Builds the constraint space from every loaded person (its files "cmsm.*" and, last, the list
    // file in the directory) and loads it. dimension: 1 .. 256 constraint vectors.
    std::string buildConstraint(int dimension);
    bool hasConstraint() const;
    // Loads the directory's constraint space for method 4.
    std::string loadConstraint();

    // Recognises frames as one face seen by the camera, by method 0 (single pattern: each
    // person's score is averaged over the frames), 1 (MSM) or 4 (CMSM; loadConstraint first).
    std::string recognise(const std::vector<Frame>& frames, int method, Recognition& out,
                          std::vector<unsigned char>* face = nullptr);

    FaceRecognition& engine() { return *engine_; }

  private:
    bool crop(const Frame& frame, std::vector<unsigned char>* face);
    std::string loadDictionaries();
    void removePersonFiles(const std::string& name) const;

    std::unique_ptr<FaceRecognition> engine_;
    std::string dir_;
    std::vector<Person> persons_;
    std::vector<Person> orphans_;
    std::deque<std::string> keyNames_;  // stable storage the engine's records point into
    std::deque<HumanID> records_;
    bool constraintLoaded_ = false;
};

}  // namespace msmcli

#endif  // MSMFACE_TOOLS_MSMFACE_SESSION_H
