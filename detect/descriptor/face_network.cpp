// The network face finder: a single-shot detector on MobileNet v1, its layers built through
// OpenCV's dnn module from the publisher's weights, its boxes decoded against the anchors the
// weights carry.
#include <opencv2/core.hpp>
#include <opencv2/dnn.hpp>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <msmface/descriptor.h>

#include "detect/descriptor/model_files.h"
#include "detect/detect_internal.h"

namespace msmface::detail {

namespace {

const ModelLabel kLabel{"face network", "face network"};

// The weights are about 5.6 MB; anything far beyond is not this model and is not read.
constexpr std::size_t kMaxWeightBytes = std::size_t{64} << 20;

// The network sees the frame padded to a square (zeros at the right or the bottom) and resized to
// this side; its anchors fit this side only.
constexpr int kInputSide = 512;
constexpr int kAnchors = 5118;
// Boxes of one face overlapping this much are one detection.
constexpr float kSameFaceOverlap = 0.5f;
// At most this many faces a frame, the surest kept (the tracker's own bound is lower).
constexpr int kMaxFaces = 100;

// The network's box frames a face from the hairline to below the chin and is taller than wide;
// the landmark model was trained on the HOG detector's square from the brows to the chin. The
// square the model expects, in widths of the network's box: its side kBoxSide, its centre
// kBoxRight right of and kBoxDown below the box's centre. Measured on the real faces of
// ../shared/faces placed in 640 x 480 scenes where both finders find them (tools/detector_study,
// detect/README.md).
constexpr double kBoxSide = 1.24;
constexpr double kBoxRight = 0.04;
constexpr double kBoxDown = 0.08;

std::string modelPathFrom(const DetectorOptions& options) {
    if (!options.networkPath.empty()) return options.networkPath;
    const char* env = std::getenv(kDescriptorModelEnvironment);
    if (env != nullptr && *env != '\0') {
        // The descriptor's variable may name its manifest rather than its folder.
        const std::string named = env;
        const std::size_t slash = named.rfind('/');
        if (named.size() > 5 && named.compare(named.size() - 5, 5, ".json") == 0)
            return slash == std::string::npos ? "." : named.substr(0, slash);
        return named;
    }
    return defaultDescriptorModelFolder();
}

// One prediction head: where its boxes' encodings and class scores come out, and how many anchors
// each position has.
struct Head {
    std::string boxes, classes;
    int anchors;
};

// Builds the network layer by layer. Tensors arrive in the publisher's layout (filters height,
// width, in, out; depthwise filters height, width, channels, 1; activations channels last) and
// are turned into OpenCV's (out, in / groups, height, width; channels first). Every convolution
// pads as the publisher's framework does ('same': the output is the input's size divided by the
// stride, rounded up; an odd total padding puts the extra row and column at the far edges).
class NetBuilder {
  public:
    explicit NetBuilder(Weights& weights) : weights_(weights) { net_.setInputsNames({"frame"}); }

    // A convolution with the bias named biasName, then ReLU6 when clip; from the layer from
    // (-1: the last one added). The id of the layer added last, or -1.
    int conv(const std::string& name, const std::string& filtersName, const std::string& biasName,
             int kernel, int in, int out, int stride, bool clip, int from = -1) {
        const auto* filters = weights_.take(filtersName, {kernel, kernel, in, out});
        const auto* bias = weights_.take(biasName, {out});
        if (filters == nullptr || bias == nullptr) return -1;
        const cv::Mat oihw = filtersToOpenCv(*filters, kernel, in, out);
        return convLayer(name, oihw, rowOf(*bias), kernel, out, stride, 1, clip, from);
    }

