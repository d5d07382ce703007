// Dictionary directories of synthetic persons for the benchmarks that measure against galleries
// of any size: a few distinct persons made for real, the others hard links to their files (a
// gallery reads and checks every person's dictionary all the same, and keeps one copy each).
#ifndef MSMFACE_BENCH_SUPPORT_SYNTHETIC_GALLERIES_H
#define MSMFACE_BENCH_SUPPORT_SYNTHETIC_GALLERIES_H

#include <random>
#include <string>
#include <vector>

#include <msmface/frame.h>

#include "support/scratch_folder.h"

namespace msmbench {

// Persons of the engine's own patterns (five channels of 256 values): random orthonormal
// dictionaries of 20 vectors, 16 distinct ones, and a constraint space of 100 random directions.
class SeedDirectory {
  public:
    // Aborts when the files cannot be written: no measurement means anything without them.
    explicit SeedDirectory(int persons);
    const std::string& path() const { return folder_.path(); }

  private:
    ScratchFolder folder_;
};

// Descriptors of synthetic persons, as far from orthogonal as a network's: a person is a direction
// that shares 0.87 of its length with everybody's, and a view of the person wanders inside the
// person's three leading directions. Person p and p + distinct are the same person.
class DescriptorViews {
  public:
    explicit DescriptorViews(int distinct);
    msmface::FaceDescriptor view(int p);

  private:
    std::mt19937 gen_;
    std::vector<std::vector<std::vector<float>>> directions_;
};

// A gallery of descriptors of `persons` persons: the first `distinct` enrolled through the
// gallery from eight views each, the others links to their files under a registry entry of
// their own. error() tells what failed.
class DescriptorDirectory {
  public:
    DescriptorDirectory(int persons, int distinct);
    const std::string& path() const { return path_; }
    const std::string& error() const { return error_; }
    DescriptorViews& views() { return views_; }

  private:
    ScratchFolder folder_;
    std::string path_;
    DescriptorViews views_;
    std::string error_;
};

}  // namespace msmbench

#endif  // MSMFACE_BENCH_SUPPORT_SYNTHETIC_GALLERIES_H
