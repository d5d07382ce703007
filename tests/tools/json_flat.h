// A strict little JSON reader for the tests: the whole document, or nothing, as a flat map from
// paths ("methods[2].at_far_1.threshold") to the literal text of each number, string (unquoted,
// escapes kept) or true/false/null.
#ifndef MSMFACE_TESTS_TOOLS_JSON_FLAT_H
#define MSMFACE_TESTS_TOOLS_JSON_FLAT_H

#include <cctype>
#include <cstdlib>
#include <map>
#include <string>

namespace clitest {

class JsonFlat {
  public:
    // False when text is not one well-formed JSON value (with nothing but blanks after it).
    bool parse(const std::string& text) {
        text_ = &text;
        at_ = 0;
        values.clear();
        if (!value("")) return false;
        blanks();
        return at_ == text.size();
    }
    double number(const std::string& path) const {
        const auto it = values.find(path);
        return it == values.end() ? -1e300 : std::strtod(it->second.c_str(), nullptr);
    }
    std::map<std::string, std::string> values;

  private:
    void blanks() {
        while (at_ < text_->size() && std::isspace(static_cast<unsigned char>((*text_)[at_])))
            ++at_;
    }
    bool eat(char c) {
        blanks();
        if (at_ < text_->size() && (*text_)[at_] == c) {
            ++at_;
            return true;
        }
        return false;
    }
    bool string(std::string& out) {
        if (!eat('"')) return false;
        out.clear();
        while (at_ < text_->size() && (*text_)[at_] != '"') {
            if (static_cast<unsigned char>((*text_)[at_]) < 0x20) return false;
            if ((*text_)[at_] == '\\') out += (*text_)[at_++];
            if (at_ < text_->size()) out += (*text_)[at_++];
        }
        return eat('"');
    }
    bool value(const std::string& path) {
        blanks();
        if (at_ >= text_->size()) return false;
        const char c = (*text_)[at_];
        if (c == '{') {
            ++at_;
            if (eat('}')) return true;
            do {
                std::string key;
                if (!string(key) || !eat(':') || !value(path.empty() ? key : path + "." + key))
                    return false;
            } while (eat(','));
            return eat('}');
        }
        if (c == '[') {
            ++at_;
            if (eat(']')) return true;
            int i = 0;
            do {
                if (!value(path + "[" + std::to_string(i++) + "]")) return false;
            } while (eat(','));
            return eat(']');
        }
        if (c == '"') {
            std::string s;
            if (!string(s)) return false;
            values[path] = s;
            return true;
        }
        for (const char* word : {"true", "false", "null"})
            if (text_->compare(at_, std::string(word).size(), word) == 0) {
                values[path] = word;
                at_ += std::string(word).size();
                return true;
            }
        if (c != '-' && !std::isdigit(static_cast<unsigned char>(c))) return false;  // no nan/inf
        const char* begin = text_->c_str() + at_;
        char* end = nullptr;
        std::strtod(begin, &end);
        if (end == begin) return false;
        values[path] = std::string(begin, static_cast<std::size_t>(end - begin));
        at_ += static_cast<std::size_t>(end - begin);
        return true;
    }
    const std::string* text_ = nullptr;
    std::size_t at_ = 0;
};

}  // namespace clitest

#endif  // MSMFACE_TESTS_TOOLS_JSON_FLAT_H