    // A depthwise 3x3 convolution with its batch normalisation folded in, then ReLU6.
    bool depthwise(const std::string& prefix, int channels, int stride) {
        const auto* filters = weights_.take(prefix + "/depthwise_weights", {3, 3, channels, 1});
        const auto* gamma = weights_.take(prefix + "/BatchNorm/gamma", {channels});
        const auto* beta = weights_.take(prefix + "/BatchNorm/beta", {channels});
        const auto* mean = weights_.take(prefix + "/BatchNorm/moving_mean", {channels});
        const auto* variance = weights_.take(prefix + "/BatchNorm/moving_variance", {channels});
        if (filters == nullptr || gamma == nullptr || beta == nullptr || mean == nullptr ||
            variance == nullptr)
            return false;
        // The publisher's epsilon, in single precision as its framework adds it.
        constexpr float kEpsilon = 0.0010000000474974513f;
        const int sizes[] = {channels, 1, 3, 3};
        cv::Mat weights(4, sizes, CV_32F);
        cv::Mat bias(1, channels, CV_32F);
        for (int c = 0; c < channels; ++c) {
            const float scale = (*gamma)[c] / std::sqrt(std::max(0.0f, (*variance)[c]) + kEpsilon);
            bias.at<float>(c) = (*beta)[c] - (*mean)[c] * scale;
            for (int k = 0; k < 9; ++k)
                weights.ptr<float>()[c * 9 + k] = (*filters)[k * channels + c] * scale;
        }
        return convLayer(prefix, weights, bias, 3, channels, stride, channels, true, -1) >= 0;
    }

    cv::dnn::Net net() { return net_; }

  private:
    int convLayer(const std::string& name, const cv::Mat& weights, const cv::Mat& bias, int kernel,
                  int out, int stride, int groups, bool clip, int from) {
        int input = from < 0 ? last_ : from;
        // Every side here is even: a 3x3 stride-2 window needs one more row and column at the
        // far edges only, which OpenCV's symmetric padding cannot say.
        const bool farEdges = kernel == 3 && stride == 2;
        if (farEdges) {
            const int paddings[] = {0, 0, 0, 0, 0, 1, 0, 1};
            cv::dnn::LayerParams p;
            p.set("paddings", cv::dnn::DictValue::arrayInt(paddings, 8));
            p.set("value", 0.f);
            const int pad = net_.addLayer(name + "/pad", "Padding", p);
            net_.connect(input, 0, pad, 0);
            input = pad;
        }
        cv::dnn::LayerParams c;
        c.set("kernel_size", kernel);
        c.set("stride", stride);
        c.set("pad", farEdges ? 0 : kernel / 2);
        c.set("num_output", out);
        c.set("group", groups);
        c.set("bias_term", true);
        c.blobs = {weights, bias};
        const int id = net_.addLayer(name, "Convolution", c);
        net_.connect(input, 0, id, 0);
        last_ = id;
        if (clip) {
            cv::dnn::LayerParams r;
            r.set("min_value", 0.f);
            r.set("max_value", 6.f);
            last_ = net_.addLayer(name + "/relu6", "ReLU6", r);
            net_.connect(id, 0, last_, 0);
        }
        return last_;
    }

