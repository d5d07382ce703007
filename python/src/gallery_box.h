// What the bindings of a gallery's users share: the gallery as Python holds it, and the method
// argument as every recognising call reads it.
//
// The library lets one thread at a time use a gallery, and lets the gallery's streams and track
// recognitions run at once, also while the gallery changes. Python threads run the calls with the
// GIL released, so the binding keeps that contract itself: a gallery's changes, its own
// recognition and the making of a stream or track recognition take the lock exclusively, its
// readers shared.
#ifndef MSMFACE_PYTHON_GALLERY_BOX_H
#define MSMFACE_PYTHON_GALLERY_BOX_H

#include <shared_mutex>
#include <utility>

#include <pybind11/pybind11.h>

#include <msmface/gallery.h>

namespace msmpy {

struct GalleryBox {
    explicit GalleryBox(msmface::Gallery g) : gallery(std::move(g)) {}
    msmface::Gallery gallery;
    std::shared_mutex lock;
};

// "single", "msm", "cmsm", "cmsm_first_space", a Method, or the engine's numbers 0, 1, 2, 4;
// anything else raises ValueError naming the argument.
msmface::Method methodFrom(const pybind11::handle& method);

}  // namespace msmpy

#endif  // MSMFACE_PYTHON_GALLERY_BOX_H
