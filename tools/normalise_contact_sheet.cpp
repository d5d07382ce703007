// Normalises every frame of a face manifest and draws the 64 x 64 faces as one contact sheet,
// one row per person with the person's name at the left, so that a person can judge what the
// normaliser makes of real faces. Optionally writes each face as its own PGM.
//
// usage: normalise_contact_sheet <manifest.csv> <sheet.pgm> [--faces <folder>]
//
// Manifest rows: identity, video, frame, split, image, width, height, x0, y0, ... x13, y13, with
// image relative to the manifest's folder (an 8-bit binary PGM) and the points in the host's
// order. Points are rounded to whole pixels, as a host hands them in.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <msmface/BasicImage.h>
#include <msmface/PartsPosition.h>

#include "normalise/face_cropping.h"
#include "normalise/face_shape_model.h"

namespace {

constexpr int kFace = kNormalisedFaceSize;
constexpr int kGap = 2;
constexpr int kGlyphW = 5, kGlyphH = 7, kAdvance = 6;

struct Row {
    std::string identity, imagePath, faceName;
    int lineNumber = 0;
    int32_t points[28] = {};
};

struct Grey {
    int width = 0, height = 0;
    std::vector<unsigned char> pixels;
};

std::vector<std::string> SplitCsv(const std::string& line) {
    std::vector<std::string> fields;
    std::string field;
    std::istringstream in(line);
    while (std::getline(in, field, ',')) fields.push_back(field);
    if (!line.empty() && line.back() == ',') fields.emplace_back();
    return fields;
}

std::string Folder(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

std::string BaseNameWithoutExtension(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    const size_t dot = base.find_last_of('.');
    return dot == std::string::npos ? base : base.substr(0, dot);
}

bool ReadManifest(const std::string& path, std::vector<Row>& rows) {
    std::ifstream in(path);
    if (!in) {
        std::fprintf(stderr, "normalise_contact_sheet: cannot open manifest %s\n", path.c_str());
        return false;
    }
    const std::string folder = Folder(path);
    std::string line;
    int lineNumber = 0;
    while (std::getline(in, line)) {
        ++lineNumber;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty() || lineNumber == 1) continue;  // header
        const std::vector<std::string> f = SplitCsv(line);
        if (f.size() != 35) {
            std::fprintf(stderr,
                         "normalise_contact_sheet: %s line %d: expected 35 fields, found %zu\n",
                         path.c_str(), lineNumber, f.size());
            return false;
        }
        Row row;
        row.identity = f[0];
        row.imagePath = folder + "/" + f[4];
        row.faceName = f[0] + "_" + BaseNameWithoutExtension(f[4]);
        row.lineNumber = lineNumber;
        for (int k = 0; k < 28; ++k) {
            char* end = nullptr;
            const double v = std::strtod(f[7 + k].c_str(), &end);
            if (end == f[7 + k].c_str() || !std::isfinite(v)) {
                std::fprintf(stderr,
                             "normalise_contact_sheet: %s line %d: coordinate %d is '%s', expected "
                             "a number\n",
                             path.c_str(), lineNumber, k, f[7 + k].c_str());
                return false;
            }
            // Beyond the engine's range a point is absent anyway; keep the conversion defined.
            row.points[k] = (std::fabs(v) < 1e9) ? static_cast<int32_t>(std::lround(v)) : -1;
        }
        rows.push_back(row);
    }
    return true;
}

// 8-bit binary PGM with optional comment lines; false with a message on anything else.
bool ReadPgm(const std::string& path, Grey& image) {
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) {
        std::fprintf(stderr, "normalise_contact_sheet: cannot open frame %s\n", path.c_str());
        return false;
    }
    auto token = [f](long& value) {
        int c = std::fgetc(f);
        while (c == '#' || std::isspace(c)) {
            if (c == '#')
                while (c != '\n' && c != EOF) c = std::fgetc(f);
            c = std::fgetc(f);
        }
        value = 0;
        int digits = 0;
        while (c >= '0' && c <= '9' && digits < 9) {
            value = value * 10 + (c - '0');
            ++digits;
            c = std::fgetc(f);
        }
        return digits > 0 && (c == EOF || std::isspace(c));
    };
    long w = 0, h = 0, maxval = 0;
    const bool magic = std::fgetc(f) == 'P' && std::fgetc(f) == '5';
    const bool header = magic && token(w) && token(h) && token(maxval);
    if (!header || w < 1 || h < 1 || w > 20000 || h > 20000 || maxval != 255) {
        std::fprintf(stderr,
                     "normalise_contact_sheet: %s: expected an 8-bit binary PGM (P5, maxval 255) "
                     "of at most 20000 x 20000\n",
                     path.c_str());
        std::fclose(f);
        return false;
    }
    image.width = static_cast<int>(w);
    image.height = static_cast<int>(h);
    image.pixels.resize(static_cast<size_t>(w) * h);
    const size_t got = std::fread(image.pixels.data(), 1, image.pixels.size(), f);
    std::fclose(f);
    if (got != image.pixels.size()) {
        std::fprintf(stderr, "normalise_contact_sheet: %s: expected %zu pixel bytes, found %zu\n",
                     path.c_str(), image.pixels.size(), got);
        return false;
    }
    return true;
}

