#include "data/face_model.h"

const int32_t FaceReferencePoints[kFacePointCount][2] = {
    {85, 109},   // 0 eye centre, image left
    {171, 109},  // 1 eye centre, image right
    {113, 161},  // 2 nostril, left
    {143, 161},  // 3 nostril, right
    {94, 194},   // 4 mouth corner, left
    {162, 194},  // 5 mouth corner, right
    {63, 113},   // 6 outer eye corner, left
    {193, 113},  // 7 outer eye corner, right
    {103, 114},  // 8 inner eye corner, left
    {153, 114},  // 9 inner eye corner, right
    {127, 148},  // 10 nose tip
    {127, 192},  // 11 mouth centre
    {110, 85},   // 12 inner eyebrow end, left
    {146, 85},   // 13 inner eyebrow end, right
};
