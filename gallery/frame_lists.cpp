#include <msmface/frame_lists.h>

#include <sys/stat.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <utility>

#include "io/byte_reader.h"

namespace msmface {
namespace {

// What a parser found: the rows read, or why it stopped.
struct Parsed {
    std::vector<FrameRow> rows;
    std::string error;  // empty when the whole text parsed; else "line N: ..."
    bool ok() const { return error.empty(); }
};

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t' || s.front() == '\r'))
        s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r'))
        s.remove_suffix(1);
    return s;
}

// A byte order mark is how some editors begin a UTF-8 file; it is no part of the first name.
std::string_view withoutByteOrderMark(std::string_view text) {
    constexpr std::string_view kMark = "\xEF\xBB\xBF";
    if (text.substr(0, kMark.size()) == kMark) text.remove_prefix(kMark.size());
    return text;
}

std::vector<std::string_view> splitLines(std::string_view text) {
    text = withoutByteOrderMark(text);
    std::vector<std::string_view> lines;
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string_view::npos) end = text.size();
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

// Comma-separated fields, each trimmed; with blanksSeparate, commas and runs of blanks alike
// separate and empty fields vanish.
std::vector<std::string_view> splitFields(std::string_view line, bool blanksSeparate) {
    std::vector<std::string_view> fields;
    std::size_t start = 0;
    for (std::size_t i = 0; i <= line.size(); ++i) {
        const char c = i == line.size() ? ',' : line[i];
        if (c != ',' && !(blanksSeparate && (c == ' ' || c == '\t'))) continue;
        const std::string_view field = trim(line.substr(start, i - start));
        if (!(blanksSeparate && field.empty())) fields.push_back(field);
        start = i + 1;
    }
    return fields;
}

bool parseNumber(std::string_view field, double& value) {
    if (field.empty() || field.size() > 64) return false;
    const std::string copy(field);
    char* end = nullptr;
    errno = 0;
    value = std::strtod(copy.c_str(), &end);
    return end == copy.c_str() + copy.size() && errno == 0 && std::isfinite(value);
}

bool parseSide(std::string_view field, int& value) {
    double v = 0.0;
    if (!parseNumber(field, v) || v != std::floor(v) || v < 1 || v > kMaxListImageSide)
        return false;
    value = static_cast<int>(v);
    return true;
}

std::string lineError(int line, const std::string& what) {
    return "line " + std::to_string(line) + ": " + what;
}

// Reads the 28 coordinates starting at fields[first]; an error text, or empty.
std::string readPoints(const std::vector<std::string_view>& fields, std::size_t first,
                       const std::string* names, FrameRow& row) {
    for (int k = 0; k < 2 * kFacePointCount; ++k) {
        const std::string_view f = fields[first + k];
        double v = 0.0;
        const std::string name = names != nullptr
                                     ? names[k]
                                     : std::string(k % 2 == 0 ? "x" : "y") + std::to_string(k / 2);
        if (!parseNumber(f, v))
            return lineError(row.line, "expected a number for " + name + ", found \"" +
                                           std::string(f.substr(0, 40)) + "\"");
        if (std::fabs(v) > kMaxListCoordinate)
            return lineError(row.line, name + " = " + std::string(f.substr(0, 40)) +
                                           " is far outside any image");
        row.points[k] = v;
    }
    return {};
}

bool needsQuotes(std::string_view name) {
    // A name that begins like a byte order mark would lose it as a file's first row.
    if (name.empty() || name == "image" || name.front() == '#' ||
        name.substr(0, 3) == "\xEF\xBB\xBF")
        return true;
    for (const char c : name) {
        const auto u = static_cast<unsigned char>(c);
        if (u <= ' ' || u == 0x7f || c == ',' || c == '"' || c == '\\') return true;
    }
    return false;
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// A quoted name at the start of line: true with the name and what follows the closing quote when
// the quotes close, every escape is one pointsFileRow writes, and a blank, a comma or the line's
// end follows.
bool readQuotedName(std::string_view line, std::string& name, std::string_view& rest) {
    if (line.empty() || line.front() != '"') return false;
    name.clear();
    for (std::size_t i = 1; i < line.size(); ++i) {
        const char c = line[i];
        if (c == '"') {
            rest = line.substr(i + 1);
            return rest.empty() || rest.front() == ' ' || rest.front() == '\t' ||
                   rest.front() == ',';
        }
        if (c != '\\') {
            name += c;
            continue;
        }
        if (++i == line.size()) return false;
        switch (line[i]) {
            case '"':
                name += '"';
                break;
            case '\\':
                name += '\\';
                break;
            case 'n':
                name += '\n';
                break;
            case 'r':
                name += '\r';
                break;
            case 't':
                name += '\t';
                break;
            case 'x': {
                const int high = i + 2 < line.size() ? hexDigit(line[i + 1]) : -1;
                const int low = high >= 0 ? hexDigit(line[i + 2]) : -1;
                if (low < 0) return false;
                name += static_cast<char>(high * 16 + low);
                i += 2;
                break;
            }
            default:
                return false;
        }
    }
    return false;
}

}  // namespace

std::string pointsFileRow(std::string_view image, const ListPoints& points) {
    std::string line;
    if (!needsQuotes(image)) {
        line = image;
    } else {
        line = '"';
        for (const char c : image) {
            const auto u = static_cast<unsigned char>(c);
            if (c == '"' || c == '\\') {
                line += '\\';
                line += c;
            } else if (c == '\n') {
                line += "\\n";
            } else if (c == '\r') {
                line += "\\r";
            } else if (c == '\t') {
                line += "\\t";
            } else if (u < ' ' || u == 0x7f) {
                char escaped[8];
                std::snprintf(escaped, sizeof escaped, "\\x%02x", u);
                line += escaped;
            } else {
                line += c;
            }
        }
        line += '"';
    }
    char number[32];
    for (double v : points) {
        std::snprintf(number, sizeof number, " %.2f", v);
        line += number;
    }
    return line + "\n";
}

namespace {

Parsed manifestRows(std::string_view text) {
    Parsed list;
    const std::vector<std::string_view> lines = splitLines(text);
    std::size_t l = 0;
    while (l < lines.size() && trim(lines[l]).empty()) ++l;
    if (l == lines.size()) {
        list.error = "empty: expected a header row naming identity, video, image, x0 ... y13";
        return list;
    }
    const std::vector<std::string_view> header = splitFields(lines[l], false);
    std::map<std::string, std::size_t, std::less<>> column;
    for (std::size_t i = 0; i < header.size(); ++i) column.emplace(std::string(header[i]), i);
    std::string pointNames[2 * kFacePointCount];
    std::vector<std::size_t> pointColumns;
    std::vector<std::string> required = {"identity", "video", "image"};
    for (int k = 0; k < kFacePointCount; ++k) {
        pointNames[2 * k] = "x" + std::to_string(k);
        pointNames[2 * k + 1] = "y" + std::to_string(k);
        required.push_back(pointNames[2 * k]);
        required.push_back(pointNames[2 * k + 1]);
    }
    for (const std::string& name : required)
        if (column.find(name) == column.end()) {
            list.error =
                lineError(static_cast<int>(l) + 1, "the header lacks the column \"" + name + "\"");
            return list;
        }
    auto optional = [&](const char* name) {
        auto it = column.find(name);
        return it == column.end() ? header.size() : it->second;
    };
    const std::size_t split = optional("split"), width = optional("width"),
                      height = optional("height");
    for (++l; l < lines.size(); ++l) {
        if (trim(lines[l]).empty()) continue;
        FrameRow row;
        row.line = static_cast<int>(l) + 1;
        const std::vector<std::string_view> fields = splitFields(lines[l], false);
        if (fields.size() != header.size()) {
            list.error = lineError(row.line, "expected " + std::to_string(header.size()) +
                                                 " fields as in the header, found " +
                                                 std::to_string(fields.size()));
            return list;
        }
        if (list.rows.size() >= kMaxListRows) {
            list.error = lineError(row.line, "more than 1000000 rows");
            return list;
        }
        row.identity = std::string(fields[column["identity"]]);
        row.video = std::string(fields[column["video"]]);
        row.image = std::string(fields[column["image"]]);
        if (row.identity.empty() || row.image.empty()) {
            list.error = lineError(row.line, "expected an identity and an image name");
            return list;
        }
        if (split < fields.size()) row.split = std::string(fields[split]);
        if (width < fields.size() && !parseSide(fields[width], row.width)) {
            list.error = lineError(row.line, "expected a width of 1 to 16384 pixels");
            return list;
        }
        if (height < fields.size() && !parseSide(fields[height], row.height)) {
            list.error = lineError(row.line, "expected a height of 1 to 16384 pixels");
            return list;
        }
        std::vector<std::string_view> ordered;
        for (const std::string& name : pointNames) ordered.push_back(fields[column[name]]);
        list.error = readPoints(ordered, 0, pointNames, row);
        if (!list.ok()) return list;
        list.rows.push_back(std::move(row));
    }
    return list;
}

Parsed pointsFileRows(std::string_view text) {
    Parsed list;
    const std::vector<std::string_view> lines = splitLines(text);
    bool first = true;
    for (std::size_t l = 0; l < lines.size(); ++l) {
        const std::string_view line = trim(lines[l]);
        if (line.empty() || line.front() == '#') continue;
        FrameRow row;
        row.line = static_cast<int>(l) + 1;
        std::string quotedName;
        std::string_view rest;
        const bool quoted = readQuotedName(line, quotedName, rest);
        std::vector<std::string_view> fields = splitFields(quoted ? rest : line, true);
        if (quoted) fields.insert(fields.begin(), quotedName);
        const bool header = first && !quoted && !fields.empty() && fields[0] == "image";
        first = false;
        if (header) continue;
        if (fields.size() != 1 + 2 * kFacePointCount) {
            list.error = lineError(row.line, "expected an image name and 28 coordinates, found " +
                                                 std::to_string(fields.size()) + " fields");
            return list;
        }
        if (list.rows.size() >= kMaxListRows) {
            list.error = lineError(row.line, "more than 1000000 rows");
            return list;
        }
        row.image = std::string(fields[0]);
        list.error = readPoints(fields, 1, nullptr, row);
        if (!list.ok()) return list;
        list.rows.push_back(std::move(row));
    }
    if (list.rows.empty()) list.error = "no rows: expected \"image x0 y0 ... x13 y13\" lines";
    return list;
}

Result<std::vector<FrameRow>> resultOf(Parsed parsed, const std::string& path) {
    if (!parsed.ok())
        return Status::failure(ErrorKind::File,
                               path.empty() ? parsed.error : path + ": " + parsed.error);
    return std::move(parsed.rows);
}

// Why a list file could not be read, in the words the program has always used: a user sees the
// same line from every host.
std::string unreadable(const std::string& path, const std::string& why) {
    const std::string expected = "; expected a list of frames";
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0 || why.empty())
        return path + ": cannot be read (" + why + ")" + expected;
    if (S_ISDIR(st.st_mode)) return path + ": is a folder" + expected;
    if (!S_ISREG(st.st_mode))
        return path + ": not a regular file (a pipe, a socket or a device)" + expected;
    if (static_cast<unsigned long long>(st.st_size) > kMaxListFileBytes)
        return path + ": larger than " + std::to_string(kMaxListFileBytes >> 20) + " MiB" +
               expected;
    return path + ": cannot be read (" + why + ")" + expected;
}

// The list file's text: a regular file (a pipe or a device would block or never end) of at most
// kMaxListFileBytes.
Result<std::string> listText(const std::string& path) {
    std::vector<unsigned char> bytes;
    std::string why;
    if (!msm::readWholeFile(path.c_str(), bytes, &why, kMaxListFileBytes))
        return Status::failure(ErrorKind::File, unreadable(path, why));
    return std::string(bytes.begin(), bytes.end());
}

}  // namespace

Result<std::vector<FrameRow>> parseManifest(std::string_view text) {
    return resultOf(manifestRows(text), {});
}

Result<std::vector<FrameRow>> parsePointsFile(std::string_view text) {
    return resultOf(pointsFileRows(text), {});
}

Result<std::vector<FrameRow>> readManifest(const std::string& path) {
    Result<std::string> text = listText(path);
    if (!text.ok()) return text.status();
    return resultOf(manifestRows(*text), path);
}

Result<std::vector<FrameRow>> readPointsFile(const std::string& path) {
    Result<std::string> text = listText(path);
    if (!text.ok()) return text.status();
    return resultOf(pointsFileRows(*text), path);
}

}  // namespace msmface