// 5 x 7 capitals, digits and a few marks; each row's bit 4 is the leftmost pixel.
const unsigned char* Glyph(char c) {
    static const unsigned char kLetters[26][7] = {
        {14, 17, 17, 31, 17, 17, 17}, {30, 17, 17, 30, 17, 17, 30}, {14, 17, 16, 16, 16, 17, 14},
        {30, 17, 17, 17, 17, 17, 30}, {31, 16, 16, 30, 16, 16, 31}, {31, 16, 16, 30, 16, 16, 16},
        {14, 17, 16, 23, 17, 17, 15}, {17, 17, 17, 31, 17, 17, 17}, {14, 4, 4, 4, 4, 4, 14},
        {7, 2, 2, 2, 2, 18, 12},      {17, 18, 20, 24, 20, 18, 17}, {16, 16, 16, 16, 16, 16, 31},
        {17, 27, 21, 21, 17, 17, 17}, {17, 25, 21, 19, 17, 17, 17}, {14, 17, 17, 17, 17, 17, 14},
        {30, 17, 17, 30, 16, 16, 16}, {14, 17, 17, 17, 21, 18, 13}, {30, 17, 17, 30, 20, 18, 17},
        {15, 16, 16, 14, 1, 1, 30},   {31, 4, 4, 4, 4, 4, 4},       {17, 17, 17, 17, 17, 17, 14},
        {17, 17, 17, 17, 17, 10, 4},  {17, 17, 17, 21, 21, 21, 10}, {17, 17, 10, 4, 10, 17, 17},
        {17, 17, 10, 4, 4, 4, 4},     {31, 1, 2, 4, 8, 16, 31}};
    static const unsigned char kDigits[10][7] = {
        {14, 17, 19, 21, 25, 17, 14}, {4, 12, 4, 4, 4, 4, 14},  {14, 17, 1, 2, 4, 8, 31},
        {31, 2, 4, 2, 1, 17, 14},     {2, 6, 10, 18, 31, 2, 2}, {31, 16, 30, 1, 1, 17, 14},
        {6, 8, 16, 30, 17, 17, 14},   {31, 1, 2, 4, 8, 8, 8},   {14, 17, 17, 14, 17, 17, 14},
        {14, 17, 17, 15, 1, 2, 12}};
    static const unsigned char kUnderscore[7] = {0, 0, 0, 0, 0, 0, 31};
    static const unsigned char kDash[7] = {0, 0, 0, 31, 0, 0, 0};
    static const unsigned char kDot[7] = {0, 0, 0, 0, 0, 12, 12};
    static const unsigned char kBlank[7] = {0, 0, 0, 0, 0, 0, 0};
    if (c >= 'a' && c <= 'z') return kLetters[c - 'a'];
    if (c >= 'A' && c <= 'Z') return kLetters[c - 'A'];
    if (c >= '0' && c <= '9') return kDigits[c - '0'];
    if (c == '_') return kUnderscore;
    if (c == '-') return kDash;
    if (c == '.') return kDot;
    return kBlank;
}

void DrawText(BasicImageFile& sheet, int x, int y, const std::string& text) {
    for (size_t i = 0; i < text.size(); ++i) {
        const unsigned char* g = Glyph(text[i]);
        for (int r = 0; r < kGlyphH; ++r)
            for (int c = 0; c < kGlyphW; ++c)
                if (g[r] & (1 << (kGlyphW - 1 - c))) {
                    const int px = x + static_cast<int>(i) * kAdvance + c, py = y + r;
                    if (px < sheet.width && py < sheet.height)
                        sheet.pixels[static_cast<size_t>(py) * sheet.width + px] = 255;
                }
    }
}

