// Umbrella header: a host includes this one file to reach the whole public interface.
#ifndef MSMFACE_MSMFACE_H
#define MSMFACE_MSMFACE_H

#include <msmface/export.h>
#include <msmface/version.h>
#include <msmface/numeric.h>
#include <msmface/diagnostics.h>
#include <msmface/BasicImage.h>
#include <msmface/IDDatabase.h>
#include <msmface/PartsPosition.h>
#include <msmface/RecogResult.h>
#include <msmface/FaceRecognition.h>
#include <msmface/FileSummary.h>
#include <msmface/result.h>
#include <msmface/frame.h>
#include <msmface/gallery.h>
#include <msmface/face_input.h>
#include <msmface/frame_lists.h>
#include <msmface/jitter.h>
#include <msmface/calibration.h>
#include <msmface/store.h>

#endif  // MSMFACE_MSMFACE_H
