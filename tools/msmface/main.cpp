// msmface: the command-line host of the engine. Enrols persons into a dictionary directory,
// recognises them, keeps the constraint space, describes the engine's files, evaluates on a
// manifest of real faces, and shows it all on built-in synthetic faces (msmface demo).
#include <cstdio>
#include <string>

#include <msmface/msmface.h>
#include <CLI/CLI.hpp>

#include "commands.h"

namespace {

using namespace msmcli;

void addFrameOptions(CLI::App* cmd, FrameOptions& o) {
    cmd->add_option("--manifest", o.manifest, "Face manifest (CSV: identity, video, ... x13, y13)");
    cmd->add_option("--identity", o.identity, "The identity to take from the manifest");
    cmd->add_option("--video", o.videos, "Only these videos of the identity (repeatable)");
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

    RecogniseOptions recog;
    CLI::App* recogCmd = app.add_subcommand("recognise", "Recognise the face in a set of frames");
    recogCmd->alias("recognize");
    recogCmd->add_option("dir", recog.dir, "Dictionary directory")->required();
    addFrameOptions(recogCmd, recog.frames);
    recogCmd->add_option("--method", recog.method,
                         "0 single pattern, 1 MSM, 2 or 4 CMSM (needs msmface constraint)");
    recogCmd->add_option("--threshold", recog.threshold, "Identify when the best score exceeds it");
    recogCmd->add_option("--top", recog.top, "Persons to list");

    std::string deleteDir;
    int deleteId = 0;
    CLI::App* deleteCmd = app.add_subcommand("delete", "Remove a person and the person's files");
    deleteCmd->add_option("dir", deleteDir, "Dictionary directory")->required();
    deleteCmd->add_option("--id", deleteId, "ID number of the person")->required();

    std::string listDir;
    CLI::App* listCmd = app.add_subcommand("list", "List the persons of a dictionary directory");
    listCmd->add_option("dir", listDir, "Dictionary directory")->required();

    std::string constraintDir;
    int dimension = 200;
    CLI::App* constraintCmd = app.add_subcommand(
        "constraint", "Build the constraint space from the enrolled persons (methods 2 and 4)");
    constraintCmd->add_option("dir", constraintDir, "Dictionary directory")->required();
    constraintCmd->add_option("--dimension", dimension, "Constraint vectors used (1 to 256)");

    std::string inspectPath;
    CLI::App* inspectCmd =
        app.add_subcommand("inspect", "Describe a .dck, .dckev, .mck, CS or COV/MOV file");
    inspectCmd->add_option("file", inspectPath, "The file")->required();

    EvalOptions eval;
    CLI::App* evalCmd = app.add_subcommand(
        "eval", "Enrol from all but one video per person, probe with the last: rank-1, EER, ROC");
    evalCmd->add_option("--manifest", eval.manifest, "Face manifest")->required();
    evalCmd->add_option("--out", eval.out, "Output folder (scores.csv, eval.png, dictionary)");
    evalCmd->add_option("--jitter", eval.jitter, "Point jitter of the repeated frames, pixels");
    evalCmd->add_option("--enrol-frames", eval.enrolFrames, "Frames offered to each registration");
    evalCmd->add_option("--probe-frames", eval.probeFrames, "Frames per probe");
    evalCmd->add_option("--dimension", eval.dimension, "Constraint vectors of CMSM");
    evalCmd->add_option("--threshold", eval.threshold, "Identify threshold");

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

    if (demoCmd->parsed()) return runDemo(demo);
    if (enrolCmd->parsed()) return runEnrol(enrol);
    if (recogCmd->parsed()) return runRecognise(recog);
    if (deleteCmd->parsed()) return runDelete(deleteDir, deleteId);
    if (listCmd->parsed()) return runList(listDir);
    if (constraintCmd->parsed()) return runConstraint(constraintDir, dimension);
    if (inspectCmd->parsed()) return runInspect(inspectPath);
    if (evalCmd->parsed()) return runEval(eval);
    return kExitUsage;
}
