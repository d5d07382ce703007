// One face descriptor per frame of a face manifest, found the way `msmface eval --detect` finds
// faces: the detector searches each picture afresh and the largest face is described. The table
// feeds studies of how descriptors behave (tools/descriptor_study.py); it derives from the
// frames, so it belongs in a scratch folder, never in the repository.
//
// usage: descriptor_table <manifest.csv> <table.csv>
//
// Output: a header row, then one row per manifest row, in its order:
//   identity, video, split, image, status, d0 ... d127
// status is "ok" (the 128 values follow), "no face" (the detector found none) or "no chip" (a
// face too small or too close to the border to describe); rows without a descriptor leave the
// values empty, so that every row has the same fields.
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <msmface/descriptor.h>
#include <msmface/detect.h>
#include <msmface/frame_lists.h>

#include "input/image_io.h"
#include "io/atomic_file.h"

namespace {

int fail(const std::string& message) {
    std::fprintf(stderr, "descriptor_table: %s\n", message.c_str());
    return 1;
}

std::string folderOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash);
}

// The row's status and, when it is "ok", its descriptor.
std::string describe(const msmface::Detector& detector, const msmface::Descriptor& descriptor,
                     const msmcli::GreyImage& image, msmface::FaceDescriptor& out) {
    const msmface::FrameView view{image.pixels.data(), image.width, image.height, 0,
                                  msmface::PixelFormat::Grey};
    const auto faces = detector.detect(view);
    if (!faces.ok() || faces->empty()) return "no face";
    const auto computed = descriptor.compute(view, faces->front());
    if (!computed.ok()) return "no chip";
    out = *computed;
    return "ok";
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return fail("usage: descriptor_table <manifest.csv> <table.csv>");
    const std::string manifest = argv[1], tablePath = argv[2];
    const auto rows = msmface::readManifest(manifest);
    if (!rows.ok()) return fail(rows.message());
    auto detector = msmface::Detector::create();
    if (!detector.ok()) return fail(detector.message());
    auto descriptor = msmface::Descriptor::load();
    if (!descriptor.ok()) return fail(descriptor.message());

    msm::clearWriteFailure();
    msm::AtomicFile table(tablePath.c_str());
    if (table.stream() == nullptr) return fail(msm::lastWriteFailure());
    std::fprintf(table.stream(), "identity,video,split,image,status");
    for (int k = 0; k < msmface::kDescriptorSize; ++k) std::fprintf(table.stream(), ",d%d", k);
    std::fputc('\n', table.stream());

    const std::string folder = folderOf(manifest);
    std::map<std::string, int> counts;
    for (std::size_t i = 0; i < rows->size(); ++i) {
        const msmface::FrameRow& row = (*rows)[i];
        const std::string path =
            !row.image.empty() && row.image[0] == '/' ? row.image : folder + "/" + row.image;
        msmcli::GreyImage image;
        const std::string error = msmcli::loadGreyImage(path, image);
        if (!error.empty())
            return fail(manifest + ": line " + std::to_string(row.line) + ": " + error);
        msmface::FaceDescriptor d{};
        const std::string status = describe(*detector, *descriptor, image, d);
        ++counts[status];
        std::fprintf(table.stream(), "%s,%s,%s,%s,%s", row.identity.c_str(), row.video.c_str(),
                     row.split.c_str(), row.image.c_str(), status.c_str());
        for (float v : d) {
            if (status == "ok")
                std::fprintf(table.stream(), ",%.9g", v);
            else
                std::fputc(',', table.stream());
        }
        std::fputc('\n', table.stream());
        if ((i + 1) % 100 == 0) std::fprintf(stderr, "%zu of %zu frames\n", i + 1, rows->size());
    }
    if (!table.Commit()) return fail(msm::lastWriteFailure());
    std::printf("%s: %zu frames:", tablePath.c_str(), rows->size());
    for (const auto& [status, n] : counts) std::printf(" %d %s;", n, status.c_str());
    std::printf("\n");
    return 0;
}
