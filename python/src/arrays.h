// NumPy arrays as the library's frames and points, and the library's results as exceptions.
// Every check here raises ValueError with one line naming the argument, what was expected and
// what was found, so that all entry points reject bad input alike.
#ifndef MSMFACE_PYTHON_ARRAYS_H
#define MSMFACE_PYTHON_ARRAYS_H

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <climits>
#include <string>
#include <vector>

#include <msmface/frame.h>
#include <msmface/result.h>

namespace msmpy {

namespace py = pybind11;

// A frame that refers to the caller's array: view.data points into `array`, which this object
// keeps alive, so the view stays valid while the GIL is released.
struct FrameArg {
    msmface::FrameView view;
    py::array array;
};

// frame: an H x W (grey) or H x W x 3 uint8 array whose pixels lie side by side within a row
// (any positive row stride: slices of rows and crops are taken without a copy). colour: the order
// of the three bytes of a colour frame, "bgr" or "rgb".
FrameArg frameFromArray(const py::handle& frame, const std::string& colour,
                        const char* what = "frame");

// "bgr" or "rgb" (any case) as the library's pixel format of a colour frame.
msmface::PixelFormat colourFormat(const std::string& colour);

// points: an array-like of shape (14, 2) (or 28 numbers), any real dtype; NaN or a negative
// coordinate marks a point as absent.
msmface::FacePoints pointsFromArray(const py::handle& points, const char* what = "points");

// The points as a float32 array of shape (14, 2).
py::array_t<float> pointsToArray(const msmface::FacePoints& points);

// descriptor: an array-like of 128 real numbers (any real dtype, shape (128,)). The values are
// taken as they are: whether they describe a face (finite, of non-zero length) the library says.
msmface::FaceDescriptor descriptorFromArray(const py::handle& descriptor,
                                            const char* what = "descriptor");

// descriptors: an (n, 128) array or a sequence of n descriptors.
std::vector<msmface::FaceDescriptor> descriptorsFromArray(const py::handle& descriptors,
                                                          const char* what = "descriptors");

// The descriptor as a float32 array of shape (128,).
py::array_t<float> descriptorToArray(const msmface::FaceDescriptor& descriptor);

// Raises the Python exception for a failed status: ValueError for Argument and NotFound,
// OSError for File and Busy, RuntimeError otherwise. requires: !status.ok().
[[noreturn]] void raise(const msmface::Status& status);

inline void check(const msmface::Status& status) {
    if (!status.ok()) raise(status);
}

template <class T>
T take(msmface::Result<T>&& result) {
    if (!result.ok()) raise(result.status());
    return std::move(result).value();
}

[[noreturn]] void raiseValueError(const std::string& message);

// An integer argument as the library's int: a Python int or anything that is one (NumPy's
// integers), not a bool, from lo to hi. Anything else, also an int beyond C's (2**40), raises
// ValueError naming the argument, never the binding's own cast error.
int intArgument(const py::handle& value, const char* name, long long lo = INT_MIN,
                long long hi = INT_MAX);

// intArgument over the whole range of 64-bit integers (track and frame numbers).
long long int64Argument(const py::handle& value, const char* name, long long lo = LLONG_MIN,
                        long long hi = LLONG_MAX);

// A real number (a Python float or int, NumPy's floats), not a bool; anything else raises
// ValueError naming the argument. NaN and the infinities pass: whether they mean anything the
// library says.
double realArgument(const py::handle& value, const char* name);

// intArgument, or `unset` for None.
int optionalIntArgument(const py::handle& value, int unset, const char* name,
                        long long lo = INT_MIN, long long hi = INT_MAX);

// The name a bound enumeration gives a value ("STARTED"), for the results' repr. requires: the
// GIL is held and E is bound.
template <class E>
std::string enumName(E value) {
    return py::str(py::cast(value).attr("name")).cast<std::string>();
}

}  // namespace msmpy

#endif  // MSMFACE_PYTHON_ARRAYS_H
