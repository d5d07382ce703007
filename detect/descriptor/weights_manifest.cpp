// A small JSON reader, only as much as the weights manifest needs, and the manifest's checks.
#include "detect/descriptor/weights_manifest.h"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <utility>

namespace msmface::detail {

namespace {

// A parsed JSON value. Objects keep their members in file order.
struct Json {
    enum class Type { Null, Bool, Number, String, Array, Object } type = Type::Null;
    bool boolean = false;
    double number = 0;
    std::string text;
    std::vector<Json> items;
    std::vector<std::pair<std::string, Json>> members;

    const Json* member(std::string_view key) const {
        for (const auto& m : members)
            if (m.first == key) return &m.second;
        return nullptr;
    }
};

// Nesting beyond this is no manifest; the limit keeps hostile input from exhausting the stack.
constexpr int kMaxDepth = 16;

class JsonReader {
  public:
    explicit JsonReader(std::string_view text) : text_(text) {}

    // The whole text as one value, or false with error() saying where it stopped.
    bool parse(Json& out) {
        if (!value(out, 0)) return false;
        skipSpace();
        if (pos_ != text_.size()) return fail("text after the end of the JSON value");
        return true;
    }
    std::string error() const { return error_ + " at byte " + std::to_string(pos_); }

  private:
    bool fail(const char* what) {
        if (error_.empty()) error_ = what;
        return false;
    }
    void skipSpace() {
        while (pos_ < text_.size() && (text_[pos_] == ' ' || text_[pos_] == '\t' ||
                                       text_[pos_] == '\n' || text_[pos_] == '\r'))
            ++pos_;
    }
    bool literal(const char* word) {
        const std::size_t n = std::strlen(word);
        if (text_.substr(pos_, n) != word) return fail("unknown word");
        pos_ += n;
        return true;
    }
    bool value(Json& out, int depth) {
        if (depth > kMaxDepth) return fail("nesting too deep");
        skipSpace();
        if (pos_ >= text_.size()) return fail("unexpected end");
        const char c = text_[pos_];
        if (c == '{') return object(out, depth);
        if (c == '[') return array(out, depth);
        if (c == '"') {
            out.type = Json::Type::String;
            return string(out.text);
        }
        if (c == 't' || c == 'f') {
            out.type = Json::Type::Bool;
            out.boolean = c == 't';
            return literal(c == 't' ? "true" : "false");
        }
        if (c == 'n') return literal("null");
        return number(out);
    }
    bool object(Json& out, int depth) {
        out.type = Json::Type::Object;
        ++pos_;
        skipSpace();
        if (pos_ < text_.size() && text_[pos_] == '}') return ++pos_, true;
        for (;;) {
            skipSpace();
            std::string key;
            if (pos_ >= text_.size() || text_[pos_] != '"') return fail("expected a member name");
            if (!string(key)) return false;
            skipSpace();
            if (pos_ >= text_.size() || text_[pos_] != ':') return fail("expected ':'");
            ++pos_;
            Json v;
            if (!value(v, depth + 1)) return false;
            out.members.emplace_back(std::move(key), std::move(v));
            skipSpace();
            if (pos_ < text_.size() && text_[pos_] == ',') {
                ++pos_;
                continue;
            }
            if (pos_ < text_.size() && text_[pos_] == '}') return ++pos_, true;
            return fail("expected ',' or '}'");
        }
    }
    bool array(Json& out, int depth) {
        out.type = Json::Type::Array;
        ++pos_;
        skipSpace();
        if (pos_ < text_.size() && text_[pos_] == ']') return ++pos_, true;
        for (;;) {
            Json v;
            if (!value(v, depth + 1)) return false;
            out.items.push_back(std::move(v));
            skipSpace();
            if (pos_ < text_.size() && text_[pos_] == ',') {
                ++pos_;
                continue;
            }
            if (pos_ < text_.size() && text_[pos_] == ']') return ++pos_, true;
            return fail("expected ',' or ']'");
        }
    }
    // Names in this file are plain ASCII; escapes other than the simple ones are refused rather
    // than decoded.
    bool string(std::string& out) {
        ++pos_;
        while (pos_ < text_.size()) {
            const char c = text_[pos_++];
            if (c == '"') return true;
            if (static_cast<unsigned char>(c) < 0x20) return fail("control character in a string");
            if (c != '\\') {
                out.push_back(c);
                continue;
            }
            if (pos_ >= text_.size()) break;
            const char e = text_[pos_++];
            const char* from = "\"\\/bfnrt";
            const char* to = "\"\\/\b\f\n\r\t";
            const char* at = std::strchr(from, e);
            if (e == '\0' || at == nullptr) return fail("unsupported escape in a string");
            out.push_back(to[at - from]);
        }
        return fail("unterminated string");
    }
    bool number(Json& out) {
        // JSON's grammar first (from_chars alone would accept "inf", "nan" and hex digits).
        std::size_t end = pos_;
        if (end < text_.size() && text_[end] == '-') ++end;
        const std::size_t digits = end;
        while (end < text_.size() && std::strchr("0123456789.eE+-", text_[end]) != nullptr &&
               text_[end] != '\0')
            ++end;
        if (end == digits || text_[digits] < '0' || text_[digits] > '9')
            return fail("expected a value");
        double v = 0;
        const char* first = text_.data() + pos_;
        const auto [ptr, ec] = std::from_chars(first, text_.data() + end, v);
        if (ec != std::errc() || ptr != text_.data() + end || !std::isfinite(v))
            return fail("malformed number");
        out.type = Json::Type::Number;
        out.number = v;
        pos_ = end;
        return true;
    }

