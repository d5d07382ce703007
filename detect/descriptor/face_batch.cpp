// The faces of a frame described on several threads. Descriptor is one thread at a time, so each
// thread owns one; the faces are dealt out by an atomic counter and every result lands in the
// face's own slot, so the outcome does not depend on which thread took which face.
#include "detect/face_batch.h"

#include <algorithm>
#include <atomic>
#include <system_error>
#include <thread>

#include <msmface/descriptor.h>

namespace msmface::detail {

namespace {

class ThreadedFaceBatch final : public FaceBatch {
  public:
    explicit ThreadedFaceBatch(std::vector<Descriptor> descriptors)
        : descriptors_(std::move(descriptors)) {}

    void describe(const FrameView& frame, const std::vector<DetectedFace>& faces,
                  std::vector<std::optional<FaceDescriptor>>& out) override {
        out.assign(faces.size(), std::nullopt);
        std::atomic<size_t> next{0};
        auto work = [&](const Descriptor& descriptor) {
            for (size_t i = next++; i < faces.size(); i = next++) {
                Result<FaceDescriptor> d = descriptor.compute(frame, faces[i]);
                if (d.ok()) out[i] = std::move(d).value();
            }
        };
        const size_t helpers = std::min(descriptors_.size(), faces.size());
        std::vector<std::thread> running;
        // A thread that cannot be started leaves its faces to the others: slower, same result.
        for (size_t t = 1; t < helpers; ++t) {
            try {
                running.emplace_back(work, std::cref(descriptors_[t]));
            } catch (const std::system_error&) {
                break;
            }
        }
        work(descriptors_[0]);
        for (std::thread& t : running) t.join();
    }

    int threads() const override { return static_cast<int>(descriptors_.size()); }

  private:
    std::vector<Descriptor> descriptors_;
};

}  // namespace

Result<std::unique_ptr<FaceBatch>> loadFaceBatch(const std::string& modelPath, int threads) {
    DescriptorOptions options;
    options.modelPath = modelPath;
    // Each network on its own thread alone: the parallelism is the faces'.
    options.threads = 1;
    std::vector<Descriptor> descriptors;
    for (int t = 0; t < threads; ++t) {
        Result<Descriptor> d = Descriptor::load(options);
        if (!d.ok()) return d.status();
        descriptors.push_back(std::move(d).value());
    }
    return std::unique_ptr<FaceBatch>(std::make_unique<ThreadedFaceBatch>(std::move(descriptors)));
}

}  // namespace msmface::detail
