// A gallery view built person by person from the directory's dictionary files.
#ifndef MSMFACE_GALLERY_VIEW_BUILDER_H
#define MSMFACE_GALLERY_VIEW_BUILDER_H

#include <memory>
#include <string>
#include <vector>

#include "gallery/gallery_impl.h"

class DictChunk;

namespace msmface::detail {

class ViewBuilder {
  public:
    // With the directory's constraint spaces loaded now.
    explicit ViewBuilder(const GalleryState& state);
    // With spaces loaded before (null: none, for the reason given).
    ViewBuilder(const GalleryState& state, std::shared_ptr<const core::ConstraintSpaces> spaces,
                std::string spaceError, ErrorKind spaceErrorKind);
    ~ViewBuilder();
    ViewBuilder(const ViewBuilder&) = delete;
    ViewBuilder& operator=(const ViewBuilder&) = delete;

    // Reads and checks the person's dictionary and takes the person: empty, or the one-line
    // reason the person cannot be recognised.
    std::string add(const Person& p);
    // The view of the persons added, in their order. Fails only when memory runs out.
    Result<std::shared_ptr<GalleryView>> finish();

  private:
    std::string flush();

    const GalleryState& state_;
    core::PatternShape shape_;
    std::shared_ptr<GalleryView> view_;
    std::vector<std::unique_ptr<DictChunk>> pending_;
    std::vector<std::shared_ptr<const core::Snapshot>> parts_;
};

}  // namespace msmface::detail

#endif  // MSMFACE_GALLERY_VIEW_BUILDER_H