    std::string_view text_;
    std::size_t pos_ = 0;
    std::string error_;
};

Status bad(const std::string& what) {
    return Status::failure(ErrorKind::File, "weights manifest: " + what);
}

// Names end up in one-line messages: printable ASCII only.
bool printable(const std::string& text) {
    for (const char c : text)
        if (c < 0x20 || c > 0x7e) return false;
    return true;
}

bool plainFileName(const std::string& name) {
    return !name.empty() && name.size() <= 255 && name != "." && name != ".." && printable(name) &&
           name.find('/') == std::string::npos && name.find('\\') == std::string::npos;
}

Result<WeightTensor> tensorFrom(const Json& entry, std::size_t index) {
    const std::string where = "tensor " + std::to_string(index);
    if (entry.type != Json::Type::Object) return bad(where + " is not an object");
    WeightTensor t;
    const Json* name = entry.member("name");
    if (name == nullptr || name->type != Json::Type::String || name->text.empty() ||
        name->text.size() > 256 || !printable(name->text))
        return bad(where + " has no name of 1 to 256 printable characters");
    t.name = name->text;
    const std::string named = where + " (" + t.name + ")";
    const Json* dtype = entry.member("dtype");
    const Json* quantisation = entry.member("quantization");
    // The detectors' graphs also carry a few integer constants (slice bounds, reshape sizes),
    // always as uint8 codes; a raw int32 tensor would need a decoding the networks never use.
    const bool integer = dtype != nullptr && dtype->type == Json::Type::String &&
                         dtype->text == "int32" && quantisation != nullptr;
    if (!integer &&
        (dtype == nullptr || dtype->type != Json::Type::String || dtype->text != "float32"))
        return bad(named + ": dtype is not float32 (nor int32 as uint8 codes)");
    const Json* shape = entry.member("shape");
    // An empty shape is a scalar: one value.
    if (shape == nullptr || shape->type != Json::Type::Array || shape->items.size() > 4)
        return bad(named + ": shape is not a list of 0 to 4 dimensions");
    t.values = 1;
    for (const Json& d : shape->items) {
        if (d.type != Json::Type::Number || d.number < 1 || d.number > 65536 ||
            d.number != std::floor(d.number))
            return bad(named + ": a dimension is not a whole number from 1 to 65536");
        t.shape.push_back(static_cast<int>(d.number));
        t.values *= static_cast<std::size_t>(d.number);
        if (t.values > kMaxTensorValues)
            return bad(named + ": more than " + std::to_string(kMaxTensorValues) + " values");
    }
    if (const Json* q = quantisation) {
        const Json* qtype = q->member("dtype");
        const Json* scale = q->member("scale");
        const Json* min = q->member("min");
        if (q->type != Json::Type::Object || qtype == nullptr ||
            qtype->type != Json::Type::String || qtype->text != "uint8")
            return bad(named + ": quantization is not uint8");
        if (scale == nullptr || min == nullptr || scale->type != Json::Type::Number ||
            min->type != Json::Type::Number)
            return bad(named + ": quantization lacks a numeric scale and min");
        // Beyond single precision even the byte 0 would decode to an infinity.
        const double largest = std::numeric_limits<float>::max();
        if (std::fabs(scale->number) > largest || std::fabs(min->number) > largest)
            return bad(named + ": quantization scale or min beyond single precision");
        t.quantised = true;
        t.scale = scale->number;
        t.min = min->number;
    }
    return t;
}

}  // namespace

Result<WeightsManifest> parseWeightsManifest(std::string_view json) {
    if (json.size() > kMaxManifestBytes)
        return bad(std::to_string(json.size()) + " bytes, expected at most " +
                   std::to_string(kMaxManifestBytes));
    Json root;
    JsonReader reader(json);
    if (!reader.parse(root)) return bad("not JSON: " + reader.error());
    if (root.type != Json::Type::Array || root.items.size() != 1)
        return bad("expected a list of one weight group");
    const Json& group = root.items.front();
    const Json* paths = group.member("paths");
    const Json* weights = group.member("weights");
    if (paths == nullptr || paths->type != Json::Type::Array || paths->items.empty() ||
        paths->items.size() > kMaxWeightFiles)
        return bad("\"paths\" is not a list of 1 to " + std::to_string(kMaxWeightFiles) +
                   " file names");
    if (weights == nullptr || weights->type != Json::Type::Array || weights->items.empty())
        return bad("\"weights\" is not a non-empty list");
    WeightsManifest out;
    for (const Json& p : paths->items) {
        if (p.type != Json::Type::String || !plainFileName(p.text))
            return bad("a weight file is not a plain file name beside the manifest");
        out.files.push_back(p.text);
    }
    std::size_t values = 0;
    for (std::size_t i = 0; i < weights->items.size(); ++i) {
        auto tensor = tensorFrom(weights->items[i], i);
        if (!tensor) return tensor.status();
        for (const WeightTensor& earlier : out.tensors)
            if (earlier.name == tensor->name) return bad("tensor " + tensor->name + " twice");
        values += tensor->values;
        if (values > kMaxWeightValues)
            return bad("more than " + std::to_string(kMaxWeightValues) + " values in all");
        tensor->offset = out.totalBytes;
        out.totalBytes += tensor->bytes();
        out.tensors.push_back(std::move(tensor).value());
    }
    return out;
}

Result<std::vector<std::vector<float>>> decodeWeights(const WeightsManifest& manifest,
                                                      const unsigned char* data, std::size_t size) {
    if (size != manifest.totalBytes)
        return Status::failure(ErrorKind::File,
                               "weight files: " + std::to_string(size) + " bytes, expected " +
                                   std::to_string(manifest.totalBytes) +
                                   " as the manifest lists (truncated or another model?)");
    std::vector<std::vector<float>> out;
    out.reserve(manifest.tensors.size());
    for (const WeightTensor& t : manifest.tensors) {
        std::vector<float> v(t.values);
        const unsigned char* at = data + t.offset;
        if (t.quantised) {
            for (std::size_t i = 0; i < t.values; ++i)
                v[i] = static_cast<float>(at[i] * t.scale + t.min);
        } else {
            static_assert(sizeof(float) == 4, "weights are IEEE single precision");
            std::memcpy(v.data(), at, 4 * t.values);
        }
        for (float x : v)
            if (!std::isfinite(x))
                return Status::failure(ErrorKind::File,
                                       "weight files: tensor " + t.name +
                                           " holds a value that is not a finite number");
        out.push_back(std::move(v));
    }
    return out;
}

}  // namespace msmface::detail
