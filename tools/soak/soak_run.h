// A long recognition run for finding memory growth: a few synthetic persons enrolled into a
// directory through the exported engine interface, then frames of them recognised one after the
// other, with face-less gaps and, now and then, the gallery loaded anew as a host does after
// another process changed the directory. Shared by the soak tool and the memory test.
#ifndef MSMFACE_TOOLS_SOAK_SOAK_RUN_H
#define MSMFACE_TOOLS_SOAK_SOAK_RUN_H

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <msmface/msmface.h>

#include "synth/synth_face.h"

namespace msmsoak {

// Resident memory of this process in bytes (/proc/self/statm), 0 when unknown.
long residentBytes();

class SoakRun {
  public:
    // Frames are width x height; persons 2 .. 20 are enrolled into dir (an empty folder) from the
    // synthetic population seed.
    SoakRun(std::string dir, int persons, int width, int height, uint32_t seed);
    SoakRun(const SoakRun&) = delete;
    SoakRun& operator=(const SoakRun&) = delete;

    // Renders the frames and enrols the persons. An empty string or a reason.
    std::string prepare();
    // Recognises frames [done, done + count) of the endless sequence: every frame shows one of the
    // persons (40 in a row each), every 97th frame has no face, and every reloadEvery frames (0:
    // never) the engine is built anew and the dictionaries read again. Returns the frames whose
    // ranking named the right person first.
    long run(long count, long reloadEvery);
    long done() const { return done_; }

  private:
    std::string load();
    bool crop(const msmsynth::SynthFrame& f);

    std::string dir_;
    int persons_;
    int width_, height_;
    uint32_t seed_;
    long done_ = 0;
    std::vector<std::vector<msmsynth::SynthFrame>> takes_;  // per person, the frames recognised
    std::unique_ptr<FaceRecognition> engine_;
    std::unique_ptr<BasicImageFile> image_, face_;
    std::deque<std::string> names_;
    std::deque<HumanID> records_;
};

}  // namespace msmsoak

#endif  // MSMFACE_TOOLS_SOAK_SOAK_RUN_H