    Weights& weights_;
    cv::dnn::Net net_;
    int last_ = 0;  // the input
};

// The network as its publisher defines it: MobileNet v1 (a 3x3 stride-2 convolution, then
// thirteen depthwise-pointwise pairs, strides 2 at pairs 2, 4, 6 and 12) takes the 512 square to
// 16 x 16 x 1024; eight more convolutions halve it to 8, 4, 2 and 1. Six heads predict boxes:
// on pair 11's output (32 x 32, 3 anchors a position), on the last pair's and on the four
// halvings (6 anchors each): 5118 anchors in all, whose places the weights carry.
struct Built {
    cv::dnn::Net net;
    std::vector<Head> heads;
    std::vector<float> anchors;  // ymin, xmin, ymax, xmax of each, in the input's side
    // The input as the network was trained on it: pixel * scale - shift (-1 to 1).
    float inputScale = 0, inputShift = 0;
};

Result<Built> buildNetwork(Weights& weights) {
    NetBuilder b(weights);
    Built built;
    bool ok =
        b.conv("conv0", "MobilenetV1/Conv2d_0_pointwise/weights",
               "MobilenetV1/Conv2d_0_pointwise/convolution_bn_offset", 3, 3, 32, 2, true) >= 0;
    static const int kWidths[] = {32,  64,  128, 128, 256, 256,  512,
                                  512, 512, 512, 512, 512, 1024, 1024};
    int conv11 = -1, conv13 = -1;
    for (int i = 1; i <= 13 && ok; ++i) {
        const std::string prefix = "MobilenetV1/Conv2d_" + std::to_string(i);
        const int stride = (i == 2 || i == 4 || i == 6 || i == 12) ? 2 : 1;
        ok = b.depthwise(prefix + "_depthwise", kWidths[i - 1], stride);
        const int id = ok ? b.conv(prefix + "_pointwise", prefix + "_pointwise/weights",
                                   prefix + "_pointwise/convolution_bn_offset", 1, kWidths[i - 1],
                                   kWidths[i], 1, true)
                          : -1;
        ok = id >= 0;
        if (i == 11) conv11 = id;
        if (i == 13) conv13 = id;
    }
    // The extra layers: 1x1 narrowing, then 3x3 stride-2 widening, four times.
    static const int kExtra[][2] = {{256, 512}, {128, 256}, {128, 256}, {64, 128}};
    int in = 1024;
    std::vector<int> sources = {conv11, conv13};
    std::vector<int> sourceWidths = {512, 1024};
    for (int k = 0; k < 4 && ok; ++k) {
        const std::string p0 = "Prediction/Conv2d_" + std::to_string(2 * k) + "_pointwise";
        const std::string p1 = "Prediction/Conv2d_" + std::to_string(2 * k + 1) + "_pointwise";
        ok = b.conv(p0, p0 + "/weights", p0 + "/convolution_bn_offset", 1, in, kExtra[k][0], 1,
                    true) >= 0;
        const int id = ok ? b.conv(p1, p1 + "/weights", p1 + "/convolution_bn_offset", 3,
                                   kExtra[k][0], kExtra[k][1], 2, true)
                          : -1;
        ok = id >= 0;
        sources.push_back(id);
        sourceWidths.push_back(kExtra[k][1]);
        in = kExtra[k][1];
    }
    for (int h = 0; h < 6 && ok; ++h) {
        const std::string p = "Prediction/BoxPredictor_" + std::to_string(h);
        const int anchors = h == 0 ? 3 : 6;
        Head head{p + "/BoxEncodingPredictor", p + "/ClassPredictor", anchors};
        ok = b.conv(head.boxes, head.boxes + "/weights", head.boxes + "/biases", 1, sourceWidths[h],
                    4 * anchors, 1, false, sources[h]) >= 0 &&
             b.conv(head.classes, head.classes + "/weights", head.classes + "/biases", 1,
                    sourceWidths[h], 3 * anchors, 1, false, sources[h]) >= 0;
        built.heads.push_back(head);
    }
    const auto* anchors = ok ? weights.take("Output/extra_dim", {1, kAnchors, 4}) : nullptr;
    ok = anchors != nullptr;
    if (ok) built.anchors = *anchors;
    const auto* scale = ok ? weights.take("Preprocessor/mul/x", {}) : nullptr;
    const auto* shift = ok ? weights.take("Preprocessor/sub/y", {}) : nullptr;
    ok = scale != nullptr && shift != nullptr;
    if (ok) {
        built.inputScale = scale->front();
        built.inputShift = shift->front();
    }
    // Constants of the publisher's graph (reshape sizes, slice bounds) that the decoding below
    // fixes itself.
    if (ok) {
        for (int h = 0; h < 6; ++h) {
            const std::string p = "Prediction/BoxPredictor_" + std::to_string(h);
            weights.skip(p + "/stack_1/1");
            if (h == 0) {
                for (const char* s :
                     {"/stack_1/2", "/strided_slice/stack", "/strided_slice/stack_1", "/stack/3"})
                    weights.skip(p + s);
            }
        }
        for (const char* s :
             {"Postprocessor/Slice/begin", "Postprocessor/Slice/size", "Postprocessor/stack/1",
              "Preprocessor/ResizeImage/size", "concat_1/axis"})
            weights.skip(s);
    }
    const std::string error = weights.error();
    if (!ok || !error.empty())
        return Status::failure(ErrorKind::File,
                               "weights manifest does not describe the face network: " + error);
    built.net = b.net();
    built.net.setPreferableBackend(cv::dnn::DNN_BACKEND_OPENCV);
    built.net.setPreferableTarget(cv::dnn::DNN_TARGET_CPU);
    return built;
}

class SsdFaceNetwork final : public FaceNetwork {
  public:
    SsdFaceNetwork(Built built, double threshold)
        : built_(std::move(built)), threshold_(threshold) {
        for (const Head& h : built_.heads) {
            outputs_.push_back(h.boxes);
            outputs_.push_back(h.classes);
        }
    }

