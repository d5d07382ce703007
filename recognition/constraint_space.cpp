#include "recognition/constraint_space.h"

#include <algorithm>

namespace msm {

SpaceChannel spaceChannel(const ConstraintSpace& space, int c, int D) {
    SpaceChannel channel;
    if (space.kind == kKindPlain) {
        channel.how = SpaceChannel::How::Unprojected;
        return channel;
    }
    const bool hasChannel = (space.kind == kKindFile || space.kind == kKindLearned) &&
                            c < space.subspace.count && space.subspace.prims[c].dim == D &&
                            space.subspace.prims[c].frows != nullptr;
    if (!hasChannel) return channel;
    const DicPrim& psi = space.subspace.prims[c];
    channel.how = SpaceChannel::How::Whitened;
    channel.psi = psi.frows;
    channel.lambda = space.channelEigenvalues(c);
    channel.m = std::max(std::min({space.dimension, psi.count, psi.allocatedRows, D}), 0);
    return channel;
}

}  // namespace msm
