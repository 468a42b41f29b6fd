// The line reader and block grammar of scene files.
//
// A scene file is read line by line. The first word of a line is its keyword,
// the values follow on the same line. A keyword that opens a block hands the
// file on to the block's parser, which reads lines until a line whose first
// word is `end` or until the file ends. Nothing here reports anything: unknown
// words, unreadable numbers and unclosed blocks are silent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <sstream>
#include <string>

#include "core/vector.h"

// Longest line a scene file may hold; the rest of a longer line is dropped.
inline constexpr std::size_t kSceneLineLimit = 4095;

// The file side of the reader: hands out lines and knows when the file ended.
class SceneInput {
public:
    explicit SceneInput(std::istream& file) : file_(file) {}

    // True once a line read has run into the end of the file.
    bool atEnd() const { return atEnd_; }

    // Reads up to the next newline into `line`, keeping at most
    // kSceneLineLimit characters and dropping a carriage return before the
    // newline. Returns false when the file was already at its end.
    bool readLine(std::string& line);

private:
    std::istream& file_;
    bool atEnd_ = false;
};

// One line as a stream of values, read in the classic locale. A failed read
// leaves the stream failed, so every later value of the same line is left
// alone as well.
class LineStream {
public:
    LineStream();
    // Starts over with a new line; clears the failed state.
    void reset(const std::string& line);
    std::istream& stream() { return stream_; }

private:
    std::istringstream stream_;
};

// Typed readers of the line stream. A number that cannot be read leaves its
// target as it was (and the stream failed); text after a number is left for
// the next read.
void ReadFloat(std::istream& line, float& target);
void ReadInt(std::istream& line, int& target);
void ReadLong(std::istream& line, int64_t& target);
void ReadUnsigned(std::istream& line, uint32_t& target);
// A word up to the next white space; quotes stay part of it.
void ReadWord(std::istream& line, std::string& target);
// The text between the first two double quotes of the rest of the line; the
// rest of the line after an opening quote alone; the empty string without a
// quote.
void ReadQuoted(std::istream& line, std::string& target);
// Three floats, each left alone if it cannot be read.
void ReadFloats(std::istream& line, float* target, int count);
void ReadVector(std::istream& line, Vector& target);

// One keyword of a block and what it does: `serve` gets the file (for nested
// blocks), the line stream positioned behind the keyword, and the record that
// the block fills.
template <typename Record>
struct BlockKeyword {
    const char* word;
    void (*serve)(SceneInput& input, std::istream& line, Record& record);
};

// Reads the first word of a line; a blank line gives the empty word.
std::string firstWord(std::istream& line);

// The loop that every block shares. It returns on a line whose first word is
// `end` or when the file has ended. A line whose first character is `#` is a
// comment. Every keyword of the table is compared with the word, in order and
// without stopping at the first match, so a word that stands twice in a table
// runs both actions. Words that match nothing are dropped with their line.
template <typename Record, std::size_t N>
void readBlock(SceneInput& input, Record& record, const BlockKeyword<Record> (&table)[N]) {
    std::string text;
    LineStream line;
    while (!input.atEnd()) {
        if (!input.readLine(text)) return;
        if (!text.empty() && text[0] == '#') continue;
        line.reset(text);
        const std::string word = firstWord(line.stream());
        if (word == "end") return;
        for (const BlockKeyword<Record>& keyword : table)
            if (word == keyword.word) keyword.serve(input, line.stream(), record);
    }
}

// Reads a block that has no nested blocks up to its `end` and drops it.
void skipBlock(SceneInput& input);

// Reads one scene file from a stream: every top-level keyword starts the
// block that it names, anything else at the top level is dropped.
void readSceneStream(std::istream& file);
// Opens and reads one scene file; a file that cannot be opened is passed over.
void readSceneFile(const std::string& path);
