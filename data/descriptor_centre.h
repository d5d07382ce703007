// The centre face descriptors are taken from before the subspace methods compare them: a fixed
// point near the mean descriptor of a population of persons, not of the gallery at hand, so that
// a gallery of one person is centred as well as one of thousands and a score never moves when
// someone else is enrolled or deleted. Descriptors of different persons have cosines of about
// 0.87 around the mean; measured from this centre (x - centre, then normalised) they spread to a
// median of about 0.28, which puts impostors' subspace scores in the low hundreds and the same
// person's around 700 (tools/descriptor_study.py). Made by tools/descriptor_table --centre.
#ifndef MSMFACE_DATA_DESCRIPTOR_CENTRE_H
#define MSMFACE_DATA_DESCRIPTOR_CENTRE_H

#include <msmface/frame.h>

namespace msm {

extern const float kDescriptorCentre[msmface::kDescriptorSize];

}  // namespace msm

#endif  // MSMFACE_DATA_DESCRIPTOR_CENTRE_H
