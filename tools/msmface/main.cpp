// msmface: the command-line host of the engine. Enrols persons into a dictionary directory,
// recognises them, keeps the constraint space, describes the engine's files, evaluates on a
// manifest of real faces, and shows it all on built-in synthetic faces (msmface demo).
#include <cstdio>
#include <new>
#include <string>

#include <msmface/msmface.h>
#include <CLI/CLI.hpp>
#include <opencv2/core.hpp>

#include "commands/commands.h"

namespace {

using namespace msmcli;

constexpr const char* kNoWaitHelp =
    "Fail at once, instead of waiting, while another process changes the directory";

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
    cmd->add_option("--model", o.model,
                    "Landmark model (default: $MSMFACE_LANDMARK_MODEL, else "
                    "/usr/share/dlib/shape_predictor_68_face_landmarks.dat)");
    cmd->add_option("--points", o.points,
                    "Points file: lines \"image x0 y0 ... x13 y13\", images relative to it");
    cmd->add_option("--jitter", o.jitter, "Move each point by up to this many pixels per copy");
    cmd->add_option("--copies", o.copies,
                    "Feed every frame this many times (jittered after the "
                    "first)");
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"msmface " + std::string(msmface_versionString()) +
                 ": face recognition by the mutual subspace method"};
    app.require_subcommand(1);
    app.option_defaults()->always_capture_default();
    app.set_version_flag("--version", std::string(msmface_versionString()));

    DemoOptions demo;
    CLI::App* demoCmd = app.add_subcommand(
        "demo", "Enrol built-in synthetic persons, recognise them and a stranger, draw the faces");
    demoCmd->add_option("--out", demo.out, "Output folder (picture and dictionary)");
    demoCmd->add_option("--persons", demo.persons, "Persons to enrol (2 to 20)");
    demoCmd->add_option("--seed", demo.seed, "Seed of the made-up population");

    EnrolOptions enrol;
    CLI::App* enrolCmd = app.add_subcommand("enrol",
                                            "Register a new person in a dictionary "
                                            "directory");
    enrolCmd->add_option("dir", enrol.dir, "Dictionary directory (created when missing)")
        ->required();
    enrolCmd->add_option("--id", enrol.id, "ID number of the new person (1 or more)")->required();
    enrolCmd->add_option("--name", enrol.name, "Key name: the base name of the person's files")
        ->required();
    addFrameOptions(enrolCmd, enrol.frames);
    enrolCmd->add_flag("--no-wait", enrol.noWait, kNoWaitHelp);

    RecogniseOptions recog;
    CLI::App* recogCmd = app.add_subcommand("recognise", "Recognise the face in a set of frames");
    recogCmd->alias("recognize");
    recogCmd->add_option("dir", recog.dir, "Dictionary directory")->required();
    addFrameOptions(recogCmd, recog.frames);
    recogCmd->add_option("--method", recog.method,
                         "0 single pattern, 1 MSM, 2 or 4 CMSM (needs msmface constraint)");
    recogCmd->add_option("--threshold", recog.threshold,
                         "Identify when the best score exceeds it (-1: the directory's stored "
                         "threshold, 850 when none is stored)");
    recogCmd->add_option("--top", recog.top, "Persons to list");

    std::string deleteDir;
    int deleteId = 0;
    CLI::App* deleteCmd = app.add_subcommand("delete", "Remove a person and the person's files");
    deleteCmd->add_option("dir", deleteDir, "Dictionary directory")->required();
    deleteCmd->add_option("--id", deleteId, "ID number of the person")->required();
    bool deleteNoWait = false;
    deleteCmd->add_flag("--no-wait", deleteNoWait, kNoWaitHelp);

    std::string listDir;
    CLI::App* listCmd = app.add_subcommand("list", "List the persons of a dictionary directory");
    listCmd->add_option("dir", listDir, "Dictionary directory")->required();

    std::string constraintDir;
    int dimension = 200;
    CLI::App* constraintCmd = app.add_subcommand(
        "constraint", "Build the constraint space from the enrolled persons (methods 2 and 4)");
    constraintCmd->add_option("dir", constraintDir, "Dictionary directory")->required();
    constraintCmd->add_option("--dimension", dimension, "Constraint vectors used (1 to 256)");
    bool constraintNoWait = false;
    constraintCmd->add_flag("--no-wait", constraintNoWait, kNoWaitHelp);

    std::string inspectPath;
    CLI::App* inspectCmd =
        app.add_subcommand("inspect", "Describe a .dck, .dckev, .mck, CS or COV/MOV file");
    inspectCmd->add_option("file", inspectPath, "The file")->required();

    CheckOptions check;
    CLI::App* checkCmd = app.add_subcommand(
        "check", "Report what in a dictionary directory does not agree; --repair fixes leftovers");
    checkCmd->add_option("dir", check.dir, "Dictionary directory")->required();
    checkCmd->add_flag("--repair", check.repair,
                       "Remove temporaries, move unlisted files into lost+found");
    checkCmd->add_flag("--no-wait", check.noWait, kNoWaitHelp);

    EvalOptions eval;
    CLI::App* evalCmd = app.add_subcommand(
        "eval", "Enrol from all but one video per person, probe with the last: rank-1, EER, ROC");
    evalCmd->add_option("--manifest", eval.manifest, "Face manifest")->required();
    evalCmd->add_option("--out", eval.out,
                        "Output folder (report.html, summary.json, scores.csv, dictionary)");
    evalCmd->add_option("--jitter", eval.jitter, "Point jitter of the repeated frames, pixels");
    evalCmd->add_option("--enrol-frames", eval.enrolFrames, "Frames offered to each registration");
    evalCmd->add_option("--probe-frames", eval.probeFrames, "Frames per probe");
    evalCmd->add_option("--dimension", eval.dimension, "Constraint vectors of CMSM");
    evalCmd->add_option("--threshold", eval.threshold, "Identify threshold");
    evalCmd->add_option("--sweep", eval.sweep, "CMSM constraint dimensions to compare (a,b,...)")
        ->delimiter(',');
    evalCmd->add_flag("--no-sweep", eval.noSweep, "Skip the CMSM constraint dimension sweep");

    CalibrateOptions calibrate;
    CLI::App* calibrateCmd = app.add_subcommand(
        "calibrate", "Measure the identify threshold for a false-accept rate and store it");
    calibrateCmd->add_option("dir", calibrate.dir, "Dictionary directory")->required();
    calibrateCmd
        ->add_option("--manifest", calibrate.manifest,
                     "Face manifest: identities named like the persons (eval's p<k>_ too), and "
                     "strangers")
        ->required();
    calibrateCmd->add_option("--far", calibrate.far, "False-accept rate to hold (0.01 = 1 %)");
    calibrateCmd->add_option("--method", calibrate.method, "0 single pattern, 1 MSM, 4 CMSM");
    calibrateCmd->add_option("--jitter", calibrate.jitter, "Point jitter of repeated frames");
    calibrateCmd->add_option("--probe-frames", calibrate.probeFrames, "Frames per video");
    calibrateCmd->add_option("--scores", calibrate.scores, "Write every score to this CSV file");
    calibrateCmd->add_flag("--no-wait", calibrate.noWait, kNoWaitHelp);

    evalCmd->add_flag("--detect", eval.detect,
                      "Ignore the manifest's points: find the faces and their points");

    DetectOptions detect;
    CLI::App* detectCmd = app.add_subcommand(
        "detect",
        "Find the face and its fourteen points in pictures or a video; write a points file");
    detectCmd->add_option("images", detect.images, "Picture files");
    detectCmd->add_option("--video", detect.video, "A video file instead of pictures");
    detectCmd->add_option("--frames", detect.frames, "Frames taken from the video (0: all)");
    detectCmd->add_option("--out", detect.out,
                          "Points file to write (default: standard output); a video's frames "
                          "are written beside it, into <name>-frames/");
    detectCmd->add_option("--overlay", detect.overlay,
                          "Folder for every frame drawn with its box and points");
    detectCmd->add_option("--model", detect.model, "Landmark model");

    WatchOptions watch;
    CLI::App* watchCmd = app.add_subcommand(
        "watch", "Recognise continuously the face of a video or a camera, as a camera host does");
    watchCmd->add_option("dir", watch.dir, "Dictionary directory")->required();
    watchCmd->add_option("--video", watch.video, "Video file");
    watchCmd->add_option("--camera", watch.camera, "Camera index (/dev/videoN)");
    watchCmd->add_option("--frames", watch.frames,
                         "Frames to take (0: the whole video; a camera until interrupted)");
    watchCmd->add_option("--method", watch.method,
                         "0 single pattern, 1 MSM, 2 or 4 CMSM (needs msmface constraint)");
    watchCmd->add_option(
        "--threshold", watch.threshold,
        "Identify when the best score exceeds it (-1: the directory's stored one)");
    watchCmd->add_option("--annotate", watch.annotate,
                         "Write the video with the box, the points and the best person drawn "
                         "(.mp4 or .avi)");
    watchCmd->add_option("--model", watch.model, "Landmark model");

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        std::fprintf(stderr, "msmface: %s (see msmface --help)\n", e.what());
        return kExitUsage;
    }

    // What a command does not catch itself ends here in one line: OpenCV's own text names its
    // source files and assertions, nothing a user can act on.
    try {
        if (demoCmd->parsed()) return runDemo(demo);
        if (enrolCmd->parsed()) return runEnrol(enrol);
        if (recogCmd->parsed()) return runRecognise(recog);
        if (deleteCmd->parsed()) return runDelete(deleteDir, deleteId, deleteNoWait);
        if (listCmd->parsed()) return runList(listDir);
        if (constraintCmd->parsed())
            return runConstraint(constraintDir, dimension, constraintNoWait);
        if (inspectCmd->parsed()) return runInspect(inspectPath);
        if (evalCmd->parsed()) return runEval(eval);
        if (checkCmd->parsed()) return runCheck(check);
        if (calibrateCmd->parsed()) return runCalibrate(calibrate);

        if (detectCmd->parsed()) return runDetect(detect);
        if (watchCmd->parsed()) return runWatch(watch);
    } catch (const cv::Exception&) {
        return fail("a picture or a video could not be processed (the picture library failed)");
    } catch (const std::bad_alloc&) {
        return fail("out of memory");
    }
    return kExitUsage;
}
