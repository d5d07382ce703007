// Constraint spaces for a snapshot, read from a list file by the loader the legacy recogniser
// uses too, so that the core projects into exactly the spaces the engine would load from the
// same list.
//
// Threads. No locks: one thread at a time per object; a snapshot built from them keeps copies.
#ifndef MSMFACE_CORE_CONSTRAINT_SPACES_H
#define MSMFACE_CORE_CONSTRAINT_SPACES_H

#include <memory>
#include <string>
#include <vector>

#include <msmface/result.h>

#include "core/snapshot.h"

struct ConstraintSpace;

namespace msmface::core {

class ConstraintSpaces {
  public:
    // Reads the list and loads every space it names for patterns of the shape. Fails with one
    // line naming the list when it cannot be read, is refused, or a space's files do not load.
    static Result<std::unique_ptr<ConstraintSpaces>> load(const std::string& listPath,
                                                          PatternShape shape);
    // The spaces in list order, valid while this object lives (what Snapshot::build takes).
    std::vector<const ConstraintSpace*> spaces() const;

    ~ConstraintSpaces();
    ConstraintSpaces(const ConstraintSpaces&) = delete;
    ConstraintSpaces& operator=(const ConstraintSpaces&) = delete;

  private:
    ConstraintSpaces();
    std::unique_ptr<ConstraintSpace[]> spaces_;
    int count_ = 0;
};

}  // namespace msmface::core

#endif  // MSMFACE_CORE_CONSTRAINT_SPACES_H