void Blit(BasicImageFile& sheet, int x, int y, const unsigned char* face) {
    for (int r = 0; r < kFace; ++r)
        std::memcpy(sheet.pixels + static_cast<size_t>(y + r) * sheet.width + x, face + r * kFace,
                    kFace);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3 && !(argc == 5 && std::strcmp(argv[3], "--faces") == 0)) {
        std::fprintf(
            stderr,
            "usage: normalise_contact_sheet <manifest.csv> <sheet.pgm> [--faces <folder>]\n");
        return 2;
    }
    const std::string facesFolder = argc == 5 ? argv[4] : "";
    std::vector<Row> rows;
    if (!ReadManifest(argv[1], rows)) return 1;
    if (rows.empty()) {
        std::fprintf(stderr, "normalise_contact_sheet: %s holds no frames\n", argv[1]);
        return 1;
    }

    // Persons in order of first appearance, each with its faces.
    std::vector<std::string> persons;
    std::map<std::string, std::vector<std::vector<unsigned char>>> faces;
    FaceShapeModel model;
    int failed = 0;
    for (const Row& row : rows) {
        Grey frame;
        if (!ReadPgm(row.imagePath, frame)) {
            ++failed;
            continue;
        }
        PartsPosition parts{};
        std::memcpy(parts.points, row.points, sizeof parts.points);
        std::vector<unsigned char> face(kFace * kFace);
        if (NormaliseFace(&model, frame.width, frame.height, frame.pixels.data(), &parts,
                          face.data()) != 1) {
            std::fprintf(stderr, "normalise_contact_sheet: %s: frame could not be normalised\n",
                         row.imagePath.c_str());
            ++failed;
            continue;
        }
        if (!facesFolder.empty()) {
            BasicImageFile out(kFace, kFace, 8);
            std::memcpy(out.pixels, face.data(), face.size());
            const std::string path = facesFolder + "/" + row.faceName + ".pgm";
            if (!out.WritePnm(path.c_str())) {
                std::fprintf(stderr, "normalise_contact_sheet: cannot write %s\n", path.c_str());
                return 1;
            }
        }
        if (faces.find(row.identity) == faces.end()) persons.push_back(row.identity);
        faces[row.identity].push_back(std::move(face));
    }
    if (persons.empty()) {
        std::fprintf(stderr, "normalise_contact_sheet: no frame of %s could be read\n", argv[1]);
        return 1;
    }

    size_t longestName = 0, mostFaces = 0;
    for (const std::string& p : persons) {
        longestName = std::max(longestName, p.size());
        mostFaces = std::max(mostFaces, faces[p].size());
    }
    const int labelWidth = static_cast<int>(longestName) * kAdvance + 2 * kGap;
    const int width = labelWidth + static_cast<int>(mostFaces) * (kFace + kGap);
    const int height = static_cast<int>(persons.size()) * (kFace + kGap);
    BasicImageFile sheet(width, height, 8);
    if (!sheet.pixels) {
        std::fprintf(stderr, "normalise_contact_sheet: cannot allocate a %d x %d sheet\n", width,
                     height);
        return 1;
    }
    std::memset(sheet.pixels, 32, static_cast<size_t>(width) * height);
    for (size_t i = 0; i < persons.size(); ++i) {
        const int y = static_cast<int>(i) * (kFace + kGap);
        DrawText(sheet, kGap, y + (kFace - kGlyphH) / 2, persons[i]);
        const auto& list = faces[persons[i]];
        for (size_t j = 0; j < list.size(); ++j)
            Blit(sheet, labelWidth + static_cast<int>(j) * (kFace + kGap), y, list[j].data());
    }
    if (!sheet.WritePnm(argv[2])) {
        std::fprintf(stderr, "normalise_contact_sheet: cannot write %s\n", argv[2]);
        return 1;
    }
    std::printf("%zu frames of %zu persons on %s (%d x %d)%s\n", rows.size() - failed,
                persons.size(), argv[2], width, height, failed ? ", some frames skipped" : "");
    return failed ? 1 : 0;
}
