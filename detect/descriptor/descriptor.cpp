// The face descriptor: its model files, the network built from them through OpenCV's dnn layers,
// and the chip cut from the landmarks with dlib.
#include <msmface/descriptor.h>

#include <sys/stat.h>

#include <opencv2/core.hpp>
#include <opencv2/dnn.hpp>

#include <dlib/image_processing/full_object_detection.h>
#include <dlib/image_transforms.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <string_view>
#include <utility>

#include "detect/descriptor/model_files.h"
#include "detect/detect_internal.h"
#include "io/byte_reader.h"

namespace msmface {

namespace {

// The weights are about 6 MB; anything far beyond is not this model and is not read.
constexpr std::size_t kMaxWeightBytes = std::size_t{64} << 20;

const detail::ModelLabel kLabel{"descriptor model", "descriptor"};

Status internalFailure(const std::exception& e) {
    return detail::internalFailure(kLabel, e);
}

std::string modelPathFrom(const DescriptorOptions& options) {
    if (!options.modelPath.empty()) return options.modelPath;
    const char* env = std::getenv(kDescriptorModelEnvironment);
    if (env != nullptr && *env != '\0') return env;
    return defaultDescriptorModelFolder();
}

using detail::Weights;

// Builds the residual network layer by layer. Tensors arrive in the publisher's layout (filters
// height, width, in, out; activations channels last) and are turned into OpenCV's (filters out,
// in, height, width; activations channels first).
class NetBuilder {
  public:
    explicit NetBuilder(Weights& weights) : weights_(weights) { net_.setInputsNames({"chip"}); }

    // Convolution (bias), then the per-channel scale, then ReLU when relu.
    // 'same' padding for stride 1 (one pixel around a 3x3 filter), 'valid' (none) else.
    bool conv(const std::string& prefix, int kernel, int in, int out, int stride, bool relu) {
        const auto* filters = weights_.take(prefix + "/conv/filters", {kernel, kernel, in, out});
        const auto* bias = weights_.take(prefix + "/conv/bias", {out});
        const auto* scale = weights_.take(prefix + "/scale/weights", {out});
        const auto* shift = weights_.take(prefix + "/scale/biases", {out});
        if (filters == nullptr || bias == nullptr || scale == nullptr || shift == nullptr)
            return false;
        const cv::Mat oihw = detail::filtersToOpenCv(*filters, kernel, in, out);
        cv::dnn::LayerParams c;
        c.set("kernel_size", kernel);
        c.set("stride", stride);
        c.set("pad", stride == 1 ? kernel / 2 : 0);
        c.set("num_output", out);
        c.set("bias_term", true);
        c.blobs = {oihw, detail::rowOf(*bias)};
        add(prefix + "/conv", "Convolution", c);
        cv::dnn::LayerParams s;
        s.set("bias_term", true);
        s.blobs = {detail::rowOf(*scale), detail::rowOf(*shift)};
        add(prefix + "/scale", "Scale", s);
        if (relu) this->relu(prefix + "/relu");
        return true;
    }
    void relu(const std::string& name) {
        cv::dnn::LayerParams p;
        add(name, "ReLU", p);
    }
    void pool(const std::string& name, const char* kind, int size, int stride) {
        cv::dnn::LayerParams p;
        p.set("pool", kind);
        p.set("kernel_size", size);
        p.set("stride", stride);
        p.set("ceil_mode", false);  // 'valid': only windows wholly inside
        add(name, "Pooling", p);
    }

    // Two 3x3 convolutions beside a shortcut, summed, then ReLU. A down block halves the size
    // with its first convolution (stride 2, no padding) while its shortcut averages 2x2 windows
    // and fills the new channels with zeros; where the halvings of an odd size disagree, the
    // convolution's side is completed with a row and a column of zeros at the far edges.
    bool residual(const std::string& prefix, int in, int out, bool down, int side) {
        const int input = last_;
        if (!conv(prefix + "/conv1", 3, in, out, down ? 2 : 1, true)) return false;
        if (!conv(prefix + "/conv2", 3, out, out, 1, false)) return false;
        int main = last_;
        int shortcut = input;
        if (down) {
            const int convSide = (side - 3) / 2 + 1;
            const int poolSide = side / 2;
            if (convSide != poolSide) main = pad(prefix + "/pad", main, 0, poolSide - convSide);
            last_ = input;
            pool(prefix + "/shortcut", "ave", 2, 2);
            shortcut = last_;
            if (out != in) shortcut = pad(prefix + "/widen", shortcut, out - in, 0);
        }
        cv::dnn::LayerParams sum;
        sum.set("operation", "sum");
        last_ = net_.addLayer(prefix + "/sum", "Eltwise", sum);
        net_.connect(main, 0, last_, 0);
        net_.connect(shortcut, 0, last_, 1);
        relu(prefix + "/relu");
        return true;
    }