    std::vector<dlib::rect_detection> find(const GreyImage& grey) const override {
        const int width = static_cast<int>(grey.nc()), height = static_cast<int>(grey.nr());
        std::vector<dlib::rect_detection> found;
        if (width < 1 || height < 1) return found;
        // Padded to a square with black at the right or the bottom, then resized bilinearly as
        // the publisher's framework does (output pixel i samples input i * side / 512), then
        // scaled as the network was trained: its input, grey the same on all three channels.
        const int side = std::max(width, height);
        const float scale = built_.inputScale, shift = built_.inputShift;
        const int sizes[] = {1, 3, kInputSide, kInputSide};
        cv::Mat blob(4, sizes, CV_32F);
        const std::size_t plane = static_cast<std::size_t>(kInputSide) * kInputSide;
        float* planes = blob.ptr<float>();
        const double step = static_cast<double>(side) / kInputSide;
        std::vector<int> x0(kInputSide), x1(kInputSide);
        std::vector<float> ax(kInputSide);
        for (int x = 0; x < kInputSide; ++x) {
            const double sx = x * step;
            x0[x] = static_cast<int>(sx);
            x1[x] = std::min(x0[x] + 1, side - 1);
            ax[x] = static_cast<float>(sx - x0[x]);
        }
        auto at = [&](int yy, int xx) -> float {
            return yy < height && xx < width ? grey[yy][xx] : 0.0f;
        };
        for (int y = 0; y < kInputSide; ++y) {
            const double sy = y * step;
            const int y0 = static_cast<int>(sy), y1 = std::min(y0 + 1, side - 1);
            const float ay = static_cast<float>(sy - y0);
            float* row = planes + static_cast<std::size_t>(y) * kInputSide;
            for (int x = 0; x < kInputSide; ++x) {
                const float top = at(y0, x0[x]) + ax[x] * (at(y0, x1[x]) - at(y0, x0[x]));
                const float bottom = at(y1, x0[x]) + ax[x] * (at(y1, x1[x]) - at(y1, x0[x]));
                const float v = (top + ay * (bottom - top)) * scale - shift;
                row[x] = row[plane + x] = row[2 * plane + x] = v;
            }
        }
        std::vector<cv::Mat> out;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            built_.net.setInput(blob, "frame");
            built_.net.forward(out, outputs_);
        }
        std::vector<cv::Rect2d> boxes;
        std::vector<float> scores;
        decode(out, side, boxes, scores);
        std::vector<int> kept;
        cv::dnn::NMSBoxes(boxes, scores, static_cast<float>(threshold_), kSameFaceOverlap, kept,
                          1.0f, kMaxFaces);
        for (int i : kept) {
            const cv::Rect2d& r = boxes[static_cast<std::size_t>(i)];
            // The square the landmark model expects, clipped to the frame as the network's own
            // box is (a face cut by the border keeps the part inside).
            const double s = kBoxSide * r.width;
            const double cx = r.x + r.width / 2 + kBoxRight * r.width;
            const double cy = r.y + r.height / 2 + kBoxDown * r.width;
            const long left = std::lround(cx - s / 2), top = std::lround(cy - s / 2);
            const long sideLength = std::max(1L, std::lround(s));
            found.emplace_back(dlib::rect_detection{
                scores[static_cast<std::size_t>(i)], 0,
                dlib::rectangle(left, top, left + sideLength - 1, top + sideLength - 1)});
        }
        std::stable_sort(found.begin(), found.end(),
                         [](const dlib::rect_detection& a, const dlib::rect_detection& b) {
                             return a.rect.area() > b.rect.area();
                         });
        return found;
    }

