#include "support/synthetic_galleries.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

#include <msmface/gallery.h>
#include <msmface/store.h>

#include "dictionary/DictChunk.h"
#include "support/random_basis.h"

namespace msmbench {

namespace {

constexpr int kDimension = 256;
constexpr int kChannels = 5;
constexpr int kVectors = 20;
constexpr int kDistinctSeeds = 16;

// values: the eigenvalues' file of a constraint space (one value per vector) instead of vectors.
bool WriteChunk(const std::string& path, int vectors, int dimension, std::mt19937& rng,
                bool values) {
    DictChunk chunk;
    if (chunk.Allocate(kChannels) != 1) return false;
    for (int c = 0; c < kChannels; ++c) {
        if (chunk.prims[c].Allocate(dimension, vectors, kDicPrimFloat) != 1) return false;
        if (values) {
            for (int i = 0; i < vectors; ++i) chunk.prims[c].frows[i][0] = 1.0f / (1.0f + i);
            continue;
        }
        const auto basis = randomOrthonormalRows(vectors, dimension, rng);
        for (int i = 0; i < vectors; ++i)
            std::copy(basis[i].begin(), basis[i].end(), chunk.prims[c].frows[i]);
    }
    return chunk.Write(path.c_str(), 0, kDicPrimFloat) == 1;
}

[[noreturn]] void Abort(const std::string& what) {
    std::fprintf(stderr, "synthetic gallery: %s\n", what.c_str());
    std::abort();
}

}  // namespace

SeedDirectory::SeedDirectory(int persons) : folder_("msmface-bench-seeds") {
    if (path().empty()) Abort("no scratch folder");
    auto file = [&](const std::string& stem) { return folder_.file(stem + ".dck"); };
    std::mt19937 rng(static_cast<unsigned>(persons));
    for (int d = 0; d < kDistinctSeeds; ++d)
        if (!WriteChunk(file("distinct" + std::to_string(d)), kVectors, kDimension, rng, false))
            Abort("cannot write " + file("distinct" + std::to_string(d)));
    std::string registry;
    for (int p = 1; p <= persons; ++p) {
        const std::string name = "p" + std::to_string(p);
        registry += std::to_string(p) + " " + name + "\n";
        if (::link(file("distinct" + std::to_string(p % kDistinctSeeds)).c_str(),
                   file(name).c_str()) != 0)
            Abort("cannot link " + file(name));
    }
    for (int d = 0; d < kDistinctSeeds; ++d)
        std::remove(file("distinct" + std::to_string(d)).c_str());
    std::ofstream(folder_.file(msmface::kRegistryFileName)) << registry;
    // A constraint space of 100 of 256 random directions.
    if (!WriteChunk(file("cmsm"), kDimension, kDimension, rng, false) ||
        !WriteChunk(folder_.file("cmsm.dckev"), kDimension, 1, rng, true))
        Abort("cannot write the constraint space");
    std::ofstream(folder_.file(msmface::kConstraintListFileName))
        << "1\n1\nCMSMF " << folder_.file("cmsm") << " 100\n";
}

DescriptorViews::DescriptorViews(int distinct) : gen_(29) {
    const auto common = randomOrthonormalRows(1, msmface::kDescriptorSize, gen_)[0];
    for (int p = 0; p < distinct; ++p) {
        auto own = randomOrthonormalRows(3, msmface::kDescriptorSize, gen_);
        for (float& v : own[0]) v *= 0.5f;
        for (int x = 0; x < msmface::kDescriptorSize; ++x) own[0][x] += 0.87f * common[x];
        directions_.push_back(std::move(own));
    }
}

msmface::FaceDescriptor DescriptorViews::view(int p) {
    std::normal_distribution<float> normal(0.0f, 0.15f);
    const auto& d = directions_[p % directions_.size()];
    msmface::FaceDescriptor out{};
    const float a = normal(gen_), b = normal(gen_);
    for (int x = 0; x < msmface::kDescriptorSize; ++x) out[x] = d[0][x] + a * d[1][x] + b * d[2][x];
    return out;
}

DescriptorDirectory::DescriptorDirectory(int persons, int distinct)
    : folder_("msmface-bench-descriptors"), path_(folder_.file("dir")), views_(distinct) {
    msmface::OpenOptions options;
    options.create = true;
    options.patterns = msmface::PatternKind::Descriptor;
    auto opened = msmface::Gallery::open(path_, options);
    if (!opened.ok()) {
        error_ = opened.message();
        return;
    }
    for (int p = 0; p < distinct && p < persons; ++p) {
        std::vector<msmface::Sample> samples;
        for (int v = 0; v < 8; ++v) {
            msmface::Sample s;
            s.descriptor = views_.view(p);
            samples.push_back(s);
        }
        const msmface::Status enrolled = opened->enrol(p + 1, "p" + std::to_string(p + 1), samples);
        if (!enrolled.ok()) {
            error_ = enrolled.message();
            return;
        }
    }
    if (persons <= distinct) return;
    // The others: links to the distinct persons' dictionaries, listed after them.
    std::ofstream registry(path_ + "/" + msmface::kRegistryFileName, std::ios::app);
    for (int p = distinct; p < persons; ++p) {
        const std::string name = "p" + std::to_string(p + 1);
        const std::string from = path_ + "/p" + std::to_string(p % distinct + 1) + ".dck";
        if (::link(from.c_str(), (path_ + "/" + name + ".dck").c_str()) != 0) {
            error_ = "cannot link " + from;
            return;
        }
        registry << p + 1 << " " << name << "\n";
    }
    if (!registry) error_ = "cannot write the registry of " + path_;
}

}  // namespace msmbench