    // The mean over the last block's positions and the fully connected layer to 128 values.
    bool head() {
        cv::dnn::LayerParams g;
        g.set("pool", "ave");
        g.set("global_pooling", true);
        add("mean", "Pooling", g);
        const auto* fc = weights_.take("fc", {256, kDescriptorSize});
        if (fc == nullptr) return false;
        cv::Mat w(kDescriptorSize, 256, CV_32F);
        for (int o = 0; o < kDescriptorSize; ++o)
            for (int i = 0; i < 256; ++i) w.at<float>(o, i) = (*fc)[i * kDescriptorSize + o];
        cv::dnn::LayerParams p;
        p.set("num_output", kDescriptorSize);
        p.set("bias_term", false);
        p.set("axis", 1);
        p.blobs = {w};
        add("fc", "InnerProduct", p);
        return true;
    }

    cv::dnn::Net net() { return net_; }

  private:
    void add(const std::string& name, const char* type, cv::dnn::LayerParams& p) {
        const int id = net_.addLayer(name, type, p);
        net_.connect(last_, 0, id, 0);
        last_ = id;
    }
    // Zeros appended: channels more channels, and spatial more rows and columns at the far edges.
    int pad(const std::string& name, int from, int channels, int spatial) {
        const int paddings[] = {0, 0, 0, channels, 0, spatial, 0, spatial};
        cv::dnn::LayerParams p;
        p.set("paddings", cv::dnn::DictValue::arrayInt(paddings, 8));
        p.set("value", 0.f);
        const int id = net_.addLayer(name, "Padding", p);
        net_.connect(from, 0, id, 0);
        return id;
    }

    Weights& weights_;
    cv::dnn::Net net_;
    int last_ = 0;  // the input
};

// The network as the model's publisher defines it: a 7x7 stride-2 convolution and a 3x3 stride-2
// max pool take the 150x150 chip to 35x35; residual blocks at 32, 64, 128 and 256 channels halve
// it to 17, 8, 4 and 2; the mean over positions and a fully connected layer give 128 values.
Result<cv::dnn::Net> buildNetwork(Weights& weights) {
    NetBuilder b(weights);
    struct Block {
        const char* name;
        int in, out;
        bool down;
    };
    static const Block blocks[] = {
        {"conv32_1", 32, 32, false},      {"conv32_2", 32, 32, false},
        {"conv32_3", 32, 32, false},      {"conv64_down", 32, 64, true},
        {"conv64_1", 64, 64, false},      {"conv64_2", 64, 64, false},
        {"conv64_3", 64, 64, false},      {"conv128_down", 64, 128, true},
        {"conv128_1", 128, 128, false},   {"conv128_2", 128, 128, false},
        {"conv256_down", 128, 256, true}, {"conv256_1", 256, 256, false},
        {"conv256_2", 256, 256, false},   {"conv256_down_out", 256, 256, true},
    };
    bool ok = b.conv("conv32_down", 7, 3, 32, 2, true);
    b.pool("pool", "max", 3, 2);
    int side = ((kDescriptorChipSide - 7) / 2 + 1 - 3) / 2 + 1;
    for (const Block& block : blocks) {
        if (!ok) break;
        ok = b.residual(block.name, block.in, block.out, block.down, side);
        if (block.down) side /= 2;
    }
    ok = ok && b.head();
    const std::string error = weights.error();
    if (!ok || !error.empty())
        return Status::failure(ErrorKind::File,
                               "weights manifest does not describe the face descriptor "
                               "network: " +
                                   error);
    cv::dnn::Net net = b.net();
    net.setPreferableBackend(cv::dnn::DNN_BACKEND_OPENCV);
    net.setPreferableTarget(cv::dnn::DNN_TARGET_CPU);
    return net;
}

// A frame seen by dlib's image functions in place: rows of the caller's pixels, never written.
// dlib finds the functions below beside the type.
template <class Pixel>
struct FramePixels {
    const unsigned char* data;
    long rows, columns, stride;
};
template <class Pixel>
long num_rows(const FramePixels<Pixel>& f) {
    return f.rows;
}
template <class Pixel>
long num_columns(const FramePixels<Pixel>& f) {
    return f.columns;
}
template <class Pixel>
long width_step(const FramePixels<Pixel>& f) {
    return f.stride;
}
template <class Pixel>
const void* image_data(const FramePixels<Pixel>& f) {
    return f.data;
}

}  // namespace
}  // namespace msmface

namespace dlib {
template <class Pixel>
struct image_traits<msmface::FramePixels<Pixel>> {
    using pixel_type = Pixel;
};
}  // namespace dlib

