// A complete host: starts an engine, registers two people from camera frames, maintains a
// constraint space, recognises, adds frames to a person, deletes a person, and finally starts a
// second engine that loads the registered gallery as a host does at start-up.
//
// The "camera" draws simple synthetic faces so that the program runs anywhere:
//   host_example <empty folder for the dictionaries>
#include <msmface/msmface.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fstream>
#include <random>
#include <string>

namespace {

constexpr int kSide = 160;

// Frame `index` of person `who`: a dark-featured oval that moves a little, with sensor noise.
void CameraFrame(int who, int index, BasicImageFile& frame, PartsPosition& parts) {
    std::mt19937 rng(who * 1000 + index);
    std::uniform_real_distribution<double> jitter(-1.5, 1.5);
    std::normal_distribution<double> noise(0.0, 4.0);
    const double cx = kSide / 2.0 + jitter(rng), ey = 68 + 4 * who + jitter(rng);
    const double gap = 34 + 6 * who, my = ey + 46 + 3 * who, ny = ey + 28;
    const double pts[14][2] = {{cx - gap / 2, ey},     {cx + gap / 2, ey},
                               {cx - 6, ny},           {cx + 6, ny},
                               {cx - 14, my},          {cx + 14, my},
                               {cx - gap / 2 - 8, ey}, {cx - gap / 2 + 8, ey},
                               {cx + gap / 2 - 8, ey}, {cx + gap / 2 + 8, ey},
                               {cx - 8, ey - 12},      {cx + 8, ey - 12},
                               {cx, ny - 4},           {cx, my}};
    for (int k = 0; k < 14; ++k) {
        parts.points[2 * k] = static_cast<int32_t>(std::lround(pts[k][0]));
        parts.points[2 * k + 1] = static_cast<int32_t>(std::lround(pts[k][1]));
    }
    for (int y = 0; y < kSide; ++y)
        for (int x = 0; x < kSide; ++x) {
            double v = 150 + 40 * std::sin(x * 0.05 * who + y * 0.04 * (4 - who)) + noise(rng);
            for (int k : {0, 1, 2, 3, 13}) {
                const double dx = (x - pts[k][0]) / (k == 13 ? 14 : 5), dy = (y - pts[k][1]) / 4;
                v -= 100 * std::exp(-(dx * dx + dy * dy));
            }
            frame.pixels[y * kSide + x] = static_cast<unsigned char>(v < 0 ? 0 : v > 255 ? 255 : v);
        }
}

// One camera frame through the engine: the host found a face, so event 2.
int FeedFrame(FaceRecognition& engine, int who, int index) {
    static BasicImageFile frame(kSide, kSide, 8), face(64, 64, 8);
    PartsPosition parts{};
    CameraFrame(who, index, frame, parts);
    if (engine.FaceCropping(&frame, nullptr, &parts, &face) != 1) return engine.FrameProcess(0);
    return engine.FrameProcess(2);
}

// The host's records: the database keeps pointers to them, so they must not move.
std::deque<std::string> names;
std::deque<HumanID> records;

// Enrolment: name first, then the frames, then the database entry.
bool Enrol(FaceRecognition& engine, int id, const char* name, int who) {
    IDDatabase* db = engine.idDatabase;
    if (!db->CheckIDNum(id) || !db->CheckIDName(name) || db->SetNewKeyname(name) != 1) return false;
    engine.Set_RecogORRegist(2);
    engine.Reset_gather_counter();
    for (int k = 0; engine.Get_RecogORRegist() == 2; ++k) FeedFrame(engine, who, k);
    if (!engine.Get_RegistCondition()) {
        db->FreeNewKeyname();  // nothing was written
        return false;
    }
    names.push_back(name);
    records.push_back(HumanID{id, &names.back()[0]});
    db->AddNewDictionary(&records.back());
    db->ReadIdDictionaries();
    engine.DicConvertID(db->GetAllNum() - 1);
    return true;
}

// Recognition of a few frames from a fresh input: the best person's ID number, or 0.
int Recognise(FaceRecognition& engine, int who, int first) {
    engine.Set_RecogORRegist(1);
    engine.Refresh_input();
    for (int k = 0; k < 10; ++k) FeedFrame(engine, who, first + k);
    const RECOGRESULT best = engine.Get_ResultRecog()[0];
    std::printf("  person %d seen as inside number %d, similarity %d\n", who, best.id,
                best.similarity);
    return best.id >= 0 && best.id < engine.idDatabase->GetAllNum()
               ? engine.idDatabase->humanIds[best.id]->id
               : 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: host_example <empty folder>\n");
        return 2;
    }
    const std::string folder = argv[1];
    int failures = 0;
    auto check = [&](bool ok, const char* what) {
        std::printf("%s: %s\n", ok ? "ok" : "FAILED", what);
        failures += ok ? 0 : 1;
    };

    FaceRecognition engine(kSide, kSide);
    engine.idDatabase->SetDicPath(folder.c_str());
    engine.idDatabase->InitIdDictionary(0);  // an empty gallery to start with
    check(Enrol(engine, 10, "ann", 1), "ann registered");
    check(Enrol(engine, 20, "ben", 2), "ben registered");
    check(Enrol(engine, 30, "cat", 3), "cat registered");
    check(Recognise(engine, 2, 500) == 20, "ben recognised by MSM");

    // A constraint space learned from the registered people (60 directions), then CMSM.
    std::ofstream(folder + "/spaces.txt")
        << "1\n1\nCMSML " << folder << "/space 60 " << folder << "/space_default\n";
    engine.InitConstraintMSM((folder + "/spaces.txt").c_str());  // no files yet: generated next
    check(engine.UpdateCMSMDictionary(0) == 1, "constraint space generated");
    engine.Set_recognitionmethod(4);
    check(engine.DicConvert() == 1, "dictionaries projected");
    check(Recognise(engine, 3, 600) == 30, "cat recognised by CMSM");

    // Twenty more frames of ann merged into her dictionary (the space follows by itself).
    const int ann = engine.idDatabase->ConvertIDNumToInsidenum(10);
    engine.Set_Addition_id(ann);
    engine.Set_DICACQUISITIONNUM(20);
    engine.Set_RecogORRegist(3);
    engine.Reset_gather_counter();
    while (engine.Get_RecogORRegist() == 3) FeedFrame(engine, 1, 700 + engine.Get_gather_counter());
    check(engine.Get_RegistCondition(), "frames added to ann");
    engine.idDatabase->ReplaceIdDictionary(ann);
    engine.DicConvertID(ann);

    // Ben leaves: his files go, the later people move down by one.
    check(engine.Deletion(engine.idDatabase->ConvertIDNumToInsidenum(20), true) == 1,
          "ben deleted");
    check(Recognise(engine, 3, 800) == 30, "cat still recognised");

    // Start-up of a second engine on the same gallery, as after a restart.
    FaceRecognition restarted(kSide, kSide);
    IDDatabase* db = restarted.idDatabase;
    db->SetDicPath(folder.c_str());
    db->InitIdDictionary(engine.idDatabase->GetAllNum());
    for (int i = 0; i < engine.idDatabase->GetAllNum(); ++i)
        db->PushIdDictionary(engine.idDatabase->humanIds[i]);
    check(db->ReadIdDictionaries() == 1, "gallery loaded");
    restarted.Set_recognitionmethod(4);
    check(restarted.InitConstraintMSM((folder + "/spaces.txt").c_str()) >= 1, "space loaded");
    check(restarted.DicConvert() == 1, "gallery projected");
    check(Recognise(restarted, 1, 900) == 10, "ann recognised after the restart");
    return failures == 0 ? 0 : 1;
}
