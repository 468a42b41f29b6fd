#include "scene/block_reader.h"

#include <istream>
#include <locale>

bool SceneInput::readLine(std::string& line) {
    line.clear();
    if (atEnd_) return false;
    // Characters come through the stream rather than its buffer: a read
    // error (a directory opened as a file, a failing disk) then ends the
    // file like its end does instead of escaping as an exception.
    bool any = false;
    for (;;) {
        const std::istream::int_type c = file_.get();
        if (c == std::istream::traits_type::eof()) {
            atEnd_ = true;
            break;
        }
        any = true;
        if (c == '\n') break;
        if (line.size() < kSceneLineLimit) line.push_back(char(c));
    }
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return any;
}

LineStream::LineStream() { stream_.imbue(std::locale::classic()); }

void LineStream::reset(const std::string& line) {
    stream_.clear();
    stream_.str(line);
}

namespace {

// Extracts into a temporary so that a failed read (which stores 0 or a limit
// into its operand) cannot reach the target.
template <typename T>
void readNumber(std::istream& line, T& target) {
    T value{};
    if (line >> value) target = value;
}

}  // namespace

void ReadFloat(std::istream& line, float& target) { readNumber(line, target); }
void ReadInt(std::istream& line, int& target) { readNumber(line, target); }
void ReadLong(std::istream& line, int64_t& target) { readNumber(line, target); }
void ReadUnsigned(std::istream& line, uint32_t& target) { readNumber(line, target); }

void ReadWord(std::istream& line, std::string& target) {
    std::string word;
    if (line >> word) target = word;
}

void ReadQuoted(std::istream& line, std::string& target) {
    std::string text;
    line.ignore(4096, '"');
    std::getline(line, text, '"');
    if (text.size() > kSceneLineLimit) text.resize(kSceneLineLimit);
    target = text;
}

void ReadFloats(std::istream& line, float* target, int count) {
    for (int i = 0; i < count; ++i) ReadFloat(line, target[i]);
}

void ReadVector(std::istream& line, Vector& target) {
    ReadFloat(line, target.x);
    ReadFloat(line, target.y);
    ReadFloat(line, target.z);
}

namespace {
struct Skipped {};
// A blank is never a word, so this table matches nothing.
constexpr BlockKeyword<Skipped> kNothing[] = {{" ", nullptr}};
}  // namespace

void skipBlock(SceneInput& input) {
    Skipped skipped;
    readBlock(input, skipped, kNothing);
}

std::string firstWord(std::istream& line) {
    std::string word;
    line >> word;
    return word;
}
