// The detector library's objects as Python holds them, shared by the bindings of its users (the
// follower, the describer, the tracker). Each box serialises Python threads on what it holds.
#ifndef MSMFACE_PYTHON_DETECT_BOXES_H
#define MSMFACE_PYTHON_DETECT_BOXES_H

#ifdef MSMFACE_PYTHON_DETECT

#include <mutex>
#include <string>
#include <utility>

#include <pybind11/pybind11.h>

#include <msmface/detect.h>
#ifdef MSMFACE_PYTHON_DESCRIPTOR
#include <msmface/descriptor.h>
#endif

namespace msmpy {

// The Detector reads its model only; one Python thread at a time still, as its contract asks.
struct DetectorBox {
    explicit DetectorBox(msmface::Detector d) : detector(std::move(d)) {}
    msmface::Detector detector;
    std::mutex lock;
};

#ifdef MSMFACE_PYTHON_DESCRIPTOR
// The network serves one thread at a time, as its contract asks.
struct DescriptorBox {
    explicit DescriptorBox(msmface::Descriptor d) : descriptor(std::move(d)) {}
    msmface::Descriptor descriptor;
    std::mutex lock;
};
#endif

// "(left, top, width, height)", for the results' repr.
inline std::string boxText(const msmface::FaceBox& b) {
    return "(" + std::to_string(b.left) + ", " + std::to_string(b.top) + ", " +
           std::to_string(b.width) + ", " + std::to_string(b.height) + ")";
}

// msmface.detect.Tracker and its results, added to the submodule d after Detector, Face and
// FaceBox.
void bindTracker(pybind11::module_& d);
// msmface.detect.Watcher and its results, after the Tracker.
void bindWatcher(pybind11::module_& d);

}  // namespace msmpy

#endif  // MSMFACE_PYTHON_DETECT

#endif  // MSMFACE_PYTHON_DETECT_BOXES_H
