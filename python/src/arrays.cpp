#include "arrays.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <limits>

namespace msmpy {

namespace {

std::string shapeText(const py::array& a) {
    std::string s = "(";
    for (py::ssize_t i = 0; i < a.ndim(); ++i) {
        if (i > 0) s += ", ";
        s += std::to_string(a.shape(i));
    }
    if (a.ndim() == 1) s += ",";
    return s + ")";
}

std::string dtypeText(const py::array& a) {
    return py::str(a.dtype()).cast<std::string>();
}

std::string typeName(const py::handle& h) {
    return py::str(py::type::handle_of(h).attr("__name__")).cast<std::string>();
}

}  // namespace

[[noreturn]] void raiseValueError(const std::string& message) {
    throw py::value_error(message);
}

long long int64Argument(const py::handle& value, const char* name, long long lo, long long hi) {
    const std::string range = std::to_string(lo) + " to " + std::to_string(hi);
    if (PyBool_Check(value.ptr()) || !PyIndex_Check(value.ptr()))
        raiseValueError(std::string(name) + ": expected an integer from " + range + ", got " +
                        typeName(value));
    const auto number = py::reinterpret_steal<py::object>(PyNumber_Index(value.ptr()));
    if (!number) throw py::error_already_set();
    int overflow = 0;
    const long long v = PyLong_AsLongLongAndOverflow(number.ptr(), &overflow);
    if (v == -1 && PyErr_Occurred()) throw py::error_already_set();
    if (overflow != 0)
        raiseValueError(std::string(name) + ": expected " + range +
                        ", got an integer of more than 64 bits");
    if (v < lo || v > hi)
        raiseValueError(std::string(name) + ": expected " + range + ", got " + std::to_string(v));
    return v;
}

int intArgument(const py::handle& value, const char* name, long long lo, long long hi) {
    return static_cast<int>(int64Argument(value, name, std::max<long long>(lo, INT_MIN),
                                          std::min<long long>(hi, INT_MAX)));
}

double realArgument(const py::handle& value, const char* name) {
    if (PyBool_Check(value.ptr()) ||
        !(PyFloat_Check(value.ptr()) || PyIndex_Check(value.ptr()) ||
          py::isinstance<py::float_>(value) || PyObject_HasAttrString(value.ptr(), "__float__")))
        raiseValueError(std::string(name) + ": expected a number, got " + typeName(value));
    const double v = PyFloat_AsDouble(value.ptr());
    if (v == -1.0 && PyErr_Occurred()) throw py::error_already_set();
    return v;
}

int optionalIntArgument(const py::handle& value, int unset, const char* name, long long lo,
                        long long hi) {
    return value.is_none() ? unset : intArgument(value, name, lo, hi);
}

msmface::PixelFormat colourFormat(const std::string& colour) {
    std::string c;
    for (char ch : colour) c += static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
    if (c == "bgr") return msmface::PixelFormat::BGR;
    if (c == "rgb") return msmface::PixelFormat::RGB;
    raiseValueError("format: expected \"bgr\" or \"rgb\", got \"" + colour + "\"");
}

FrameArg frameFromArray(const py::handle& frame, const std::string& colour, const char* what) {
    const std::string name = what;
    if (!py::isinstance<py::array>(frame)) {
        raiseValueError(name + ": expected a uint8 numpy array of shape (H, W) or (H, W, 3), got " +
                        typeName(frame));
    }
    auto a = py::reinterpret_borrow<py::array>(frame);
    const bool byteType = a.dtype().kind() == 'u' && a.dtype().itemsize() == 1;
    const bool shapeOk = a.ndim() == 2 || (a.ndim() == 3 && (a.shape(2) == 3 || a.shape(2) == 1));
    if (!byteType || !shapeOk) {
        raiseValueError(name + ": expected a uint8 array of shape (H, W) or (H, W, 3), got " +
                        dtypeText(a) + " " + shapeText(a));
    }
    const py::ssize_t height = a.shape(0), width = a.shape(1);
    const py::ssize_t channels = a.ndim() == 3 ? a.shape(2) : 1;
    if (height < 2 || width < 2) {
        raiseValueError(name + ": expected at least 2 x 2 pixels, got shape " + shapeText(a));
    }
    constexpr py::ssize_t kMaxSide = 1 << 15;
    if (height > kMaxSide || width > kMaxSide) {
        raiseValueError(name + ": expected at most " + std::to_string(kMaxSide) +
                        " pixels per side, got shape " + shapeText(a));
    }
    // Pixels of a row must be side by side (the library reads rows); rows may be anywhere after
    // each other in memory, which keeps crops and row slices free of copies.
    const bool rowContiguous = (channels == 1 || a.strides(2) == 1) && a.strides(1) == channels;
    const bool rowsForward = a.strides(0) >= width * channels;
    if (!rowContiguous || !rowsForward) {
        std::string strides = "(";
        for (py::ssize_t i = 0; i < a.ndim(); ++i) {
            if (i > 0) strides += ", ";
            strides += std::to_string(a.strides(i));
        }
        raiseValueError(name +
                        ": expected the pixels of each row side by side and rows in order "
                        "(C-contiguous or a slice of rows), got strides " +
                        strides + ") for shape " + shapeText(a) +
                        "; pass numpy.ascontiguousarray(" + name + ")");
    }
    if (a.strides(0) > std::numeric_limits<int>::max()) {
        raiseValueError(name + ": row stride " + std::to_string(a.strides(0)) + " is too large");
    }
    FrameArg out;
    out.array = a;
    out.view.data = static_cast<const unsigned char*>(a.data());
    out.view.width = static_cast<int>(width);
    out.view.height = static_cast<int>(height);
    out.view.stride = static_cast<int>(a.strides(0));
    out.view.format = channels == 3 ? colourFormat(colour) : msmface::PixelFormat::Grey;
    return out;
}

msmface::FacePoints pointsFromArray(const py::handle& points, const char* what) {
    const std::string name = what;
    if (points.is_none()) raiseValueError(name + ": expected an array of shape (14, 2), got None");
    py::array raw;
    try {
        raw = py::array::ensure(points);
    } catch (const py::error_already_set&) {
    }
    if (!raw) {
        raiseValueError(name + ": expected an array of shape (14, 2), got " + typeName(points));
    }
    const char kind = raw.dtype().kind();
    if (kind != 'f' && kind != 'i' && kind != 'u') {
        raiseValueError(name + ": expected real numbers of shape (14, 2), got " + dtypeText(raw) +
                        " " + shapeText(raw));
    }
    const bool shapeOk =
        (raw.ndim() == 2 && raw.shape(0) == msmface::kFacePointCount && raw.shape(1) == 2) ||
        (raw.ndim() == 1 && raw.shape(0) == 2 * msmface::kFacePointCount);
    if (!shapeOk) {
        raiseValueError(name + ": expected an array of shape (14, 2), got " + shapeText(raw));
    }
    auto values = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(raw);
    msmface::FacePoints out;
    const double* v = values.data();
    for (int i = 0; i < 2 * msmface::kFacePointCount; ++i) {
        // Infinite and NaN coordinates stay what they are: the library reads them as absent.
        // Beyond float's range a cast would be undefined; such a point is absent as well.
        const bool inRange =
            std::isnan(v[i]) || std::fabs(v[i]) <= std::numeric_limits<float>::max();
        out.xy[i] = inRange ? static_cast<float>(v[i]) : std::numeric_limits<float>::infinity();
    }
    return out;
}

namespace {

// A real-number array of the caller's, or ValueError naming what and what was expected.
py::array realArray(const py::handle& value, const std::string& name, const std::string& expected) {
    if (value.is_none()) raiseValueError(name + ": expected " + expected + ", got None");
    py::array raw;
    try {
        raw = py::array::ensure(value);
    } catch (const py::error_already_set&) {
    }
    if (!raw) raiseValueError(name + ": expected " + expected + ", got " + typeName(value));
    const char kind = raw.dtype().kind();
    if (kind != 'f' && kind != 'i' && kind != 'u')
        raiseValueError(name + ": expected " + expected + " of real numbers, got " +
                        dtypeText(raw) + " " + shapeText(raw));
    return raw;
}

// Beyond float's range a cast would be undefined: such a value is infinite, which the library
// refuses as it refuses NaN.
float toFloat(double v) {
    if (std::isnan(v) || std::fabs(v) <= std::numeric_limits<float>::max())
        return static_cast<float>(v);
    return v > 0 ? std::numeric_limits<float>::infinity() : -std::numeric_limits<float>::infinity();
}

msmface::FaceDescriptor descriptorOfRow(const double* v) {
    msmface::FaceDescriptor d;
    for (int i = 0; i < msmface::kDescriptorSize; ++i) d[i] = toFloat(v[i]);
    return d;
}

}  // namespace

msmface::FaceDescriptor descriptorFromArray(const py::handle& descriptor, const char* what) {
    const std::string name = what;
    const std::string expected =
        "an array of shape (" + std::to_string(msmface::kDescriptorSize) + ",)";
    const py::array raw = realArray(descriptor, name, expected);
    if (raw.ndim() != 1 || raw.shape(0) != msmface::kDescriptorSize)
        raiseValueError(name + ": expected " + expected + ", got " + shapeText(raw));
    auto values = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(raw);
    return descriptorOfRow(values.data());
}

std::vector<msmface::FaceDescriptor> descriptorsFromArray(const py::handle& descriptors,
                                                          const char* what) {
    const std::string name = what;
    const std::string expected =
        "an array of shape (n, " + std::to_string(msmface::kDescriptorSize) + ")";
    const py::array raw = realArray(descriptors, name, expected);
    if (raw.ndim() != 2 || raw.shape(1) != msmface::kDescriptorSize)
        raiseValueError(name + ": expected " + expected + ", got " + shapeText(raw));
    auto values = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(raw);
    std::vector<msmface::FaceDescriptor> out;
    out.reserve(static_cast<std::size_t>(raw.shape(0)));
    for (py::ssize_t r = 0; r < raw.shape(0); ++r)
        out.push_back(descriptorOfRow(values.data() + r * msmface::kDescriptorSize));
    return out;
}

py::array_t<float> descriptorToArray(const msmface::FaceDescriptor& descriptor) {
    py::array_t<float> out(msmface::kDescriptorSize);
    std::copy(descriptor.begin(), descriptor.end(), out.mutable_data());
    return out;
}

py::array_t<float> pointsToArray(const msmface::FacePoints& points) {
    py::array_t<float> out({msmface::kFacePointCount, 2});
    float* d = out.mutable_data();
    for (int i = 0; i < 2 * msmface::kFacePointCount; ++i) d[i] = points.xy[i];
    return out;
}

void raise(const msmface::Status& status) {
    switch (status.kind()) {
        case msmface::ErrorKind::Argument:
        case msmface::ErrorKind::NotFound:
            throw py::value_error(status.message());
        case msmface::ErrorKind::File:
        case msmface::ErrorKind::Busy:
            PyErr_SetString(PyExc_OSError, status.message().c_str());
            throw py::error_already_set();
        default:
            throw std::runtime_error(status.message());
    }
}

}  // namespace msmpy