namespace msmface {

namespace {

// The share of the chip whose pixels come from inside the frame, on a grid of 15 x 15 samples.
double shareInside(const dlib::chip_details& details, long width, long height) {
    const dlib::point_transform_affine toFrame = dlib::inv(dlib::get_mapping_to_chip(details));
    int inside = 0;
    constexpr int kSamples = 15;
    for (int r = 0; r < kSamples; ++r)
        for (int c = 0; c < kSamples; ++c) {
            const double step = static_cast<double>(kDescriptorChipSide) / kSamples;
            const dlib::dpoint p = toFrame(dlib::dpoint((c + 0.5) * step, (r + 0.5) * step));
            inside += p.x() >= 0 && p.y() >= 0 && p.x() <= width - 1 && p.y() <= height - 1;
        }
    return static_cast<double>(inside) / (kSamples * kSamples);
}

template <class Pixel>
void extractChip(const FrameView& frame, const dlib::chip_details& details, FaceChip& out) {
    const FramePixels<Pixel> view{frame.data, frame.height, frame.width, frame.rowBytes()};
    dlib::array2d<dlib::rgb_pixel> chip;
    dlib::extract_image_chip(view, details, chip);
    out.rgb.resize(3 * kDescriptorChipSide * kDescriptorChipSide);
    for (long r = 0; r < kDescriptorChipSide; ++r)
        for (long c = 0; c < kDescriptorChipSide; ++c) {
            unsigned char* px = &out.rgb[3 * (r * kDescriptorChipSide + c)];
            px[0] = chip[r][c].red;
            px[1] = chip[r][c].green;
            px[2] = chip[r][c].blue;
        }
}

}  // namespace

std::string defaultDescriptorModelFolder() {
    const char* data = std::getenv("XDG_DATA_HOME");
    if (data != nullptr && *data == '/') return std::string(data) + "/msmface/descriptor";
    const char* home = std::getenv("HOME");
    return std::string(home != nullptr ? home : "") + "/.local/share/msmface/descriptor";
}

Result<FaceChip> cutFaceChip(const FrameView& frame, const std::array<float, 136>& landmarks) {
    const Status valid = detail::checkFrame(frame);
    if (!valid) return valid;
    // Landmarks far beyond any frame are no face; the bound also keeps the conversion to dlib's
    // whole-pixel points defined.
    const float bound = 4.0f * detail::kMaxFrameSide;
    double cx = 0, cy = 0;
    for (std::size_t i = 0; i < landmarks.size(); i += 2) {
        if (!std::isfinite(landmarks[i]) || !std::isfinite(landmarks[i + 1]) ||
            std::fabs(landmarks[i]) > bound || std::fabs(landmarks[i + 1]) > bound)
            return Status::failure(
                ErrorKind::Argument,
                "landmarks: point " + std::to_string(i / 2) + " is not a finite frame position");
        cx += landmarks[i];
        cy += landmarks[i + 1];
    }
    cx /= detail::kLandmarkCount;
    cy /= detail::kLandmarkCount;
    if (cx < 0 || cy < 0 || cx > frame.width - 1 || cy > frame.height - 1)
        return Status::failure(ErrorKind::Argument, "landmarks: the face's centre (" +
                                                        std::to_string(cx) + ", " +
                                                        std::to_string(cy) + ") lies outside the " +
                                                        std::to_string(frame.width) + " x " +
                                                        std::to_string(frame.height) + " frame");
    try {
        std::vector<dlib::point> parts;
        for (std::size_t i = 0; i < landmarks.size(); i += 2)
            parts.emplace_back(std::lround(landmarks[i]), std::lround(landmarks[i + 1]));
        dlib::rectangle box;
        for (const dlib::point& p : parts) box += p;
        const dlib::full_object_detection shape(box, parts);
        const dlib::chip_details details =
            dlib::get_face_chip_details(shape, kDescriptorChipSide, 0.25);
        if (details.rect.width() < kMinChipSourceSide)
            return Status::failure(
                ErrorKind::Argument,
                "face: its chip spans " + std::to_string(std::lround(details.rect.width())) +
                    " frame pixels, expected at least " + std::to_string(kMinChipSourceSide) +
                    " (too small to describe)");
        const double inside = shareInside(details, frame.width, frame.height);
        if (inside < 0.5)
            return Status::failure(ErrorKind::Argument,
                                   "face: only " + std::to_string(std::lround(100 * inside)) +
                                       " % of its chip lies inside the frame, expected at least "
                                       "50 % (too close to the border)");
        FaceChip chip;
        if (frame.format == PixelFormat::Grey)
            extractChip<unsigned char>(frame, details, chip);
        else if (frame.format == PixelFormat::RGB)
            extractChip<dlib::rgb_pixel>(frame, details, chip);
        else
            extractChip<dlib::bgr_pixel>(frame, details, chip);
        return chip;
    } catch (const std::exception& e) {
        return internalFailure(e);
    }
}

class Descriptor::Impl {
  public:
    cv::dnn::Net net;
};

Result<Descriptor> Descriptor::load(const DescriptorOptions& options) {
    if (options.threads < 0)
        return Status::failure(ErrorKind::Argument,
                               "threads: " + std::to_string(options.threads) +
                                   ", expected 0 (leave OpenCV's setting) or more");
    try {
        auto loaded = detail::loadWeights(modelPathFrom(options), kDescriptorManifestFile,
                                          kMaxWeightBytes, kLabel);
        if (!loaded) return loaded.status();
        const std::string manifestPath = loaded->manifestPath;
        Weights weights(*loaded);
        auto net = buildNetwork(weights);
        if (!net) return Status::failure(ErrorKind::File, manifestPath + ": " + net.message());
        if (options.threads > 0 && cv::getNumThreads() != options.threads)
            cv::setNumThreads(options.threads);
        auto impl = std::make_unique<Impl>();
        impl->net = std::move(net).value();
        return Descriptor(std::move(impl));
    } catch (const std::exception& e) {
        return internalFailure(e);
    }
}

Descriptor::Descriptor(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Descriptor::Descriptor(Descriptor&&) noexcept = default;
Descriptor& Descriptor::operator=(Descriptor&&) noexcept = default;
Descriptor::~Descriptor() = default;

Result<FaceDescriptor> Descriptor::compute(const FrameView& frame, const DetectedFace& face) const {
    if (!impl_) return Status::failure(ErrorKind::Argument, "descriptor: used after it was moved");
    auto chip = cutFaceChip(frame, face.landmarks);
    if (!chip) return chip.status();
    return computeChip(chip->view());
}

Result<FaceDescriptor> Descriptor::computeChip(const FrameView& chip) const {
    if (!impl_) return Status::failure(ErrorKind::Argument, "descriptor: used after it was moved");
    const Status valid = detail::checkFrame(chip);
    if (!valid) return valid;
    if (chip.width != kDescriptorChipSide || chip.height != kDescriptorChipSide)
        return Status::failure(ErrorKind::Argument,
                               "chip: " + std::to_string(chip.width) + " x " +
                                   std::to_string(chip.height) + " pixels, expected " +
                                   std::to_string(kDescriptorChipSide) + " x " +
                                   std::to_string(kDescriptorChipSide));
    try {
        // The network was trained on (rgb - mean) / 255, channels first.
        static constexpr float kMean[3] = {122.782f, 117.001f, 104.298f};
        constexpr int n = kDescriptorChipSide;
        const int sizes[] = {1, 3, n, n};
        cv::Mat blob(4, sizes, CV_32F);
        float* planes = blob.ptr<float>();
        const int bpp = bytesPerPixel(chip.format);
        // Offsets of red, green and blue within a pixel.
        const int red = chip.format == PixelFormat::BGR ? 2 : 0;
        const int at[3] = {bpp == 1 ? 0 : red, bpp == 1 ? 0 : 1, bpp == 1 ? 0 : 2 - red};
        for (int y = 0; y < n; ++y) {
            const unsigned char* in = chip.data + static_cast<long>(y) * chip.rowBytes();
            for (int x = 0; x < n; ++x, in += bpp)
                for (int c = 0; c < 3; ++c)
                    planes[(c * n + y) * n + x] = (in[at[c]] - kMean[c]) / 255.0f;
        }
        cv::dnn::Net& net = impl_->net;
        net.setInput(blob, "chip");
        const cv::Mat out = net.forward();
        if (out.total() != kDescriptorSize || out.type() != CV_32F)
            return Status::failure(ErrorKind::Internal, "descriptor: the network gave " +
                                                            std::to_string(out.total()) +
                                                            " values, expected 128");
        const float* v = out.ptr<float>();
        double norm = 0;
        for (int i = 0; i < kDescriptorSize; ++i) norm += static_cast<double>(v[i]) * v[i];
        norm = std::sqrt(norm);
        if (!std::isfinite(norm) || norm <= 0)
            return Status::failure(
                ErrorKind::Internal,
                "descriptor: the network gave no direction (length " + std::to_string(norm) + ")");
        FaceDescriptor d;
        for (int i = 0; i < kDescriptorSize; ++i) d[i] = static_cast<float>(v[i] / norm);
        return d;
    } catch (const std::exception& e) {
        return internalFailure(e);
    }
}

}  // namespace msmface
