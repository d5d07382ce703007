#include "commands/command_line.h"

#include <cstdio>
#include <new>
#include <string>

#include <msmface/msmface.h>
#include <opencv2/core.hpp>

namespace msmcli {
namespace {

constexpr const char* kNoWaitHelp =
    "Fail at once, instead of waiting, while another process changes the directory";
constexpr const char* kDescriptorModelHelp =
    "A directory of descriptors: the descriptor model's folder (default: "
    "$MSMFACE_DESCRIPTOR_MODEL, else ~/.local/share/msmface/descriptor, which "
    "tools/fetch_descriptor_model.sh installs)";
constexpr const char* kLandmarkModelHelp =
    "Landmark model (default: $MSMFACE_LANDMARK_MODEL, else "
    "/usr/share/dlib/shape_predictor_68_face_landmarks.dat)";

void addFrameOptions(CLI::App* cmd, FrameOptions& o) {
    cmd->add_option("--manifest", o.manifest, "Face manifest (CSV: identity, video, ... x13, y13)");
    cmd->add_option("--identity", o.identity, "The identity to take from the manifest");
    cmd->add_option("--video", o.videos,
                    "A video file whose faces are found; with --manifest: only these videos of "
                    "the identity (repeatable)");
    cmd->add_option("--images", o.images, "Picture files whose faces are found")->expected(1, -1);
    cmd->add_option("--camera", o.camera, "Camera index (/dev/videoN) whose faces are found");
    cmd->add_option("--frames", o.frames,
                    "Frames taken from a video or camera (0: the whole video, 100 of a camera)");
    cmd->add_option("--model", o.model, kLandmarkModelHelp);
    cmd->add_option("--descriptor-model", o.descriptorModel, kDescriptorModelHelp);
    cmd->add_option("--points", o.points,
                    "Points file: lines \"image x0 y0 ... x13 y13\", images relative to it (a "
                    "directory of descriptors fits the landmark model in the box the points "
                    "imply)");
    cmd->add_option("--jitter", o.jitter,
                    "Move each point by up to this many pixels per copy (seed patterns only)");
    cmd->add_option("--copies", o.copies,
                    "Feed every frame this many times, jittered after the first (seed patterns "
                    "only: a directory of descriptors takes each frame's descriptor once)");
}

}  // namespace

// The commands are added in the order --help lists them.
CommandLine::CommandLine()
    : app_{"msmface " + std::string(msmface_versionString()) +
           ": face recognition by the mutual subspace method"} {
    app_.require_subcommand(1);
    app_.option_defaults()->always_capture_default();
    app_.set_version_flag("--version", std::string(msmface_versionString()));
    addDemo();
    addEnrol();
    addRecognise();
    addDelete();
    addList();
    addConstraint();
    addInspect();
    addCheck();
    addEval();
    addCalibrate();
    addDetect();
    addWatch();
}

void CommandLine::addDemo() {
    demoCmd_ = app_.add_subcommand(
        "demo", "Enrol built-in synthetic persons, recognise them and a stranger, draw the faces");
    demoCmd_->add_option("--out", demo_.out, "Output folder (picture and dictionary)");
    demoCmd_->add_option("--persons", demo_.persons, "Persons to enrol (2 to 20)");
    demoCmd_->add_option("--seed", demo_.seed, "Seed of the made-up population");
}

void CommandLine::addEnrol() {
    enrolCmd_ = app_.add_subcommand("enrol",
                                    "Register a new person in a dictionary "
                                    "directory");
    enrolCmd_->add_option("dir", enrol_.dir, "Dictionary directory (created when missing)")
        ->required();
    enrolCmd_->add_option("--id", enrol_.id, "ID number of the new person (1 or more)")->required();
    enrolCmd_->add_option("--name", enrol_.name, "Key name: the base name of the person's files")
        ->required();
    enrolCmd_->add_option("--patterns", enrol_.patterns,
                          "seed (the engine's own) or descriptor (a learned face descriptor): the "
                          "kind of a new directory, which an existing one must have (default: "
                          "what the directory holds, seed for a new one)");
    addFrameOptions(enrolCmd_, enrol_.frames);
    enrolCmd_->add_flag("--no-wait", enrol_.noWait, kNoWaitHelp);
}

void CommandLine::addRecognise() {
    recogniseCmd_ = app_.add_subcommand("recognise", "Recognise the face in a set of frames");
    recogniseCmd_->alias("recognize");
    recogniseCmd_->add_option("dir", recognise_.dir, "Dictionary directory")->required();
    addFrameOptions(recogniseCmd_, recognise_.frames);
    recogniseCmd_->add_option("--method", recognise_.method,
                              "0 single pattern, 1 MSM, 2 or 4 CMSM (needs msmface constraint)");
    recogniseCmd_->add_option("--threshold", recognise_.threshold,
                              "Identify when the best score exceeds it (-1: the directory's "
                              "stored threshold, 850 when none is stored)");
    recogniseCmd_->add_option("--top", recognise_.top, "Persons to list");
}

void CommandLine::addDelete() {
    deleteCmd_ = app_.add_subcommand("delete", "Remove a person and the person's files");
    deleteCmd_->add_option("dir", deleteDir_, "Dictionary directory")->required();
    deleteCmd_->add_option("--id", deleteId_, "ID number of the person")->required();
    deleteCmd_->add_flag("--no-wait", deleteNoWait_, kNoWaitHelp);
}

void CommandLine::addList() {
    listCmd_ = app_.add_subcommand("list", "List the persons of a dictionary directory");
    listCmd_->add_option("dir", listDir_, "Dictionary directory")->required();
}

void CommandLine::addConstraint() {
    constraintCmd_ = app_.add_subcommand(
        "constraint", "Build the constraint space from the enrolled persons (methods 2 and 4)");
    constraintCmd_->add_option("dir", constraintDir_, "Dictionary directory")->required();
    constraintCmd_->add_option("--dimension", constraintDimension_,
                               "Constraint vectors used (1 to 256)");
    constraintCmd_->add_flag("--no-wait", constraintNoWait_, kNoWaitHelp);
}

void CommandLine::addInspect() {
    inspectCmd_ =
        app_.add_subcommand("inspect", "Describe a .dck, .dckev, .mck, CS or COV/MOV file");
    inspectCmd_->add_option("file", inspectPath_, "The file")->required();
}

void CommandLine::addCheck() {
    checkCmd_ = app_.add_subcommand(
        "check", "Report what in a dictionary directory does not agree; --repair fixes leftovers");
    checkCmd_->add_option("dir", check_.dir, "Dictionary directory")->required();
    checkCmd_->add_flag("--repair", check_.repair,
                        "Remove temporaries, move unlisted files into lost+found");
    checkCmd_->add_flag("--no-wait", check_.noWait, kNoWaitHelp);
}

void CommandLine::addEval() {
    evalCmd_ = app_.add_subcommand(
        "eval", "Enrol from all but one video per person, probe with the last: rank-1, EER, ROC");
    evalCmd_->add_option("--manifest", eval_.manifest, "Face manifest")->required();
    evalCmd_->add_option("--out", eval_.out,
                         "Output folder (report.html, summary.json, scores.csv, dictionary)");
    evalCmd_->add_option("--jitter", eval_.jitter, "Point jitter of the repeated frames, pixels");
    evalCmd_->add_option("--enrol-frames", eval_.enrolFrames,
                         "Frames offered to each registration");
    evalCmd_->add_option("--probe-frames", eval_.probeFrames, "Frames per probe");
    evalCmd_->add_option("--dimension", eval_.dimension, "Constraint vectors of CMSM");
    evalCmd_->add_option("--threshold", eval_.threshold, "Identify threshold");
    evalCmd_->add_option("--sweep", eval_.sweep, "CMSM constraint dimensions to compare (a,b,...)")
        ->delimiter(',');
    evalCmd_->add_flag("--no-sweep", eval_.noSweep, "Skip the CMSM constraint dimension sweep");
    evalCmd_->add_flag("--detect", eval_.detect,
                       "Ignore the manifest's points: find the faces and their points");
    evalCmd_->add_option("--patterns", eval_.patterns,
                         "Kinds of pattern evaluated: seed, descriptor or both. Without --detect "
                         "a descriptor describes the face whose landmarks the landmark model "
                         "fits in the box the manifest's points imply");
    evalCmd_->add_option("--descriptor-dimension", eval_.descriptorDimension,
                         "Constraint vectors of CMSM over descriptors (1 to 128)");
    evalCmd_->add_option("--descriptor-threshold", eval_.descriptorThreshold,
                         "Identify threshold over descriptors (-1: that of descriptor "
                         "directories)");
}

void CommandLine::addCalibrate() {
    calibrateCmd_ = app_.add_subcommand(
        "calibrate", "Measure the identify threshold for a false-accept rate and store it");
    calibrateCmd_->add_option("dir", calibrate_.dir, "Dictionary directory")->required();
    calibrateCmd_
        ->add_option("--manifest", calibrate_.manifest,
                     "Face manifest: identities named like the persons (eval's p<k>_ too), and "
                     "strangers")
        ->required();
    calibrateCmd_->add_option("--far", calibrate_.far, "False-accept rate to hold (0.01 = 1 %)");
    calibrateCmd_->add_option("--method", calibrate_.method, "0 single pattern, 1 MSM, 4 CMSM");
    calibrateCmd_->add_option("--jitter", calibrate_.jitter, "Point jitter of repeated frames");
    calibrateCmd_->add_option("--probe-frames", calibrate_.probeFrames, "Frames per video");
    calibrateCmd_->add_option("--scores", calibrate_.scores, "Write every score to this CSV file");
    calibrateCmd_->add_option("--model", calibrate_.model,
                              std::string(kLandmarkModelHelp) +
                                  "; a directory of descriptors fits it in the box the "
                                  "manifest's points imply");
    calibrateCmd_->add_option("--descriptor-model", calibrate_.descriptorModel,
                              kDescriptorModelHelp);
    calibrateCmd_->add_flag("--no-wait", calibrate_.noWait, kNoWaitHelp);
}

void CommandLine::addDetect() {
    detectCmd_ = app_.add_subcommand(
        "detect",
        "Find the face and its fourteen points in pictures or a video; write a points file");
    detectCmd_->add_option("images", detect_.images, "Picture files");
    detectCmd_->add_option("--video", detect_.video, "A video file instead of pictures");
    detectCmd_->add_option("--frames", detect_.frames, "Frames taken from the video (0: all)");
    detectCmd_->add_option("--out", detect_.out,
                           "Points file to write (default: standard output); a video's frames "
                           "are written beside it, into <name>-frames/");
    detectCmd_->add_option("--overlay", detect_.overlay,
                           "Folder for every frame drawn with its box and points");
    detectCmd_->add_option("--model", detect_.model, "Landmark model");
}

void CommandLine::addWatch() {
    watchCmd_ = app_.add_subcommand(
        "watch",
        "Recognise continuously every face of a video or a camera, each followed as a track of "
        "its own, and say when a track starts, is identified and ends");
    watchCmd_->footer(
        "Each event is one line: \"track N started at frame F, box L,T WxH\", \"track N "
        "identified NAME (ID I), score S\", \"track N ended after K frames: NAME (ID I) | "
        "unknown, best score S\", after the time in the video. --events FILE writes the same "
        "events as JSON Lines, one object per line: event (\"started\", \"identified\" or "
        "\"ended\"), track (its number, never reused within a run), frame (counted from 0), "
        "time (seconds into the video; for ended: of the track's last frame), box ([left, top, "
        "width, height] in pixels: where it started, was identified, was last seen); identified "
        "and ended add person (the ID, 0 for unknown), name (\"\" for unknown) and score (at "
        "the identification; for ended: the track's best); ended adds frames_seen and "
        "faces_used (frames whose face was recognised). A cut to another shot ends every track.");
    watchCmd_->add_option("dir", watch_.dir, "Dictionary directory")->required();
    watchCmd_->add_option("--video", watch_.video, "Video file");
    watchCmd_->add_option("--camera", watch_.camera, "Camera index (/dev/videoN)");
    watchCmd_->add_option("--frames", watch_.frames,
                          "Frames to take (0: the whole video; a camera until interrupted)");
    watchCmd_->add_option("--method", watch_.method,
                          "0 single pattern, 1 MSM, 2 or 4 CMSM (needs msmface constraint)");
    watchCmd_->add_option(
        "--threshold", watch_.threshold,
        "Identify when the best score exceeds it (-1: the directory's stored one)");
    watchCmd_->add_option("--faces", watch_.faces,
                          "The most faces followed in a frame, the largest first (1 to 64)");
    watchCmd_->add_option("--confirm", watch_.confirm,
                          "Faces in a row with the same person first above the threshold "
                          "before a track is named (1 to 1000)");
    watchCmd_->add_option("--annotate", watch_.annotate,
                          "Write the video with every track drawn: box, points, track number, "
                          "name and score or \"unknown\" (.mp4 or .avi)");
    watchCmd_->add_option("--events", watch_.events,
                          "Write the events as JSON Lines (fields below)");
    watchCmd_->add_option("--model", watch_.model, "Landmark model");
    watchCmd_->add_option("--descriptor-model", watch_.descriptorModel, kDescriptorModelHelp);
}

std::optional<int> CommandLine::parse(int argc, char** argv) {
    try {
        app_.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app_.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app_.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app_.exit(e);
    } catch (const CLI::ParseError& e) {
        std::fprintf(stderr, "msmface: %s (see msmface --help)\n", e.what());
        return kExitUsage;
    }
    return std::nullopt;
}

// What a command does not catch itself ends here in one line: OpenCV's own text names its
// source files and assertions, nothing a user can act on.
int CommandLine::run() {
    try {
        return runParsed();
    } catch (const cv::Exception&) {
        return fail("a picture or a video could not be processed (the picture library failed)");
    } catch (const std::bad_alloc&) {
        return fail("out of memory");
    }
}

int CommandLine::runParsed() {
    if (demoCmd_->parsed()) return runDemo(demo_);
    if (enrolCmd_->parsed()) return runEnrol(enrol_);
    if (recogniseCmd_->parsed()) return runRecognise(recognise_);
    if (deleteCmd_->parsed()) return runDelete(deleteDir_, deleteId_, deleteNoWait_);
    if (listCmd_->parsed()) return runList(listDir_);
    if (constraintCmd_->parsed())
        return runConstraint(constraintDir_, constraintDimension_, constraintNoWait_);
    if (inspectCmd_->parsed()) return runInspect(inspectPath_);
    if (evalCmd_->parsed()) return runEval(eval_);
    if (checkCmd_->parsed()) return runCheck(check_);
    if (calibrateCmd_->parsed()) return runCalibrate(calibrate_);
    if (detectCmd_->parsed()) return runDetect(detect_);
    if (watchCmd_->parsed()) return runWatch(watch_);
    return kExitUsage;
}

}  // namespace msmcli
