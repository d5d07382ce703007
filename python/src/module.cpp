// The compiled part of the Python package msmface (imported as msmface._msmface; the package's
// __init__.py re-exports it beside the pure Python parts).
#include <pybind11/pybind11.h>

#include <memory>

#include <msmface/frame.h>

#include <msmface/version.h>

#include "bindings.h"

PYBIND11_MODULE(_msmface, m) {
    m.doc() = "msmface: face recognition by the mutual subspace method (compiled part)";
    m.attr("__version__") = MSMFACE_VERSION_STRING;
    // The base of every finder a stream or gallery accepts (msmface.detect.Follower).
    pybind11::class_<msmface::PointFinder, std::shared_ptr<msmface::PointFinder>>(
        m, "PointFinder", "Finds the fourteen points of a face; msmface.detect.Follower is one.");
    // The base of the finders of descriptors (msmface.detect.FaceDescriber).
    pybind11::class_<msmface::DescriptorFinder, std::shared_ptr<msmface::DescriptorFinder>>(
        m, "DescriptorFinder",
        "Finds the descriptor of a face; msmface.detect.FaceDescriber is one.");
    msmpy::bindEngine(m);
    msmpy::bindGallery(m);
    msmpy::bindTracks(m);
    msmpy::bindClients(m);
    m.attr("HAVE_DETECT") = msmpy::bindDetect(m);
    m.attr("HAVE_VIDEO") = msmpy::bindVideo(m);
}