  private:
    // Boxes of the anchors whose face score reaches the threshold, in frame pixels (side: the
    // padded square's side). Each head gives, per position (rows, then columns) and per anchor,
    // four offsets (centre y, centre x, log height, log width, scaled by 10, 10, 5, 5) and three
    // class logits of which the second is the face's.
    void decode(const std::vector<cv::Mat>& out, int side, std::vector<cv::Rect2d>& boxes,
                std::vector<float>& scores) const {
        const float logit = static_cast<float>(std::log(threshold_ / (1 - threshold_)));
        std::size_t anchor = 0;
        for (std::size_t h = 0; h < built_.heads.size(); ++h) {
            const cv::Mat& enc = out[2 * h];
            const cv::Mat& cls = out[2 * h + 1];
            const int a = built_.heads[h].anchors;
            const int rows = enc.size[2], cols = enc.size[3];
            const std::size_t plane = static_cast<std::size_t>(rows) * cols;
            const float* e = enc.ptr<float>();
            const float* c = cls.ptr<float>();
            for (int y = 0; y < rows; ++y)
                for (int x = 0; x < cols; ++x)
                    for (int k = 0; k < a; ++k, ++anchor) {
                        if (anchor >= kAnchors) return;
                        const std::size_t at = static_cast<std::size_t>(y) * cols + x;
                        const float face = c[(3 * k + 1) * plane + at];
                        if (!(face >= logit)) continue;
                        const float* p = &built_.anchors[4 * anchor];
                        const double ph = p[2] - p[0], pw = p[3] - p[1];
                        const double pcy = p[0] + ph / 2, pcx = p[1] + pw / 2;
                        const double ty = e[(4 * k + 0) * plane + at];
                        const double tx = e[(4 * k + 1) * plane + at];
                        const double th = std::min(e[(4 * k + 2) * plane + at] / 5.0, 10.0);
                        const double tw = std::min(e[(4 * k + 3) * plane + at] / 5.0, 10.0);
                        const double cy = ty / 10 * ph + pcy, cx = tx / 10 * pw + pcx;
                        const double hh = std::exp(th) * ph / 2, hw = std::exp(tw) * pw / 2;
                        const double top = std::max(0.0, cy - hh) * side;
                        const double bottom = std::min(1.0, cy + hh) * side;
                        const double left = std::max(0.0, cx - hw) * side;
                        const double right = std::min(1.0, cx + hw) * side;
                        if (!(bottom > top) || !(right > left)) continue;
                        boxes.emplace_back(left, top, right - left, bottom - top);
                        scores.push_back(1.0f / (1.0f + std::exp(-face)));
                    }
        }
    }

    mutable std::mutex mutex_;
    mutable Built built_;  // the net keeps its buffers between runs; the mutex guards it
    double threshold_;
    std::vector<cv::String> outputs_;
};

}  // namespace

Result<std::shared_ptr<const FaceNetwork>> loadFaceNetwork(const DetectorOptions& options) {
    // requires: 0 < options.networkThreshold < 1 (Detector::create checks it first).
    try {
        auto loaded =
            loadWeights(modelPathFrom(options), kFaceNetworkManifestFile, kMaxWeightBytes, kLabel);
        if (!loaded) return loaded.status();
        Weights weights(*loaded);
        auto built = buildNetwork(weights);
        if (!built)
            return Status::failure(ErrorKind::File, loaded->manifestPath + ": " + built.message());
        return std::shared_ptr<const FaceNetwork>(
            std::make_shared<SsdFaceNetwork>(std::move(built).value(), options.networkThreshold));
    } catch (const std::exception& e) {
        return internalFailure(kLabel, e);
    }
}

}  // namespace msmface::detail
