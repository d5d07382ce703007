// The parts of the module, one function per file, called from module.cpp.
#ifndef MSMFACE_PYTHON_BINDINGS_H
#define MSMFACE_PYTHON_BINDINGS_H

#include <pybind11/pybind11.h>

namespace msmpy {

void bindEngine(pybind11::module_& m);
void bindGallery(pybind11::module_& m);
// TrackRecognition and its events, after the gallery.
void bindTracks(pybind11::module_& m);
// Jitter and the frames offered, frame lists, calibration, the normalised face.
void bindClients(pybind11::module_& m);
// Adds the submodule "detect" when the detector library was built; returns whether it was.
bool bindDetect(pybind11::module_& m);
// Adds msmface._VideoReader when the module was built with OpenCV's video reading; returns
// whether it was.
bool bindVideo(pybind11::module_& m);

}  // namespace msmpy

#endif  // MSMFACE_PYTHON_BINDINGS_H
